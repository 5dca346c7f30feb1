// Sleeping on a queue, what ends a sleep, and the faults.
#include <pthread.h>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
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
  // Calls `change` in a thread after 150 ms, while the caller sleeps.
  template <typename Change>
  static std::thread soon(Change change) {
    return std::thread([=] {
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
      change();
    });
  }
  Faults& faults() { return Driver::get()->state().faults; }

  std::unique_ptr<OpenQueue> queue_;
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

TEST_F(WaitsTest, WakeEndsTheSleepOfThatSideOnly) {
  word(queue_->qmem().enqueue) = 3;  // the ring is full
  std::atomic<bool> woken{false};
  std::thread sleeper([&] {
    EXPECT_GE(queue_->wait(writer(), 60000), 1);
    woken = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(queue_->wake(reader()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(woken);
  // Again, in case the sleeper was just looking for itself.
  const auto start = Clock::now();
  while (!woken && msSince(start) < 20000) {
    EXPECT_EQ(queue_->wake(writer()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  EXPECT_TRUE(woken);
  sleeper.join();
}

TEST_F(WaitsTest, WakeReachesEverySleeper) {
  std::atomic<int> left{0};
  std::vector<std::thread> sleepers;
  for (int i = 0; i < 4; ++i) {
    sleepers.emplace_back([&] { left += queue_->wait(reader(), 60000) > 0 ? 1 : 0; });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(330));
  // Fewer than there are sleepers; more than one in case one was just looking for itself.
  for (int i = 0; i < 3 && left < 4; ++i) {
    EXPECT_EQ(queue_->wake(reader()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(530));
  }
  EXPECT_EQ(left, 4);
  word(queue_->qmem().cresq.flags) = ZORVIK_RESQ_WOKEN;  // ends every other sleep
  for (auto& sleeper : sleepers) {
    sleeper.join();
  }
}

TEST_F(WaitsTest, LooksForItselfWhenAPeerDiedBeforeItsWakeRequest) {
  const auto start = Clock::now();
  std::thread peer = soon([this] { word(queue_->qmem().enqueue) = 1; });
  EXPECT_GE(queue_->wait(reader(), 60000), 1);
  peer.join();
  word(queue_->qmem().enqueue) = 0;
  peer = soon([this] { word(queue_->qmem().cresq.flags) = ZORVIK_RESQ_WOKEN; });
  EXPECT_EQ(queue_->wait(reader(), 0), 1);
  peer.join();
  EXPECT_LT(msSince(start), 30000);
}

TEST_F(WaitsTest, ShutdownBitAndWake) {
  std::thread peer = soon([this] {
    word(queue_->qmem().cresq.flags) |= ZORVIK_RESQ_SHUTDOWN;
    EXPECT_EQ(queue_->wake(reader()), 0);
  });
  EXPECT_EQ(queue_->wait(reader(), 0), 1);
  peer.join();
}

TEST_F(WaitsTest, SignalEndsTheSleep) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;  // also with a handler that restarts calls
  struct sigaction before {};
  ::sigaction(SIGUSR1, &action, &before);
  for (const std::uint32_t limit : {0u, 60000u}) {
    const pthread_t self = ::pthread_self();
    std::atomic<bool> ended{false};
    std::thread peer = soon([self, &ended] {
      while (!ended) {  // again, in case the sleeper was just looking for itself
        ::pthread_kill(self, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
      }
    });
    EXPECT_EQ(queue_->wait(reader(), limit), -EINTR);
    ended = true;
    peer.join();
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

TEST_F(WaitsTest, FaultDroppedWakesAreMadeUpFor) {
  faults().dropWakes = 1;
  std::thread peer = soon([this] {
    word(queue_->qmem().cresq.flags) |= ZORVIK_RESQ_WOKEN;
    EXPECT_EQ(queue_->wake(reader()), 0);
  });
  EXPECT_EQ(queue_->wait(reader(), 0), 1);
  peer.join();
  EXPECT_EQ(faults().dropWakes, 0u);
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
