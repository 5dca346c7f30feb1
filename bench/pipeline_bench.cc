// What a frame costs from the queue to its return to the driver, beside a bare libpcap loop that
// writes the same frames into a pcap_dump file for each flow: once reading them from a capture
// file, and once from memory, which saves it the reading.
//
// Needs the driver with the group "brund" (bench/on-the-driver). The queue is filled in advance.
#include <pcap/pcap.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>

#include "bench/support.h"
#include "capture/capture_manager.h"
#include "capture/meta_cache.h"
#include "frameq/tarnik_if.h"
#include "platform/brund/queue_sender.h"

namespace tarnik::bench {
namespace {

constexpr std::size_t kFlows = 1000;
constexpr std::size_t kFill = 99000;  // the queue holds 99,999
// So many that what still waits in a file's buffer at the end is next to nothing.
constexpr std::size_t kFills = 4;
constexpr std::size_t kFrames = kFill * kFills;
constexpr char kDumpDir[] = "/tmp/dumps/";
constexpr char kSource[] = "/tmp/frames.pcap";

// Nanoseconds: of the first frames of all flows, which open the files, and of all others.
struct Cost {
  double opening = 0;
  double frames = 0;
  [[nodiscard]] double perFrame() const { return frames / (kFrames - kFlows); }
  [[nodiscard]] double perFrameWithOpening() const { return (opening + frames) / kFrames; }
};

// Runs `next(count)` for the first frames and then for all others, after `fill()` where the queue
// is empty.
template <class Fill, class Next>
Cost timed(Fill fill, Next next) {
  Cost cost;
  for (std::size_t i = 0; i < kFills; ++i) {
    fill();
    const double start = threadTime();
    if (i == 0) {
      next(kFlows);
    }
    const double middle = threadTime();
    next(i == 0 ? kFill - kFlows : kFill);
    cost.opening += middle - start;
    cost.frames += threadTime() - middle;
  }
  return cost;
}

// ---- The pipeline

class Pipeline {
 public:
  Pipeline() {
    setUpManager();
    for (std::uint64_t flow = 1; flow <= kFlows; ++flow) {
      TarnikMetaCache::instance().add(flow, flow, kUnshelledIssue);
    }
    std::string reason;
    if (!sender_.open(99999, false, reason)) {
      giveUp(reason.c_str());
    }
    queue_.reset(TarnikIfCreate());
    if (!queue_ || queue_->Open(TarnikQ::kIngress) != 0) {
      giveUp("queue");
    }
    queue_->SetTimeout(1000);
  }

  Cost run(const Traffic& traffic) {
    const Cost cost = timed([&] { fill(traffic); }, [this](std::size_t count) { consume(count); });
    manager_.CloseWriters();
    emptyCaptureDirectory();
    return cost;
  }

 private:
  struct Close {
    void operator()(TarnikQ* queue) const noexcept {
      queue->Close();
      TarnikIfDestroy(queue);
    }
  };

  void fill(const Traffic& traffic) {
    for (const Frame& frame : traffic.frames()) {
      const zorvik_frm_desc& words = frame.descriptor;
      if (sender_.put({{frame.data, words.cap_len}, words.wire_len, words.ts_sec, words.ts_usec},
                      frame.flow, 0, nullptr) != brund::QueueSender::Put::kQueued) {
        giveUp("put");
      }
    }
  }

  // The capture thread's loop.
  void consume(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      zorvik_frm_desc* frame = nullptr;
      std::uint8_t* data = nullptr;
      std::uint64_t captureId = 0;
      std::uint32_t flags = 0;
      if (queue_->ReadPkt(&frame, &data, &captureId, &flags) != 0) {
        giveUp("ReadPkt");
      }
      count_(2, 1);
      const zorvik_frm_desc seen = *frame;
      const bool inside = seen.cap_len <= queue_->room(data);
      if (manager_.ConsumeFrame(captureId, seen, inside ? data : nullptr, flags) != 0) {
        giveUp("ConsumeFrame");
      }
      count_(3, 1);
      queue_->Free(frame);
      manager_.UpdateUsageCounters();
      count_(0, manager_.filesUsed());
      count_(1, manager_.diskUsed());
    }
  }
  void count_(std::size_t counter, std::uint64_t amount) {
    std::atomic_ref(counters_[counter]).fetch_add(amount, std::memory_order_relaxed);
  }

  brund::QueueSender sender_;
  std::unique_ptr<TarnikQ, Close> queue_;
  CaptureManager& manager_ = CaptureManager::instance();
  alignas(64) std::array<std::uint64_t, 6> counters_{};
};

// ---- libpcap

struct PcapCloser {
  void operator()(pcap_t* pcap) const noexcept { ::pcap_close(pcap); }
  void operator()(pcap_dumper_t* dumper) const noexcept { ::pcap_dump_close(dumper); }
};
using Pcap = std::unique_ptr<pcap_t, PcapCloser>;
using Dumper = std::unique_ptr<pcap_dumper_t, PcapCloser>;

// A file for each flow.
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
  header.ts.tv_sec = frame.descriptor.ts_sec;
  header.ts.tv_usec = frame.descriptor.ts_usec;
  header.caplen = frame.descriptor.cap_len;
  header.len = frame.descriptor.wire_len;
  return header;
}

void writeSource(const Traffic& traffic) {
  const Pcap format(::pcap_open_dead(DLT_EN10MB, 1500));
  const Dumper dumper(::pcap_dump_open(format.get(), kSource));
  if (!dumper) {
    giveUp(kSource);
  }
  for (std::size_t i = 0; i < kFills; ++i) {
    for (const Frame& frame : traffic.frames()) {
      const pcap_pkthdr header = headerOf(frame);
      ::pcap_dump(reinterpret_cast<u_char*>(dumper.get()), &header, frame.data);
    }
  }
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
  return timed([] {},
               [&](std::size_t count) {
                 if (::pcap_loop(source.get(), static_cast<int>(count), each,
                                 reinterpret_cast<u_char*>(&dumpers)) != 0) {
                   giveUp(::pcap_geterr(source.get()));
                 }
               });
}

Cost libpcapFromMemory(const Traffic& traffic) {
  Dumpers dumpers;
  auto frame = traffic.frames().begin();
  return timed([&] { frame = traffic.frames().begin(); },
               [&](std::size_t count) {
                 for (std::size_t i = 0; i < count; ++i, ++frame) {
                   dumpers.dump(frame->flow, headerOf(*frame), frame->data);
                 }
               });
}

// ---- Both

void pipelineAndLibpcap(benchmark::State& state) {
  static const Traffic traffic(kFlows, kFill);
  static Pipeline pipeline;
  static const bool warm = [] {  // the machine's memory
    emptyDirectory(kDumpDir);
    writeSource(traffic);
    pipeline.run(traffic);
    libpcapFromFile();
    libpcapFromMemory(traffic);
    return true;
  }();
  benchmark::DoNotOptimize(warm);
  for (auto _ : state) {
    const Cost ours = pipeline.run(traffic);
    const Cost file = libpcapFromFile();
    const Cost memory = libpcapFromMemory(traffic);
    state.counters["ns_pipeline"] = ours.perFrame();
    state.counters["ns_pipeline_with_opening"] = ours.perFrameWithOpening();
    state.counters["ns_libpcap"] = file.perFrame();
    state.counters["ns_libpcap_with_opening"] = file.perFrameWithOpening();
    state.counters["ns_libpcap_memory"] = memory.perFrame();
    state.SetIterationTime((ours.frames + ours.opening) * 1e-9);
  }
}

BENCHMARK(pipelineAndLibpcap)->Apply(inRounds);

}  // namespace
}  // namespace tarnik::bench
