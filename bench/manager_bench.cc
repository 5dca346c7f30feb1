// Measures the capture manager: a frame, with the usage check after it, while the directory
// contains 10, 1,000 and 20,000 files; and a whole short capture.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>

#include "base/owned.h"
#include "base/paths.h"
#include "bench/support.h"
#include "capture/capture_manager.h"
#include "capture/meta_cache.h"
#include "frameq/tarnik_q.h"

namespace tarnik::bench {
namespace {

constexpr std::size_t kFlows = 10;
constexpr std::size_t kFrames = 40000;
constexpr std::array<std::size_t, 3> kFileCounts = {10, 1000, 20000};

CaptureManager& manager() {
  static const bool isSetUp = (setUpManager(), true);
  static_cast<void>(isSetUp);
  return CaptureManager::instance();
}

void announce(std::uint64_t captureId, std::uint32_t triggerId) {
  TarnikMetaCache::instance().add(captureId, captureId, triggerId);
}

// The steps of the capture thread.
void consume(const Frame& frame, std::uint64_t captureId, std::uint32_t flags = 0) {
  if (manager().ConsumeFrame(captureId, frame.header, frame.data, flags) != 0) {
    giveUp("ConsumeFrame");
  }
  manager().UpdateUsageCounters();
}

void makeFile(std::size_t number) {
  const std::string path =
      kCaptureDir + ("20240305-070809.ips.X_Y." + std::to_string(number) + ".pcap");
  const OwnedFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (!fd || ::ftruncate(fd.get(), 1000) != 0) {
    giveUp(path.c_str());
  }
}

// Nanoseconds per frame with `files` files in the directory, including those of the captures.
double frameAmong(std::size_t files, const Traffic& traffic) {
  for (std::size_t file = kFlows; file < files; ++file) {
    makeFile(file);
  }
  for (std::size_t i = 0; i < kFlows; ++i) {
    consume(traffic.frames()[i], traffic.frames()[i].flow);
  }
  const double start = threadTime();
  for (std::size_t i = kFlows; i < kFrames; ++i) {
    consume(traffic.frames()[i], traffic.frames()[i].flow);
  }
  const double time = threadTime() - start;
  manager().CloseWriters();
  emptyCaptureDirectory();
  return time / static_cast<double>(kFrames - kFlows);
}

void framesAmongFiles(benchmark::State& state) {
  static const Traffic traffic(kFlows, kFrames);
  for (std::uint64_t flow = 1; flow <= kFlows; ++flow) {
    announce(flow, kIssue);
  }
  static const double warm = frameAmong(kFileCounts.back(), traffic);
  benchmark::DoNotOptimize(warm);
  for (auto _ : state) {
    double sum = 0;
    for (const std::size_t files : kFileCounts) {
      const double time = frameAmong(files, traffic);
      state.counters["ns_" + std::to_string(files)] = time;
      sum += time;
    }
    state.SetIterationTime(sum * 1e-9 * kFrames);
  }
}

// Captures of one frame each, with everything from the metadata to the info file. Also the part of
// the shell, which copies the info template.
void captures(benchmark::State& state) {
  constexpr unsigned kCaptures = 300;
  using Clock = std::chrono::steady_clock;
  static const Traffic traffic(1, 1);
  static std::uint64_t captureId = 1000;
  manager();
  const std::string copy = std::string("cp ") + kIpsTemplatePath + " " + kCaptureDir + "copy.info";
  for (auto _ : state) {
    const Clock::time_point begin = Clock::now();
    const double start = processTimeWithChildren();
    for (unsigned i = 0; i < kCaptures; ++i) {
      announce(++captureId, i % 2 == 0 ? kIssue : kRule);
      consume(traffic.frames().front(), captureId, kPktLastFrame);
    }
    const double middle = processTimeWithChildren();
    const std::chrono::duration<double> elapsed = Clock::now() - begin;
    for (unsigned i = 0; i < kCaptures; ++i) {
      if (std::system(copy.c_str()) != 0) {
        giveUp(copy.c_str());
      }
    }
    const double end = processTimeWithChildren();
    state.counters["ns_capture"] = (middle - start) / kCaptures;
    state.counters["ns_copy"] = (end - middle) / kCaptures;
    state.counters["per_second"] = kCaptures / elapsed.count();
    state.SetIterationTime(elapsed.count());
    emptyCaptureDirectory();
  }
}

BENCHMARK(framesAmongFiles)->Apply(inRounds);
BENCHMARK(captures)->Apply(inRounds);

}  // namespace
}  // namespace tarnik::bench
