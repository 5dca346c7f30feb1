// Measures the directory usage check that follows every frame, with 10, 1,000 and 20,000 capture
// files: without changes, after a file has grown, and as a scan.
//
// Uses the capture directory itself: run it in a private root.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/owned.h"
#include "base/paths.h"
#include "bench/support.h"
#include "capture/disk_usage.h"

namespace tarnik {
namespace {

std::string pathOf(int file) {
  return kCaptureDir + ("20240305-070809.ips.X_Y." + std::to_string(file) + ".pcap");
}

void fillDirectory(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  bench::emptyDirectory(kCaptureDir);
  for (int file = 0; file < count; ++file) {
    const OwnedFd fd(::open(pathOf(file).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (::ftruncate(fd.get(), 1000) != 0) {
      bench::giveUp("ftruncate");
    }
  }
}

void ledgerWithoutChange(benchmark::State& state) {
  fillDirectory(state);
  DiskUsage usage;
  std::uint64_t bytes = 0;
  std::uint64_t files = 0;
  usage.update(bytes, files);
  for (auto _ : state) {
    usage.update(bytes, files);
    benchmark::DoNotOptimize(bytes);
  }
}

void ledgerAfterAWrite(benchmark::State& state) {
  fillDirectory(state);
  DiskUsage usage;
  std::uint64_t bytes = 0;
  std::uint64_t files = 0;
  usage.update(bytes, files);
  const OwnedFd fd(::open(pathOf(0).c_str(), O_WRONLY | O_CLOEXEC));
  for (auto _ : state) {
    if (::pwrite(fd.get(), "x", 1, 0) != 1) {
      state.SkipWithError("write failed");
    }
    usage.update(bytes, files);
    benchmark::DoNotOptimize(bytes);
  }
}

void scan(benchmark::State& state) {
  fillDirectory(state);
  std::uint64_t bytes = 0;
  std::uint64_t files = 0;
  for (auto _ : state) {
    scanDiskUsage(bytes, files);
    benchmark::DoNotOptimize(bytes);
  }
}

BENCHMARK(ledgerWithoutChange)->Arg(10)->Arg(1000)->Arg(20000);
BENCHMARK(ledgerAfterAWrite)->Arg(10)->Arg(1000)->Arg(20000);
BENCHMARK(scan)->Arg(10)->Arg(1000)->Arg(20000);

}  // namespace
}  // namespace tarnik
