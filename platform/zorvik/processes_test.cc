// Several processes that use one driver: what keeps nodes in use, waking, and death at any point.
#include <random>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ProcessesTest = DriverTest;
using ::testing::SizeIs;

TEST_F(ProcessesTest, AQueueIsInUseUntilItsLastUserIsGone) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  const Signal open;
  Process holder([&] {
    const OpenQueue queue("brund/q");
    open.send();
    return ::pause();
  });
  open.await();
  {
    const OpenQueue second("brund/q");
    EXPECT_EQ(removeQ(ifg, id), -EBUSY);
  }
  EXPECT_EQ(removeQ(ifg, id), -EBUSY) << "one of two users is gone";
  OpenQueue mapped("brund/q");
  mapped.fd = Fd();
  holder.signal(SIGKILL);
  (void)holder.wait();
  EXPECT_EQ(removeQ(ifg, id), -EBUSY) << "the queue is still mapped";
  mapped.memory.reset();
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, AGroupIsInUseWhileAnyOfItsNodesIsOpen) {
  ASSERT_EQ(createIfg("other", 4), 0);
  ASSERT_GT(createQ(node("other/ctl"), "q", 8), 0);
  for (const char* path : {"other/ctl", "other/frm_desc", "other/q"}) {
    const Fd open = node(path);  // and no request
    EXPECT_EQ(removeIfg("other"), -EBUSY) << path;
    EXPECT_EQ(unload(), -EBUSY) << path;
    ASSERT_EQ(createIfg("brund", 12), 0) << "unload removed the idle group";
  }
  EXPECT_EQ(removeIfg("other"), 0);
}

TEST_F(ProcessesTest, AKilledSleeperLeavesNothing) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  const Signal ready;
  Process sleeper([&] {
    const OpenQueue queue("brund/q");
    ready.send();
    return queue.waitToRead(0);
  });
  ready.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  sleeper.signal(SIGKILL);
  (void)sleeper.wait();
  {
    const OpenQueue queue("brund/q");
    EXPECT_EQ(queue.waitToRead(5), 0);
  }
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, ASleeperIsWokenByAnotherProcess) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  const Signal ready;
  Process sleeper([&] {
    const OpenQueue queue("brund/q");
    ready.send();
    return queue.waitToRead(60000) > 0 ? 7 : 8;
  });
  ready.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const OpenQueue queue("brund/q");
  std::atomic_ref(queue.qmem().cresq.flags).fetch_or(ZORVIK_RESQ_SHUTDOWN);
  EXPECT_EQ(queue.wakeReader(), 0);
  EXPECT_EQ(sleeper.wait(), test::exited(7));
}

// Each kind of change of the driver's state.
void everyChange() {
  const Fd ifg = node("brund/ctl");
  const Fd desc = node("brund/frm_desc");
  const auto ids = alloc(desc, 1, 3);
  const int id = createQ(ifg, "own" + std::to_string(::getpid()), 8);
  for (const std::uint32_t frame : ids) {
    (void)freeId(desc, frame);
  }
  const std::string group = "g" + std::to_string(::getpid());
  (void)createIfg(group, 5);
  (void)removeQ(ifg, id);
  (void)removeIfg(group);
}

TEST_F(ProcessesTest, RandomKillsLeaveTheDriverUsable) {
  std::minstd_rand random(1);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  int kills = 0;
  while (kills < 150 && std::chrono::steady_clock::now() < end) {
    const auto churn = [] {
      while (true) {
        everyChange();
      }
      return 0;
    };
    Process one(churn);
    Process two(churn);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    one.signal(SIGKILL);
    ++kills;
    if (kills % 10 == 0) {
      two.signal(SIGKILL);
      (void)one.wait();
      (void)two.wait();
      ASSERT_EQ(inconsistencies(), "") << "after " << kills << " kills";
      removeAllBut("brund");
    }
  }
  removeAllBut("brund");
  EXPECT_GT(kills, 20);
  EXPECT_THAT(alloc(node("brund/frm_desc"), 1, 62), SizeIs(12)) << "frames were lost";
}

// ---- A ring between processes, used as the frame library uses it

struct Side {
  const OpenQueue& queue;

  bool push(std::uint32_t value) const {
    zorvik_qmem& qmem = queue.qmem();
    const std::atomic_ref enqueue(qmem.enqueue);
    std::uint32_t at = enqueue.load();
    const std::uint32_t dequeue = std::atomic_ref(qmem.dequeue).load();
    const std::atomic_ref entry(queue.entries()[at]);
    if (((dequeue - at) & qmem.mask) == 1 || entry.load() != 0 ||
        !enqueue.compare_exchange_strong(at, (at + 1) & qmem.mask)) {
      return false;
    }
    entry.store(value);
    post(qmem.cresq);
    return true;
  }
  std::uint32_t pop() const {
    zorvik_qmem& qmem = queue.qmem();
    const std::atomic_ref dequeue(qmem.dequeue);
    std::uint32_t at = dequeue.load();
    if (at == std::atomic_ref(qmem.enqueue).load()) {
      return 0;
    }
    const std::atomic_ref entry(queue.entries()[at]);
    const auto value = static_cast<std::uint32_t>(entry.load());
    if (value == 0 || !dequeue.compare_exchange_strong(at, (at + 1) & qmem.mask)) {
      return 0;
    }
    entry.store(0);
    post(qmem.presq);
    return value;
  }
  void post(zorvik_resq& side) const {
    if ((std::atomic_ref(side.flags).fetch_or(ZORVIK_RESQ_WOKEN) & ZORVIK_RESQ_WOKEN) == 0) {
      EXPECT_EQ(queue.wake(side.kresq_handle), 0);
    }
  }
  void sleep(zorvik_resq& side) const {
    if ((std::atomic_ref(side.flags).fetch_and(~std::uint32_t{ZORVIK_RESQ_WOKEN}) &
         ZORVIK_RESQ_WOKEN) == 0) {
      EXPECT_EQ(queue.wait(side.kresq_handle, 0), 1);
    }
  }
};

TEST_F(ProcessesTest, NoWakeUpIsLost) {
  constexpr std::uint32_t kItems = 5000;
  Driver::get()->state().faults.strictWaits = 1;
  const Fd ifg = node("brund/ctl");
  for (const std::uint32_t slots : {2u, 4u}) {
    const int id = createQ(ifg, "q", slots);
    Process producer([] {
      const OpenQueue queue("brund/q");
      const Side side{queue};
      for (std::uint32_t i = 1; i <= kItems; ++i) {
        while (!side.push(i)) {
          side.sleep(queue.qmem().presq);
        }
      }
      return 0;
    });
    {
      const OpenQueue queue("brund/q");
      const Side side{queue};
      for (std::uint32_t i = 1; i <= kItems; ++i) {
        std::uint32_t value = 0;
        while ((value = side.pop()) == 0) {
          side.sleep(queue.qmem().cresq);
        }
        ASSERT_EQ(value, i);
      }
    }
    EXPECT_EQ(producer.wait(), test::kSucceeded);
    EXPECT_EQ(removeQ(ifg, id), 0);
  }
}

}  // namespace
}  // namespace tarnik::zorvik
