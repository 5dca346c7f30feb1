// Sleeping on a queue, what ends a sleep, and the faults.
#include <pthread.h>
#include <sys/syscall.h>

#include "base/testing/files.h"
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

class WaitsTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    ASSERT_GT(createQ(node("brund/ctl"), "q", 4), 0);
    queue_ = std::make_unique<OpenQueue>("brund/q");
  }
  void TearDown() override {
    queue_.reset();
    DriverTest::TearDown();
  }
  [[nodiscard]] std::uint32_t reader() const { return queue_->qmem().cresq.kresq_handle; }
  [[nodiscard]] std::uint32_t writer() const { return queue_->qmem().presq.kresq_handle; }
  Faults& faults() { return Driver::get()->state().faults; }

  std::unique_ptr<OpenQueue> queue_;
};

// A thread that waits on a queue. The constructor returns when it sleeps.
class Sleeper {
 public:
  Sleeper(const OpenQueue& queue, std::uint32_t handle, std::uint32_t ms)
      : thread_([=, this, &queue] {
          tid_ = static_cast<pid_t>(::syscall(SYS_gettid));
          result_ = queue.wait(handle, ms);
          ended_ = true;
        }) {
    const std::string futex = std::to_string(SYS_futex) + " ";
    EXPECT_TRUE(test::eventually([&] {
      const std::string path = "/proc/self/task/" + std::to_string(tid_) + "/syscall";
      const auto call = test::readFile(path);
      return ended_ || (call && call->starts_with(futex));
    }));
  }
  ~Sleeper() { thread_.join(); }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  [[nodiscard]] bool ended() const { return ended_; }
  [[nodiscard]] bool endsWithin(milliseconds time) const {
    return test::eventually([&] { return ended(); }, time);
  }
  [[nodiscard]] int result() const { return result_; }
  void signal() { ::pthread_kill(thread_.native_handle(), SIGUSR1); }

 private:
  std::atomic<pid_t> tid_{0};
  std::atomic<int> result_{-1};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

TEST_F(WaitsTest, TimesOut) {
  const auto start = Clock::now();
  EXPECT_EQ(queue_->wait(reader(), 250), 0);
  EXPECT_GE(msSince(start), 250);
  EXPECT_EQ(queue_->wait(reader(), 1), 0);
}

TEST_F(WaitsTest, HandlesOfNoSideAreRefused) {
  ASSERT_GT(createQ(node("brund/ctl"), "other", 4), 0);
  const OpenQueue other("brund/other");
  for (const std::uint32_t handle : {0u, 0xffffffffu, other.qmem().cresq.kresq_handle}) {
    EXPECT_EQ(queue_->wait(handle, 10), -EINVAL);
    EXPECT_EQ(queue_->wake(handle), -EINVAL);
  }
  const std::uint32_t handle = reader();
  queue_->qmem().cresq.kresq_handle = 77;  // the driver knows its numbers itself
  EXPECT_EQ(queue_->wait(77, 10), -EINVAL);
  EXPECT_EQ(queue_->wait(handle, 10), 0);
}

TEST_F(WaitsTest, DoesNotSleepWhenThereIsSomethingToDo) {
  for (const std::uint32_t bit : {ZORVIK_RESQ_WOKEN + 0u, ZORVIK_RESQ_SHUTDOWN + 0u}) {
    queue_->qmem().cresq.flags = bit;
    EXPECT_GE(queue_->wait(reader(), 5000), 4000);
    EXPECT_EQ(queue_->wait(reader(), 0), 1);
    queue_->qmem().cresq.flags = 0;
    queue_->qmem().presq.flags = bit;
    EXPECT_EQ(queue_->wait(reader(), 10), 0) << "the other side's flags do not matter";
    queue_->qmem().presq.flags = 0;
  }
  queue_->qmem().enqueue = 1;  // a peer that died before it set the bit
  EXPECT_GE(queue_->wait(reader(), 5000), 4000);
  EXPECT_GE(queue_->wait(reader(), 0xffffffff), 2147483647);
}

TEST_F(WaitsTest, ProducerSleepsWhileTheRingIsFull) {
  EXPECT_GE(queue_->wait(writer(), 5000), 4000);
  for (const auto& [enqueue, dequeue] : {std::pair{3u, 0u}, {0u, 1u}, {1u, 2u}, {2u, 3u}}) {
    queue_->qmem().enqueue = enqueue;
    queue_->qmem().dequeue = dequeue;
    EXPECT_EQ(queue_->wait(writer(), 10), 0) << enqueue << " " << dequeue;
  }
  queue_->qmem().dequeue = 0;
  EXPECT_GE(queue_->wait(writer(), 5000), 4000);
}

TEST_F(WaitsTest, AWakeRequestEndsEverySleepOfItsSideOnly) {
  word(queue_->qmem().enqueue) = 3;  // full
  for (const bool strict : {false, true}) {
    faults().strictWaits = strict ? 1 : 0;
    Sleeper one(*queue_, writer(), 60000);
    Sleeper two(*queue_, writer(), 0);
    EXPECT_EQ(queue_->wakeReader(), 0);
    EXPECT_FALSE(one.endsWithin(milliseconds(130)) || two.ended());
    // With kChecksRing a sleeper may be checking the ring at this moment.
    EXPECT_TRUE(test::eventually([&] {
      EXPECT_EQ(queue_->wake(writer()), 0);
      return one.endsWithin(milliseconds(30)) && two.ended();
    }));
    EXPECT_GE(one.result(), 1);
    EXPECT_EQ(two.result(), 1);
  }
}

// What else ends a sleep: nothing in strict mode, and otherwise the next check of the ring.
TEST_F(WaitsTest, OnlyAWakeRequestEndsAStrictSleep) {
  const std::function<void()> changes[] = {
      [this] { word(queue_->qmem().enqueue) = 1; },
      [this] { word(queue_->qmem().cresq.flags) = ZORVIK_RESQ_WOKEN; },
      [this] { word(queue_->qmem().cresq.flags) = ZORVIK_RESQ_SHUTDOWN; }};
  for (const auto& change : changes) {
    for (const std::uint32_t ms : {0u, 60000u}) {
      for (const bool strict : {false, true}) {
        word(queue_->qmem().enqueue) = 0;
        word(queue_->qmem().cresq.flags) = 0;
        faults().strictWaits = strict ? 1 : 0;
        Sleeper sleeper(*queue_, reader(), ms);
        change();
        EXPECT_EQ(sleeper.endsWithin(milliseconds(strict ? 250 : 30000)), !strict);
        EXPECT_EQ(queue_->wakeReader(), 0);
        EXPECT_TRUE(sleeper.endsWithin(milliseconds(30000)));
        EXPECT_GE(sleeper.result(), 1);
      }
    }
  }
}

TEST_F(WaitsTest, AStrictSleepDoesNotBeginAfterAWakeUpWasPosted) {
  faults().strictWaits = 1;
  word(queue_->qmem().enqueue) = 1;
  EXPECT_EQ(queue_->wait(reader(), 20), 0) << "it does not look at the ring";
  word(queue_->qmem().cresq.flags) = ZORVIK_RESQ_WOKEN;
  EXPECT_GE(queue_->wait(reader(), 5000), 4000);
  EXPECT_EQ(queue_->wait(reader(), 0), 1);
}

TEST_F(WaitsTest, ASignalEndsTheSleep) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;  // also with a handler that restarts calls
  struct sigaction before {};
  ::sigaction(SIGUSR1, &action, &before);
  for (const std::uint32_t limit : {0u, 60000u}) {
    faults().strictWaits = 1;
    Sleeper sleeper(*queue_, reader(), limit);
    sleeper.signal();
    EXPECT_TRUE(sleeper.endsWithin(milliseconds(30000)));
    EXPECT_EQ(sleeper.result(), -EINTR);
    EXPECT_EQ(queue_->wakeReader(), 0);
  }
  ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(WaitsTest, HostileQueueMemoryNeitherTrapsNorHoldsTheDriver) {
  for (const std::uint32_t value : {0u, 1u, 3u, 4u, 0x7fffffffu, 0xfffffffcu, 0xffffffffu}) {
    std::memset(&queue_->qmem(), 0, sizeof(zorvik_qmem));
    queue_->qmem().enqueue = value;
    queue_->qmem().dequeue = ~value;
    queue_->qmem().mask = 0xffffffff;
    queue_->qmem().max_elements = 0;
    const std::uint32_t handle = queue_->stat.id * 2;  // an application that guesses
    EXPECT_GE(queue_->wait(handle, 5), -EINVAL);
    EXPECT_GE(queue_->wait(handle + 1, 5), -EINVAL);
    EXPECT_GE(queue_->wake(handle), -EINVAL);
  }
}

TEST_F(WaitsTest, FaultEintrHitsTheNthWait) {
  faults().eintrIn = 2;
  EXPECT_EQ(queue_->wait(reader(), 1), 0);
  EXPECT_EQ(queue_->wait(reader(), 1), -EINTR);
  EXPECT_EQ(queue_->wait(reader(), 1), 0);
}

TEST_F(WaitsTest, FaultSlowWake) {
  faults().slowWakeMs = 120;
  const auto start = Clock::now();
  EXPECT_EQ(queue_->wake(reader()), 0);
  EXPECT_GE(msSince(start), 120);
}

TEST_F(WaitsTest, FaultDropWakes) {
  faults().strictWaits = 1;
  faults().dropWakes = 1;
  Sleeper sleeper(*queue_, reader(), 0);
  EXPECT_EQ(queue_->wakeReader(), 0);
  EXPECT_FALSE(sleeper.endsWithin(milliseconds(50)));
  EXPECT_EQ(faults().dropWakes, 0u);
  EXPECT_EQ(queue_->wakeReader(), 0);
}

class RingFaultsTest : public WaitsTest {
 protected:
  int inject(QueueFault fault, std::uint64_t entry = 0) {
    Driver& driver = *Driver::get();
    const Lock lock(driver.state());
    Group& group = *findGroup(driver.state(), "brund");
    return injectFault(driver, group, *findQueue(group, "q"), fault, entry);
  }
};

TEST_F(RingFaultsTest, AnEntryIsPutOnTheRingAndWakesTheReader) {
  EXPECT_EQ(inject(QueueFault::kEntry, 0x123456789), 0);
  EXPECT_EQ(queue_->entries()[0], 0x123456789u);
  EXPECT_EQ(queue_->qmem().enqueue, 1u);
  EXPECT_EQ(queue_->qmem().cresq.flags, ZORVIK_RESQ_WOKEN + 0u);
  EXPECT_EQ(inject(QueueFault::kEntry, 2), 0);
  EXPECT_EQ(inject(QueueFault::kDeadWriter, 3), 0);
  EXPECT_EQ(queue_->entries()[2], 0u);
  EXPECT_EQ(queue_->qmem().enqueue, 3u);
  EXPECT_EQ(inject(QueueFault::kEntry, 4), -ENOSPC);
}

TEST_F(RingFaultsTest, TornSlotsAreRepairedWhenTheQueueIsOpenedByItsOnlyUser) {
  const Fd desc = node("brund/frm_desc");
  const std::uint32_t id = alloc(desc, 1, 1).at(0);
  EXPECT_EQ(inject(QueueFault::kDeadReader), -ENODATA);
  EXPECT_EQ(inject(QueueFault::kEntry, id), 0);
  EXPECT_EQ(inject(QueueFault::kDeadReader), 0);
  EXPECT_EQ(queue_->qmem().dequeue, 1u);
  EXPECT_EQ(inject(QueueFault::kDeadWriter), 0);
  EXPECT_EQ(inject(QueueFault::kEntry, 5), 0);
  queue_->qmem().mask = 99;
  {
    const OpenQueue second("brund/q");
    EXPECT_EQ(queue_->entries()[0], id) << "not while another process has the queue open";
  }
  queue_.reset();
  queue_ = std::make_unique<OpenQueue>("brund/q");
  EXPECT_THAT(std::vector(queue_->entries(), queue_->entries() + 4),
              ::testing::ElementsAre(0u, 5u, 0u, 0u));
  EXPECT_EQ(queue_->qmem().dequeue, 1u);
  EXPECT_EQ(queue_->qmem().enqueue, 2u);
  EXPECT_EQ(queue_->qmem().mask, 3u);
  EXPECT_EQ(freeId(desc, id), -ENOENT) << "the dead reader's frame was freed";
}

}  // namespace
}  // namespace tarnik::zorvik
