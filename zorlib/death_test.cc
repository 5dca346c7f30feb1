// Processes that move frames, one of which dies: it takes nobody along.
#include <csignal>
#include <random>
#include <string>
#include <vector>

#include "zorlib/ring.h"
#include "zorlib/testing/traffic.h"

namespace tarnik::test {
namespace {

using namespace std::chrono_literals;

// Four producers and four consumers, of which one is killed.
class DeathTest : public ProcessTest {
 protected:
  static constexpr std::uint64_t kEach = kMany / 4;

  void start() {
    // A slot for each frame of a round, so that no counter goes round: the ring's one fault, which
    // could double a frame, wants a counter that comes back to its old value.
    constexpr std::uint32_t kSlots = 1 << 20;
    static_assert(4 * kEach + 1000 < kSlots);
    makeQueue(kSlots);
    shared_->stop = false;
    shared_->ready = 0;
    shared_->read = 0;
    shared_->invalid = 0;
    std::memset(static_cast<void*>(shared_->seen), 0, 4 * kEach);
    pids_.clear();
    for (std::uint64_t i = 0; i < 4; ++i) {
      pids_.push_back(process([&] { return consume(false); }));
      pids_.push_back(process([&, i] { return produce(i * kEach, kEach); }));
    }
    waitUntilReady(8);
    EXPECT_TRUE(moves(0)) << "nothing to disturb";
  }

  // Until more than so many frames have been read; false when they are not in time.
  bool moves(std::uint64_t from, std::chrono::milliseconds time = 10s) const {
    const auto limit = Clock::now() + time;
    while (shared_->read <= from) {
      if (Clock::now() > limit) {
        return false;
      }
      ::usleep(200);
    }
    return true;
  }

  // A producer that dies at the worst moment: it has claimed its slot. No reader gets past it.
  void tear() {
    const pid_t pid = process([]() -> int {
      zorlib_q* const q = openQueue(openGroup(), ZORLIB_WRITE);
      zorvik_qmem& memory = q->memory();
      while (!ring::advance(memory.enqueue, ring::counter(memory.enqueue), q->mask)) {
      }
      return ::raise(SIGKILL);
    });
    EXPECT_EQ(statusOf(pid), 128 + SIGKILL);
  }

  // Shuts both sides down, which ends everybody but the one that is dead already.
  void endAll(std::size_t victim) {
    shared_->stop = true;
    zorlib_ifg* const ifg = openGroup();
    for (const std::uint32_t mode : {ZORLIB_READ, ZORLIB_WRITE}) {
      zorlib_q* const q = openQueue(ifg, mode);
      EXPECT_EQ(zorlib_q_shutdown(q), 0);
      EXPECT_EQ(zorlib_q_close(q), 0);
    }
    for (std::size_t i = 0; i < pids_.size(); ++i) {
      const int status = statusOf(pids_[i]);
      const int expected = i % 2 == 0 ? 0 : 3;  // a producer's write failed, unless it was done
      EXPECT_TRUE(i == victim || status == expected || (i % 2 == 1 && status == 0))
          << "process " << i << ": " << status;
    }
    EXPECT_EQ(zorlib_ifg_remove_q_app(ifg, "TarnikQ"), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }

  void expectNothingDoubled() const {
    std::uint64_t doubled = 0;
    for (std::uint64_t i = 0; i < 4 * kEach; ++i) {
      doubled += shared_->seen[i] > 1 ? 1 : 0;
    }
    EXPECT_EQ(doubled, 0u);
  }

  std::vector<pid_t> pids_;
};

TEST_F(DeathTest, NeverHangsTheOthers) {
  // Whatever slot the dead one leaves torn, a shutdown ends everybody else, and nobody reads a
  // frame twice.
  constexpr int kRounds = 30;
  std::mt19937 random(chosenSeed());
  const auto awhile = [&] { ::usleep(static_cast<useconds_t>(random() % 30'000)); };
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    start();
    awhile();
    const std::size_t victim = random() % pids_.size();
    EXPECT_EQ(::kill(pids_[victim], SIGKILL), 0);
    awhile();
    if (round % 3 == 2) {
      tear();
    }
    endAll(victim);
    expectNothingDoubled();
  }
}

}  // namespace
}  // namespace tarnik::test
