// Measures a frame from the queue to its return to the driver, with the daemon's capture thread.
// For comparison, a plain libpcap loop writes the same frames to one pcap_dump file per flow: once
// it reads them from a capture file, and once from memory. Also measures a frame when the streams
// of the captures have half of their buffer.
//
// Needs the driver with the group "brund" (platform/zorvik/on-the-driver).
#include <dlfcn.h>
#include <fcntl.h>
#include <orlo_sdk.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/owned.h"
#include "bench/support.h"
#include "capture/capture_manager.h"
#include "capture/capture_thread.h"
#include "capture/meta_cache.h"
#include "frameq/tarnik_if.h"
#include "zorlib/zorlib.h"

namespace {

std::size_t largestBuffer = SIZE_MAX;  // of a stream; changed while no capture thread runs

}  // namespace

// Replaces the C library's function: the captures' streams set their buffers with it.
extern "C" int setvbuf(std::FILE* stream, char* buffer, int mode, std::size_t size) noexcept {
  using Setvbuf = int (*)(std::FILE*, char*, int, std::size_t);
  static const auto real = reinterpret_cast<Setvbuf>(::dlsym(RTLD_NEXT, "setvbuf"));
  return real(stream, buffer, mode, std::min(size, largestBuffer));
}

namespace tarnik::bench {
namespace {

constexpr std::size_t kFlows = 1000;
// So many that the frames left in the buffers at the end do not matter.
constexpr std::size_t kFrames = 396000;
constexpr char kDumpDir[] = "/tmp/dumps/";
constexpr char kSource[] = "/tmp/frames.pcap";

// In nanoseconds. The first frames of all flows open the files; the others follow.
struct Cost {
  double opening = 0;
  double frames = 0;
  [[nodiscard]] double perFrame() const { return frames / (kFrames - kFlows); }
  [[nodiscard]] double perFrameWithOpening() const { return (opening + frames) / kFrames; }
};

// ---- The pipeline

// The frames come in bursts. A burst is queued almost at once, so that the thread does not wait
// while it is measured.
class Pipeline {
 public:
  Pipeline() {
    setUpManager();
    for (std::uint64_t flow = 1; flow <= kFlows; ++flow) {
      TarnikMetaCache::instance().add(flow, flow, kUnshelledIssue);
    }
    if (TarnikIfQInit(kQueueSize) != 0 || zorlib_ifg_open("brund", &group_) != 0) {
      giveUp("queue");
    }
  }

  Cost run(const Traffic& traffic) {
    zorlib_q* queue = nullptr;
    if (zorlib_q_app_open(group_, "TarnikQ", ZORLIB_WRITE, &queue) != 0) {
      giveUp("queue");
    }
    thread_.start(kTimeoutMs);
    Cost cost;
    auto next = traffic.frames().begin();
    cost.opening = consume(queue, {next, next + kFlows});
    for (next += kFlows; next != traffic.frames().end();) {
      const auto end = next + std::min<std::ptrdiff_t>(kBurst, traffic.frames().end() - next);
      cost.frames += consume(queue, {next, end});
      next = end;
    }
    thread_.stop();
    thread_.join();
    zorlib_q_close(queue);
    emptyCaptureDirectory();
    return cost;
  }

 private:
  static constexpr std::size_t kQueueSize = 5000;  // the daemon's default
  static constexpr std::ptrdiff_t kBurst = 4950;
  static constexpr std::uint64_t kTimeoutMs = 60000;
  using Frames = std::span<const Frame>;

  // The thread's processor time for the frames, up to its next wait.
  double consume(zorlib_q* queue, Frames frames) {
    std::vector<zorvik_frm_desc*> ready;
    ready.reserve(frames.size());
    for (const Frame& frame : frames) {
      ready.push_back(copyOf(frame));
    }
    const double start = processTime() - threadTime();
    for (zorvik_frm_desc* const frame : ready) {
      if (zorlib_q_write(queue, frame) != 0) {
        giveUp("queue full");
      }
    }
    consumed_ += frames.size();
    awaitConsumed();
    return processTime() - threadTime() - start;
  }

  zorvik_frm_desc* copyOf(const Frame& frame) {
    zorvik_frm_desc* copy = nullptr;
    if (zorlib_batch_alloc(group_, frame.header.capturedLength, &copy, 1) != 1) {
      giveUp("no frame");
    }
    std::memcpy(zorlib_ifg_frm_data(group_, copy), frame.data, frame.header.capturedLength);
    writeFrameHeader(*copy, frame.header);
    copy->tag = frame.flow;
    return copy;
  }

  // Waits for the statistics, then gives the last frame time to finish.
  void awaitConsumed() {
    std::array<std::uint64_t, 6> counters{};
    while (counters[3] != consumed_) {
      ::usleep(500);
      if (!statistics_) {
        statistics_.reset(::open(ORLO_STATS_DIR "/tarnik", O_RDONLY | O_CLOEXEC));
      }
      if (statistics_ && ::pread(statistics_.get(), counters.data(), sizeof counters,
                                 sizeof(OrloStatsHeader)) != sizeof counters) {
        giveUp("statistics");
      }
      if (counters[4] + counters[5] != 0) {
        giveUp("a frame was refused");
      }
    }
    ::usleep(500);
  }

  zorlib_ifg* group_ = nullptr;
  CaptureThread thread_;
  std::uint64_t consumed_ = 0;
  OwnedFd statistics_;
};

// ---- libpcap

struct PcapCloser {
  void operator()(pcap_t* pcap) const noexcept { ::pcap_close(pcap); }
  void operator()(pcap_dumper_t* dumper) const noexcept { ::pcap_dump_close(dumper); }
};
using Pcap = std::unique_ptr<pcap_t, PcapCloser>;
using Dumper = std::unique_ptr<pcap_dumper_t, PcapCloser>;

// One file per flow.
class Dumpers {
 public:
  ~Dumpers() {
    dumpers_.clear();
    emptyDirectory(kDumpDir);
  }

  void dump(std::uint64_t flow, const pcap_pkthdr& header, const std::uint8_t* data) {
    Dumper& dumper = dumpers_[flow];
    if (!dumper) {
      dumper.reset(::pcap_dump_open(format_.get(), (kDumpDir + std::to_string(flow)).c_str()));
      if (!dumper) {
        giveUp(::pcap_geterr(format_.get()));
      }
    }
    ::pcap_dump(reinterpret_cast<u_char*>(dumper.get()), &header, data);
  }

 private:
  Pcap format_{::pcap_open_dead(DLT_EN10MB, 1500)};
  std::unordered_map<std::uint64_t, Dumper> dumpers_;
};

pcap_pkthdr headerOf(const Frame& frame) {
  pcap_pkthdr header{};
  header.ts.tv_sec = frame.header.seconds;
  header.ts.tv_usec = frame.header.microseconds;
  header.caplen = frame.header.capturedLength;
  header.len = frame.header.wireLength;
  return header;
}

void writeSource(const Traffic& traffic) {
  const Pcap format(::pcap_open_dead(DLT_EN10MB, 1500));
  const Dumper dumper(::pcap_dump_open(format.get(), kSource));
  if (!dumper) {
    giveUp(kSource);
  }
  for (const Frame& frame : traffic.frames()) {
    const pcap_pkthdr header = headerOf(frame);
    ::pcap_dump(reinterpret_cast<u_char*>(dumper.get()), &header, frame.data);
  }
}

// Calls `next(count)` for the first frames, then for the others.
template <class Next>
Cost timed(Next next) {
  Cost cost;
  const double start = threadTime();
  next(kFlows);
  const double middle = threadTime();
  next(kFrames - kFlows);
  cost.opening = middle - start;
  cost.frames = threadTime() - middle;
  return cost;
}

Cost libpcapFromFile() {
  Dumpers dumpers;
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  const Pcap source(::pcap_open_offline(kSource, error.data()));
  if (!source) {
    giveUp(error.data());
  }
  const auto each = [](u_char* user, const pcap_pkthdr* header, const u_char* data) {
    std::uint64_t flow = 0;
    std::memcpy(&flow, data, sizeof flow);
    reinterpret_cast<Dumpers*>(user)->dump(flow, *header, data);
  };
  return timed([&](std::size_t count) {
    if (::pcap_loop(source.get(), static_cast<int>(count), each,
                    reinterpret_cast<u_char*>(&dumpers)) != 0) {
      giveUp(::pcap_geterr(source.get()));
    }
  });
}

Cost libpcapFromMemory(const Traffic& traffic) {
  Dumpers dumpers;
  auto frame = traffic.frames().begin();
  return timed([&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, ++frame) {
      dumpers.dump(frame->flow, headerOf(*frame), frame->data);
    }
  });
}

// ---- Both

const Traffic& traffic() {
  static const Traffic all(kFlows, kFrames);
  return all;
}

// Shared by all benchmarks, because the statistics are those of the process.
Pipeline& pipeline() {
  static Pipeline one;
  return one;
}

void pipelineAndLibpcap(benchmark::State& state) {
  static const bool warm = [] {  // the first run also allocates memory
    emptyDirectory(kDumpDir);
    writeSource(traffic());
    pipeline().run(traffic());
    libpcapFromFile();
    libpcapFromMemory(traffic());
    return true;
  }();
  benchmark::DoNotOptimize(warm);
  for (auto _ : state) {
    const Cost ours = pipeline().run(traffic());
    const Cost file = libpcapFromFile();
    const Cost memory = libpcapFromMemory(traffic());
    state.counters["ns_pipeline"] = ours.perFrame();
    state.counters["ns_pipeline_with_opening"] = ours.perFrameWithOpening();
    state.counters["ns_libpcap"] = file.perFrame();
    state.counters["ns_libpcap_with_opening"] = file.perFrameWithOpening();
    state.counters["ns_libpcap_memory"] = memory.perFrame();
    state.SetIterationTime((ours.frames + ours.opening) * 1e-9);
  }
}

void halfTheBuffer(benchmark::State& state) {
  constexpr std::size_t kHalf = 32768;
  for (auto _ : state) {
    const Cost whole = pipeline().run(traffic());
    largestBuffer = kHalf;
    const Cost half = pipeline().run(traffic());
    largestBuffer = SIZE_MAX;
    state.counters["ns_whole"] = whole.perFrame();
    state.counters["ns_half"] = half.perFrame();
    state.SetIterationTime((half.frames + half.opening) * 1e-9);
  }
}

BENCHMARK(pipelineAndLibpcap)->Apply(inRounds);
BENCHMARK(halfTheBuffer)->Apply(inRounds);

}  // namespace
}  // namespace tarnik::bench
