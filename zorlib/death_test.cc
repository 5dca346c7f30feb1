// A process that dies while it moves frames must not stop the others.
#include <csignal>
#include <deque>
#include <random>
#include <string>

#include "zorlib/ring.h"
#include "zorlib/testing/seed.h"
#include "zorlib/testing/traffic.h"

namespace tarnik::test {
namespace {

using namespace std::chrono_literals;

// Four producers and four consumers. One of the eight is killed.
class DeathTest : public ProcessTest {
 protected:
  static constexpr std::uint64_t kEach = kMany / 4;

  void start() {
    // One slot per frame, so that no counter advances around the ring: see the limit in ring.h.
    constexpr std::uint32_t kSlots = 1 << 20;
    static_assert(4 * kEach + 1000 < kSlots);
    makeQueue(kSlots);
    shared_->stop = false;
    shared_->ready = 0;
    shared_->read = 0;
    shared_->invalid = 0;
    std::memset(static_cast<void*>(shared_->seen), 0, 4 * kEach);
    processes_.clear();
    for (std::uint64_t i = 0; i < 4; ++i) {
      processes_.emplace_back([&] { return consume(Order::kAny); });
      processes_.emplace_back([&, i] { return produce(i * kEach, kEach); });
    }
    waitUntilReady(8);
    EXPECT_TRUE(readMoreThan(0));
  }

  // Waits until more than `frames` frames have been read.
  bool readMoreThan(std::uint64_t frames, std::chrono::milliseconds time = 10s) const {
    return eventually([&] { return shared_->read > frames; }, time);
  }

  // A producer that dies after it has claimed a slot: all readers wait at this slot.
  static void dieInASlot() {
    Process process([]() -> int {
      zorlib_q* const q = openQueue(openGroup(), ZORLIB_WRITE);
      zorvik_qmem& memory = q->memory();
      while (!ring::advance(memory.enqueue, ring::counter(memory.enqueue), q->mask)) {
      }
      return ::raise(SIGKILL);
    });
    EXPECT_EQ(process.wait(), killedBy(SIGKILL));
  }

  // Shuts both sides down, which ends all but the dead process.
  void endAll(std::size_t victim) {
    shared_->stop = true;
    shutDown(ZORLIB_READ);
    shutDown(ZORLIB_WRITE);
    for (std::size_t i = 0; i < processes_.size(); ++i) {
      const Ending ending = processes_[i].wait();
      const bool isProducer = i % 2 == 1;
      EXPECT_TRUE(i == victim || ending == kSucceeded ||
                  (isProducer && ending == exited(kWriteFailed)))
          << "process " << i << ": " << ending;
    }
    zorlib_ifg* const ifg = openGroup();
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg, "TarnikQ"), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }

  std::deque<Process> processes_;
};

TEST_F(DeathTest, TheOthersAlwaysEndAndReadNoFrameTwice) {
  constexpr int kRounds = 30;
  std::mt19937 random(chosenSeed());
  const auto pause = [&] { ::usleep(static_cast<useconds_t>(random() % 30'000)); };
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    start();
    pause();
    const std::size_t victim = random() % processes_.size();
    processes_[victim].signal(SIGKILL);
    pause();
    if (round % 3 == 2) {
      dieInASlot();
    }
    endAll(victim);
    EXPECT_EQ(faults(4 * kEach).doubled, 0u);
  }
}

}  // namespace
}  // namespace tarnik::test
