// Several processes and threads on one queue, over the driver stand-in: every frame arrives once,
// whoever dies, and a shutdown or a wake-up reaches who sleeps.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "frameq/ring.h"
#include "frameq/testing/driver.h"
#include "frameq/testing/processes.h"
#include "frameq/zorlib_internal.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/repair.h"

namespace tarnik::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What the processes tell each other.
struct Shared {
  std::atomic<std::uint64_t> written;
  std::atomic<std::uint64_t> read;
  std::atomic<std::uint64_t> invalid;
  std::atomic<int> ready;
  std::atomic<bool> stop;  // frames that a dead process held are lost: do not wait for them
  std::atomic<std::uint8_t> seen[4'000'000];
};

class ProcessTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    shared_ = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared_, MAP_FAILED);
  }
  void TearDown() override {
    ::munmap(shared_, sizeof(Shared));
    DriverTest::TearDown();
  }

  void makeQueue(std::uint32_t size) {
    zorlib_ifg* const ifg = openGroup();
    createQueue(ifg, ZORVIK_Q_APP, size);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }

  // Writes frames that carry the numbers from `first` on.
  int produce(std::uint64_t first, std::uint64_t count) const {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, ZORLIB_WRITE);
    ++shared_->ready;
    for (std::uint64_t i = first; i < first + count; ++i) {
      zorvik_frm_desc* frame = nullptr;
      while (zorlib_batch_alloc(ifg, 64, &frame, 1) != 1) {
        if (errno != ENOBUFS) {
          return 2;
        }
        if (shared_->stop) {
          return 3;
        }
        ::usleep(100);  // until a consumer has freed one
      }
      std::uint8_t* const data = zorlib_ifg_frm_data(ifg, frame);
      std::memcpy(data, &i, sizeof i);
      frame->frame_size = sizeof i;
      frame->tag = i;
      if (zorlib_q_write(q, frame) != 0) {
        return 3;
      }
    }
    return zorlib_q_close(q) == 0 && zorlib_ifg_close(ifg) == 0 ? 0 : 4;
  }

  // Reads and checks frames until `read` says that all are there, or the side is shut down.
  int consume(bool inOrder) const {
    zorlib_ifg* const ifg = openGroup();
    zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
    ++shared_->ready;
    std::uint64_t expected = 0;
    for (;;) {
      zorvik_frm_desc* frame = nullptr;
      if (zorlib_q_read(q, &frame) != 0) {
        if (errno == ENXIO) {
          ++shared_->invalid;
          continue;
        }
        if (errno != ESHUTDOWN) {
          return 2;
        }
        return zorlib_q_close(q) == 0 && zorlib_ifg_close(ifg) == 0 ? 0 : 4;
      }
      const std::uint64_t tag = frame->tag;
      std::uint64_t content = 0;
      const std::uint8_t* const data = zorlib_q_frm_data(q, frame);
      std::memcpy(&content, data, sizeof content);
      if (content != tag || (inOrder && tag != expected++)) {
        return 3;
      }
      ++shared_->seen[tag];
      if (zorlib_frm_free(ifg, frame) != 0) {
        return 5;
      }
      ++shared_->read;
    }
  }

  // Until so many processes have opened the queue. Opening ends a shutdown, so one must not come
  // before.
  void waitUntilReady(int processes) {
    while (shared_->ready < processes) {
      ::usleep(1000);
    }
  }

  // Ends the consumers once `count` frames have been read.
  void shutDownAfter(std::uint64_t count) {
    const auto limit = Clock::now() + std::chrono::seconds(90);
    while (shared_->read + shared_->invalid < count && Clock::now() < limit) {
      ::usleep(1000);
    }
    EXPECT_EQ(shared_->read + shared_->invalid, count);
    shutDownReaders();
  }
  static void shutDownReaders() {
    zorlib_ifg* const ifg = openGroup();
    // Opening the side ends its shutdown, shutting this handle down raises it for all.
    zorlib_q* const q = openQueue(ifg, ZORLIB_READ);
    EXPECT_EQ(zorlib_q_shutdown(q), 0);
    EXPECT_EQ(zorlib_q_close(q), 0);
    EXPECT_EQ(zorlib_ifg_close(ifg), 0);
  }
  void expectAllSeenOnce(std::uint64_t count) {
    std::uint64_t lost = 0;
    std::uint64_t doubled = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
      lost += shared_->seen[i] == 0 ? 1 : 0;
      doubled += shared_->seen[i] > 1 ? 1 : 0;
    }
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(doubled, 0u);
  }

  Shared* shared_ = nullptr;
};

// Sanitizers come with clang, which tells of them in this way.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define TARNIK_SLOW_PROGRAM 1
#endif
#endif
#ifdef TARNIK_SLOW_PROGRAM
constexpr std::uint64_t kMany = 100'000;
#else
constexpr std::uint64_t kMany = 1'000'000;
#endif

TEST_F(ProcessTest, TwoProcessesMoveEveryFrameInOrder) {
  makeQueue(64);
  const pid_t consumer = process([&] { return consume(true); });
  const pid_t producer = process([&] { return produce(0, kMany); });
  EXPECT_EQ(statusOf(producer), 0);
  shutDownAfter(kMany);
  EXPECT_EQ(statusOf(consumer), 0);
  expectAllSeenOnce(kMany);
}

TEST_F(ProcessTest, ManyProducersAndConsumersMoveEveryFrameOnce) {
  // Larger than what is moved between two turns of a process: see the limits of the ring.
  makeQueue(1 << 20);
  constexpr std::uint64_t kEach = kMany / 10;
  std::vector<pid_t> consumers;
  std::vector<pid_t> producers;
  for (int i = 0; i < 4; ++i) {
    consumers.push_back(process([&] { return consume(false); }));
  }
  for (std::uint64_t i = 0; i < 4; ++i) {
    producers.push_back(process([&, i] { return produce(i * kEach, kEach); }));
  }
  waitUntilReady(8);
  for (const pid_t pid : producers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  shutDownAfter(4 * kEach);
  for (const pid_t pid : consumers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  expectAllSeenOnce(4 * kEach);
}

TEST_F(ProcessTest, AShutdownWakesEverySleepingReaderAtOnce) {
  makeQueue(16);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(process([&] { return consume(false); }));
  }
  waitUntilReady(3);
  ::usleep(50'000);  // they sleep by now
  const auto start = Clock::now();
  shutDownReaders();
  for (const pid_t pid : readers) {
    EXPECT_EQ(statusOf(pid), 0);
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

// Four producers and four consumers, of which one is killed.
class DeathTest : public ProcessTest {
 protected:
  static constexpr std::uint64_t kEach = kMany / 4;

  void start() {
    // A slot for each frame of a round, so that no counter goes round: the ring's one fault, which
    // could double a frame, wants a counter that comes back to its old value.
    static_assert(4 * 1'000'000 / 4 < (1 << 20));
    makeQueue(1 << 20);
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

  // As zorvikctl does it for a queue that is in use: the slots put right.
  static int repair() {
    zorvik::Driver& driver = *zorvik::Driver::get();
    const zorvik::Lock lock(driver.state());
    zorvik::Group& group = *zorvik::findGroup(driver.state(), "brund");
    return zorvik::unstickQueue(driver, group, *zorvik::findQueue(group, "TarnikQ"));
  }

  // Everybody stands still, is helped, and goes on.
  void tearAndRepair() {
    tear();
    std::uint64_t read = 0;
    do {
      read = shared_->read;
    } while (moves(read, 100ms));
    // The one that was killed may have left a slot of its own.
    int repaired = 0;
    for (int i = 0; i < 10 && !moves(read, 100ms); ++i) {
      repaired += repair();
    }
    EXPECT_GE(repaired, 1);
    EXPECT_TRUE(moves(read + 1000)) << "it goes on";
    EXPECT_GE(shared_->invalid, 1u) << "the slot that names no frame";
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
    if (round % 6 == 2) {
      tear();
    } else if (round % 6 == 5) {
      tearAndRepair();
    }
    endAll(victim);
    expectNothingDoubled();
  }
}

}  // namespace
}  // namespace tarnik::test
