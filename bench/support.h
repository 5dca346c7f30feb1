// What the benchmarks share. They work on the capture directory and the daemon's fixed paths, so
// they run in a private root only, where all of these lie in memory.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frameq/frame_header.h"

namespace tarnik::bench {

// Ends the process with a message, when something that a measurement rests on does not work.
[[noreturn]] void giveUp(const char* what);

// Ends the process outside a private root.
void requirePrivateRoot();

// Makes the directory, or empties it.
void emptyDirectory(const char* path);

// Processor time in nanoseconds: of the calling thread, of the process, and of the process with
// its ended children.
[[nodiscard]] double threadTime();
[[nodiscard]] double processTime();
[[nodiscard]] double processTimeWithChildren();

// Frames of 40 to 960 bytes, 500 in the mean. The first of each flow come first, then all flows'
// in random order. The flow is also the first eight bytes of the data.
struct Frame {
  std::uint64_t flow = 0;  // from 1
  FrameHeader header;
  const std::uint8_t* data = nullptr;
};
class Traffic {
 public:
  Traffic(std::size_t flows, std::size_t frames);
  [[nodiscard]] const std::vector<Frame>& frames() const { return frames_; }

 private:
  std::vector<std::uint8_t> bytes_;
  std::vector<Frame> frames_;
};

// Gives the process's capture manager limits that are never met, two issues and a rule, and writes
// the info templates. The second issue has a name that no shell is given, so that the info files
// of its captures cost no processes.
inline constexpr std::uint32_t kIssue = 70000;
inline constexpr std::uint32_t kUnshelledIssue = 70001;
inline constexpr std::uint32_t kRule = 5;
void setUpManager();

// Empties the capture directory but for the info templates.
void emptyCaptureDirectory();

// One iteration of a benchmark is a round, in which everything that is compared has its turn; the
// results are the round's counters. Every benchmark has so many rounds.
inline constexpr int kRounds = 15;
void inRounds(benchmark::internal::Benchmark* benchmark);

}  // namespace tarnik::bench
