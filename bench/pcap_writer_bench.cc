// Measures the processor time to write a frame to the file of its capture: with the writer, with
// libpcap's pcap_dump, and with plain streams that have buffers of several sizes. The frames have
// 40 to 960 bytes (mean 500) and are spread over the files at random. Opening and closing are not
// counted. pipeline_bench measures what the buffer size costs in usage checks of grown files.
//
// Uses the capture directory itself: run it in a private root, where files are in memory.
#include <benchmark/benchmark.h>
#include <pcap/pcap.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base/owned.h"
#include "base/paths.h"
#include "capture/pcap_writer.h"

namespace tarnik {
namespace {

constexpr int kFrames = 400000;

struct Frame {
  std::size_t file;
  FrameHeader header;
};

const std::vector<std::uint8_t>& data() {
  static const std::vector<std::uint8_t> bytes(1000, 0x5a);
  return bytes;
}

std::vector<Frame> frames(std::size_t files) {
  std::mt19937 random(1);
  std::vector<Frame> result(kFrames);
  for (Frame& frame : result) {
    frame.file = random() % files;
    frame.header.capturedLength = static_cast<std::uint32_t>(40 + random() % 921);
    frame.header.wireLength = frame.header.capturedLength;
    frame.header.seconds = 1700000000;
  }
  return result;
}

std::string pathOf(std::size_t file) {
  return kCaptureDir + std::to_string(file);
}

double processorTime() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Calls `open`, which returns the files, then `write` for each frame, and closes the files. Only
// the writes are timed.
template <class Open, class Write>
void measure(benchmark::State& state, std::size_t fileCount, Open open, Write write) {
  if (std::getenv("TARNIK_PRIVATE_ROOT") == nullptr) {
    std::fputs("this empties the capture directory: run it in a private root\n", stderr);
    std::exit(1);
  }
  const std::vector<Frame> all = frames(fileCount);
  bool warm = false;  // the first pass also allocates memory
  const auto pass = [&] {
    auto files = open(fileCount);
    const double start = processorTime();
    for (const Frame& frame : all) {
      write(files[frame.file], frame.header);
    }
    return processorTime() - start;
  };
  for (auto _ : state) {
    if (!warm) {
      pass();
      warm = true;
    }
    state.SetIterationTime(pass());
  }
  for (const auto& entry : std::filesystem::directory_iterator(kCaptureDir)) {
    std::filesystem::remove_all(entry);
  }
  state.SetItemsProcessed(state.iterations() * kFrames);
}

void writer(benchmark::State& state) {
  measure(
      state, static_cast<std::size_t>(state.range(0)),
      [](std::size_t count) {
        std::vector<std::unique_ptr<PcapWriter>> writers;
        for (std::size_t i = 0; i < count; ++i) {
          writers.push_back(std::make_unique<PcapWriter>(pathOf(i), 1ULL << 40U));
          if (!writers.back()->Open()) {
            std::exit(1);
          }
        }
        return writers;
      },
      [](std::unique_ptr<PcapWriter>& one, const FrameHeader& header) {
        benchmark::DoNotOptimize(one->Write(header, data().data()));
      });
}

struct DumperCloser {
  void operator()(pcap_dumper_t* dumper) const noexcept { ::pcap_dump_close(dumper); }
};
using Dumper = std::unique_ptr<pcap_dumper_t, DumperCloser>;

void libpcap(benchmark::State& state) {
  struct PcapCloser {
    void operator()(pcap_t* pcap) const noexcept { ::pcap_close(pcap); }
  };
  const std::unique_ptr<pcap_t, PcapCloser> pcap(::pcap_open_dead(DLT_EN10MB, 1500));
  measure(
      state, static_cast<std::size_t>(state.range(0)),
      [&pcap](std::size_t count) {
        std::vector<Dumper> dumpers;
        for (std::size_t i = 0; i < count; ++i) {
          dumpers.emplace_back(::pcap_dump_open(pcap.get(), pathOf(i).c_str()));
          if (!dumpers.back()) {
            std::exit(1);
          }
        }
        return dumpers;
      },
      [](Dumper& dumper, const FrameHeader& header) {
        pcap_pkthdr record{};
        record.ts.tv_sec = header.seconds;
        record.ts.tv_usec = header.microseconds;
        record.caplen = header.capturedLength;
        record.len = header.wireLength;
        ::pcap_dump(reinterpret_cast<u_char*>(dumper.get()), &record, data().data());
      });
}

struct Buffered {
  std::unique_ptr<char[]> buffer;
  Stream stream;
};

void streamBuffer(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(1));
  measure(
      state, static_cast<std::size_t>(state.range(0)),
      [size](std::size_t count) {
        std::vector<Buffered> files;
        for (std::size_t i = 0; i < count; ++i) {
          Buffered file{std::make_unique_for_overwrite<char[]>(size),
                        Stream(std::fopen(pathOf(i).c_str(), "wbe"))};
          if (!file.stream ||
              std::setvbuf(file.stream.get(), file.buffer.get(), _IOFBF, size) != 0) {
            std::exit(1);
          }
          files.push_back(std::move(file));
        }
        return files;
      },
      [](Buffered& file, const FrameHeader& header) {
        benchmark::DoNotOptimize(std::fwrite(&header, 16, 1, file.stream.get()));
        benchmark::DoNotOptimize(
            std::fwrite(data().data(), header.capturedLength, 1, file.stream.get()));
      });
}

BENCHMARK(writer)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(libpcap)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(streamBuffer)
    ->ArgsProduct({{1000, 10000}, {4096, 8192, 16384, 32768, 65536}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tarnik
