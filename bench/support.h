// What the benchmarks share. They use the capture directory and the daemon's fixed paths, so they
// only run in a private root, where these are in memory.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frameq/frame_header.h"

namespace tarnik::bench {

// Ends the process with a message when something fails that a measurement needs.
[[noreturn]] void giveUp(const char* what);

// Ends the process outside a private root.
void requirePrivateRoot();

// Creates the directory, or empties it.
void emptyDirectory(const char* path);

// Processor time in nanoseconds: of the calling thread, of the process, and of the process
// including its ended children.
[[nodiscard]] double threadTime();
[[nodiscard]] double processTime();
[[nodiscard]] double processTimeWithChildren();

// Frames of 40 to 960 bytes (mean 500): the first frame of each flow, then the frames of all flows
// in random order. The first eight bytes of the data are the flow.
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

// Configures the process's capture manager with limits that are never reached, two issues and a
// rule, and writes the info templates. The name of the second issue is never passed to a shell, so
// the info files of its captures need no processes.
inline constexpr std::uint32_t kIssue = 70000;
inline constexpr std::uint32_t kUnshelledIssue = 70001;
inline constexpr std::uint32_t kRule = 5;
void setUpManager();

// Empties the capture directory, except for the info templates.
void emptyCaptureDirectory();

// An iteration of a benchmark is a round, in which everything that is compared takes its turn. The
// results are the round's counters. This is the number of rounds of every benchmark.
inline constexpr int kRounds = 15;
void inRounds(benchmark::internal::Benchmark* benchmark);

}  // namespace tarnik::bench
