// A process can die after any machine instruction inside the driver; the next one repairs what it
// left.
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cmath>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

// A change during which a process dies.
struct Fatal {
  const char* name;
  void (*change)();
};

void dieHoldingTheLock() {
  Process child([] {
    const Fd ifg = node("brund/ctl");
    (void)createQ(ifg, "torn", 8);
    const Lock lock(Driver::get()->state());
    findQueue(*findGroup(Driver::get()->state(), "brund"), "torn")->life = Life::kPending;
    Driver::get()->state().groups[0].freeHead = 5;
    ::_exit(0);
    return 0;
  });
  EXPECT_EQ(child.wait(), test::kSucceeded);
}

constexpr Fatal kFatal[] = {
    {"frames",
     [] {
       const Fd desc = node("brund/frm_desc");
       for (const std::uint32_t id : alloc(desc, 1, 3)) {
         (void)freeId(desc, id);
       }
     }},
    {"queue",
     [] {
       const Fd ifg = node("brund/ctl");
       (void)removeQ(ifg, createQ(ifg, "q", 8));
     }},
    {"group",
     [] {
       (void)createIfg("g", 5);
       (void)removeIfg("g");
     }},
    {"recovery", [] { const Lock lock(Driver::get()->state()); }},
};

// Calls `before` and `change` in a child, runs `change` by single machine instructions and kills
// the child after `steps` of them or when `change` returns. Returns the number of steps made.
template <typename Before, typename Change>
long dieAfter(long steps, Before before, Change change) {
  Process child([&] {
    [[maybe_unused]] const auto held = before();
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)::raise(SIGSTOP);
    change();
    (void)::raise(SIGSTOP);
    return 0;
  });
  int status = 0;
  EXPECT_EQ(::waitpid(child.pid(), &status, 0), child.pid());
  long made = 0;
  do {
    ::ptrace(PTRACE_SINGLESTEP, child.pid(), nullptr, nullptr);
    EXPECT_EQ(::waitpid(child.pid(), &status, 0), child.pid());
    ++made;
  } while (made < steps && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP);
  return made;
}

long dieAfter(const Fatal& fatal, long steps) {
  if (std::string_view(fatal.name) == "recovery") {
    dieHoldingTheLock();
  }
  return dieAfter(
      steps, [] { return 0; }, fatal.change);
}

bool canTrace() {
  Process probe([] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1; });
  return probe.wait() == test::kSucceeded;
}

class DeathTest : public DriverTest, public ::testing::WithParamInterface<Fatal> {};

TEST_P(DeathTest, AfterAnyInstructionIsRepaired) {
  if (!canTrace()) {
    GTEST_SKIP() << "this machine allows no ptrace";
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  const long all = dieAfter(GetParam(), 10000000);
  std::uint32_t deaths = 0;
  // The points are spread evenly however early the time is up. A slow build goes on until a process
  // has died with the lock.
  const auto goOn = [&] {
    const auto now = std::chrono::steady_clock::now();
    return now < end ||
           (Driver::get()->state().deaths == 0 && now < end + std::chrono::seconds(40));
  };
  while (deaths < 200 && goOn()) {
    const double golden = 0.6180339887 * ++deaths;
    const long steps =
        1 + static_cast<long>((golden - std::floor(golden)) * static_cast<double>(all));
    (void)dieAfter(GetParam(), steps);
    ASSERT_EQ(inconsistencies(), "") << "death after " << steps << " of " << all << " steps";
    removeAllBut("brund");
    (void)node("brund/frm_desc");  // frees the frames of the dead process
    ASSERT_EQ(findGroup(Driver::get()->state(), "brund")->freeCount, 12u);
  }
  RecordProperty("steps", static_cast<int>(all));
  RecordProperty("deaths", static_cast<int>(deaths));
  EXPECT_GT(Driver::get()->state().deaths, 0u);
}

// Configures "brund" with `count` interfaces and a queue pair for the last of them.
Settings configure(std::uint32_t count) {
  const Fd ifg = node("brund/ctl");
  zorvik_ifg_config wanted = description(count);
  zorvik_qpair_cfg pair{
      .index = 31, .size = count, .if_mask = 1ull << (count - 1), .cpu_mask = count};
  EXPECT_EQ(call(ifg, ZORVIK_IFG_CONFIGURE, &wanted), 0);
  EXPECT_EQ(call(ifg, ZORVIK_QPAIR_SET, &pair), 0);
  return findGroup(Driver::get()->state(), "brund")->settings();
}

bool same(const Settings& one, const Settings& two) {
  return std::memcmp(&one, &two, sizeof(Settings)) == 0;
}

using SettingsDeathTest = DriverTest;

// Settings have many words and a change takes few instructions, so deaths are tried close to each
// other, in a process that has the lock. With three settings in turn, those in the spare copy are
// neither the old nor the new ones.
TEST_F(SettingsDeathTest, LeavesTheOldSettingsOrTheNewOnes) {
  if (!canTrace()) {
    GTEST_SKIP() << "this machine allows no ptrace";
  }
  const Settings settings[] = {configure(32), configure(2), configure(16)};
  State& state = Driver::get()->state();
  Group& group = *findGroup(state, "brund");
  std::size_t now = 2;
  const auto die = [&](long steps) {
    return dieAfter(
        steps, [&] { return std::make_unique<Lock>(state); },
        [&] { group.setSettings(settings[(now + 1) % 3]); });
  };
  const long all = die(10000000);
  now = 0;
  ASSERT_TRUE(same(group.settings(), settings[now]));
  for (long steps = 1; steps < all; steps += 1 + all / 400) {
    (void)die(steps);
    ASSERT_EQ(inconsistencies(), "") << "death after " << steps << " of " << all << " steps";
    const std::size_t next = (now + 1) % 3;
    if (same(group.settings(), settings[next])) {
      now = next;
    }
    ASSERT_TRUE(same(group.settings(), settings[now])) << steps << " of " << all << " steps";
  }
}

INSTANTIATE_TEST_SUITE_P(Processes, DeathTest, ::testing::ValuesIn(kFatal),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace tarnik::zorvik
