// Several processes on one driver: who keeps what open, and death at any point.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "platform/zorvik/groups.h"
#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ProcessesTest = DriverTest;
using ::testing::SizeIs;

// A pipe on which a child says that it has come to a point.
class Signal {
 public:
  Signal() { EXPECT_EQ(::pipe(ends_), 0); }
  ~Signal() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void send() const { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }
  void await() const {
    char byte = 0;
    EXPECT_EQ(::read(ends_[0], &byte, 1), 1);
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST_F(ProcessesTest, QueueStaysWhileAProcessHasItOpen) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  const Signal open;
  Child holder([&] {
    const OpenQueue queue("brund/q");
    open.send();
    ::pause();
    return 0;
  });
  open.await();
  EXPECT_EQ(removeQ(ifg, id), -EBUSY);
  holder.kill();
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, QueueStaysWhileItIsMappedOnly) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  OpenQueue queue("brund/q");
  queue.fd = Fd();
  EXPECT_EQ(removeQ(ifg, id), -EBUSY);
  queue.memory.reset();
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, OpenQueueSurvivesOneOfTwoUsers) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  auto one = std::make_unique<OpenQueue>("brund/q");
  auto two = std::make_unique<OpenQueue>("brund/q");
  one.reset();
  EXPECT_EQ(removeQ(ifg, id), -EBUSY);
  two.reset();
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, GroupStaysWhileAnyOfItsNodesIsInUse) {
  ASSERT_EQ(createIfg("other", 4), 0);
  ASSERT_GT(createQ(node("other/ctl"), "q", 8), 0);
  {
    const Fd ifg = node("other/ctl");
    zorvik_ifg_query query{};
    EXPECT_EQ(call(ifg, ZORVIK_IFG_QUERY, &query), 0);
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), -EBUSY);
  }
  {
    const Fd desc = node("other/frm_desc");
    EXPECT_THAT(alloc(desc, 1, 1), SizeIs(1));
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), -EBUSY);
    EXPECT_EQ(unload(), -EBUSY);
  }
  ASSERT_EQ(createIfg("brund", 12), 0) << "unload took the idle group";
  {
    const OpenQueue queue("other/q");
    EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), -EBUSY);
  }
  EXPECT_EQ(ifgRequest(ZORVIK_IFG_REMOVE, "other"), 0);
}

TEST_F(ProcessesTest, KilledSleeperLeavesNothingBehind) {
  const Fd ifg = node("brund/ctl");
  const int id = createQ(ifg, "q", 8);
  const Signal ready;
  Child sleeper([&] {
    const OpenQueue queue("brund/q");
    ready.send();
    return queue.waitToRead(0);
  });
  ready.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  sleeper.kill();
  {
    const OpenQueue queue("brund/q");
    EXPECT_EQ(queue.waitToRead(5), 0);
  }
  EXPECT_EQ(removeQ(ifg, id), 0);
}

TEST_F(ProcessesTest, SleeperIsWokenFromAnotherProcess) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  const Signal ready;
  Child sleeper([&] {
    const OpenQueue queue("brund/q");
    ready.send();
    return queue.waitToRead(60000) > 0 ? 7 : 8;
  });
  ready.await();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const OpenQueue queue("brund/q");
  std::atomic_ref(queue.qmem().cresq.flags).fetch_or(ZORVIK_RESQ_SHUTDOWN);
  EXPECT_EQ(queue.wake(queue.qmem().cresq.kresq_handle), 0);
  EXPECT_EQ(sleeper.join(), 7);
}

// One of everything that changes the driver's state.
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
  (void)ifgRequest(ZORVIK_IFG_REMOVE, group);
}

TEST_F(ProcessesTest, RandomKillsWedgeNothing) {
  std::minstd_rand random(1);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  int kills = 0;
  while (kills < 300 && std::chrono::steady_clock::now() < end) {
    const auto churn = [] {
      while (true) {
        everyChange();
      }
      return 0;
    };
    Child one(churn);
    Child two(churn);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    one.kill();
    ++kills;
    if (kills % 10 == 0) {
      two.kill();
      ASSERT_EQ(inconsistencies(), "") << "after " << kills << " kills";
      removeAllBut("brund");
    }
  }
  removeAllBut("brund");
  EXPECT_GT(kills, 20);
  const Fd desc = node("brund/frm_desc");
  zorvik_frm_desc_size size{};
  EXPECT_EQ(call(desc, ZORVIK_FRM_DESC_SIZE, &size), 0);
  EXPECT_THAT(alloc(desc, 1, 62), SizeIs(12)) << "frames were lost";
}

// ---- A ring between processes, as the frame library drives it

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

// Without a wake-up that reaches the sleeper at once, each item would take the 100 ms after which
// a sleeper looks for itself.
TEST_F(ProcessesTest, NoWakeUpIsLost) {
  constexpr std::uint32_t kItems = 20000;
  const Fd ifg = node("brund/ctl");
  for (const std::uint32_t slots : {2u, 4u}) {
    const int id = createQ(ifg, "q", slots);
    const auto start = std::chrono::steady_clock::now();
    Child producer([] {
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
    EXPECT_EQ(producer.join(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_EQ(removeQ(ifg, id), 0);
  }
}

}  // namespace
}  // namespace tarnik::zorvik
