// Measures a frame that is written to a queue and read from it, by one thread and between two
// threads. For comparison, two well-known rings for several producers and consumers carry pointers:
// those of Concurrency Kit and DPDK, where they are installed. Our ring also checks the handle,
// counts the frame's reference, looks for a sleeper to wake and validates the descriptor that it
// reads.
//
// Needs the driver with the group "brund" (platform/zorvik/on-the-driver).
#if TARNIK_BENCH_RTE
#include <rte_ring.h>
#endif
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "bench/ck_ring_calls.h"
#include "bench/support.h"
#include "zorlib/zorlib.h"

namespace tarnik::bench {
namespace {

constexpr unsigned kSlots = 1024;
constexpr unsigned kBurst = 1000;      // fits into every ring
constexpr unsigned kPassed = 1000000;  // frames per turn

// More than fit into the ring, so that no frame is in it twice.
const std::vector<zorvik_frm_desc*>& frames(zorlib_ifg* group = nullptr) {
  static const std::vector<zorvik_frm_desc*> all = [group] {
    std::vector<zorvik_frm_desc*> taken(2 * kSlots);
    for (zorvik_frm_desc*& frame : taken) {
      frame = zorlib_ifg_frm_alloc(group, 64);
      if (frame == nullptr) {
        giveUp("frame");
      }
    }
    return taken;
  }();
  return all;
}

class ZorlibRing {
 public:
  static constexpr char kCounter[] = "ns_zorlib";

  ZorlibRing() {
    constexpr char kName[] = "Bench";
    if (zorlib_ifg_open("brund", &group_) != 0 ||
        zorlib_ifg_create_q_app(group_, kName, ZORVIK_Q_APP, kSlots - 1) != 0 ||
        zorlib_q_app_open(group_, kName, ZORLIB_WRITE, &writer_) != 0 ||
        zorlib_q_app_open(group_, kName, ZORLIB_READ, &reader_) != 0) {
      giveUp("queue");
    }
    zorlib_q_set_timeout(writer_, 0);
    zorlib_q_set_timeout(reader_, 0);
    frames(group_);
  }
  bool put(zorvik_frm_desc* frame) { return zorlib_q_write(writer_, frame) == 0; }
  bool take(zorvik_frm_desc*& frame) { return zorlib_q_read(reader_, &frame) == 0; }

 private:  // held until the process ends
  zorlib_ifg* group_ = nullptr;
  zorlib_q* writer_ = nullptr;
  zorlib_q* reader_ = nullptr;
};

struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

#if TARNIK_BENCH_CK
class CkRing {
 public:
  static constexpr char kCounter[] = "ns_ck";

  CkRing() {
    if (!ring_) {
      giveUp("ck_ring");
    }
  }
  bool put(zorvik_frm_desc* frame) { return bench_ck_ring_put(ring_.get(), frame); }
  bool take(zorvik_frm_desc*& frame) {
    void* taken = nullptr;
    const bool done = bench_ck_ring_take(ring_.get(), &taken);
    frame = static_cast<zorvik_frm_desc*>(taken);
    return done;
  }

 private:
  std::unique_ptr<bench_ck_ring, Free> ring_{bench_ck_ring_new(kSlots)};
};
#endif

#if TARNIK_BENCH_RTE
class RteRing {
 public:
  static constexpr char kCounter[] = "ns_rte";

  RteRing() {
    const auto size = static_cast<std::size_t>(rte_ring_get_memsize(kSlots));
    ring_.reset(static_cast<rte_ring*>(std::aligned_alloc(RTE_CACHE_LINE_SIZE, size)));
    if (!ring_ || rte_ring_init(ring_.get(), "bench", kSlots, 0) != 0) {
      giveUp("rte_ring_init");
    }
  }
  bool put(zorvik_frm_desc* frame) { return rte_ring_mp_enqueue(ring_.get(), frame) == 0; }
  bool take(zorvik_frm_desc*& frame) {
    void* taken = nullptr;
    const bool done = rte_ring_mc_dequeue(ring_.get(), &taken) == 0;
    frame = static_cast<zorvik_frm_desc*>(taken);
    return done;
  }

 private:
  std::unique_ptr<rte_ring, Free> ring_;
};
#endif

// Retries until it succeeds: the other thread may not be running.
template <class Attempt>
void insist(Attempt attempt) {
  for (unsigned turn = 1; !attempt(); ++turn) {
    if (turn % 1000 == 0) {
      ::sched_yield();
    }
  }
}

template <class Ring>
void putAll(Ring& ring, unsigned first, unsigned count) {
  for (unsigned i = first; i < first + count; ++i) {
    insist([&] { return ring.put(frames()[i % frames().size()]); });
  }
}

template <class Ring>
void takeAll(Ring& ring, unsigned first, unsigned count) {
  for (unsigned i = first; i < first + count; ++i) {
    zorvik_frm_desc* frame = nullptr;
    insist([&] { return ring.take(frame); });
    if (frame != frames()[i % frames().size()]) {
      giveUp("another frame came out");
    }
  }
}

// In nanoseconds per frame: processor time of bursts by one thread, elapsed time between two.
template <class Ring>
double byOneThread(Ring& ring) {
  const double start = threadTime();
  for (unsigned i = 0; i < kPassed; i += kBurst) {
    putAll(ring, i, kBurst);
    takeAll(ring, i, kBurst);
  }
  return (threadTime() - start) / kPassed;
}

template <class Ring>
double betweenTwoThreads(Ring& ring) {
  const auto begin = std::chrono::steady_clock::now();
  std::thread producer([&ring] { putAll(ring, 0, kPassed); });
  takeAll(ring, 0, kPassed);
  producer.join();
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - begin;
  return elapsed.count() / kPassed;
}

struct Rings {
  ZorlibRing zorlib;
#if TARNIK_BENCH_CK
  CkRing ck;
#endif
#if TARNIK_BENCH_RTE
  RteRing rte;
#endif
};

Rings& rings() {
  static const auto all = std::make_unique<Rings>();
  return *all;
}

template <class Measure>
void allRings(benchmark::State& state, Measure measure) {
  for (auto _ : state) {
    double sum = 0;
    const auto turn = [&](auto& ring) {
      const double time = measure(ring);
      state.counters[ring.kCounter] = time;
      sum += time;
    };
    turn(rings().zorlib);
#if TARNIK_BENCH_CK
    turn(rings().ck);
#endif
#if TARNIK_BENCH_RTE
    turn(rings().rte);
#endif
    state.SetIterationTime(sum * 1e-9 * kPassed);
  }
}

void ringOneThread(benchmark::State& state) {
  allRings(state, [](auto& ring) { return byOneThread(ring); });
}
void ringTwoThreads(benchmark::State& state) {
  allRings(state, [](auto& ring) { return betweenTwoThreads(ring); });
}

BENCHMARK(ringOneThread)->Apply(inRounds);
BENCHMARK(ringTwoThreads)->Apply(inRounds);

}  // namespace
}  // namespace tarnik::bench
