// A process may die after any machine instruction of the driver without leaving it torn.
#include <sys/ptrace.h>

#include <chrono>
#include <cmath>

#include "platform/zorvik/groups.h"
#include "platform/zorvik/zorvik_testing.h"

namespace tarnik::zorvik {
namespace {

// What a process dies in the middle of.
struct Fatal {
  const char* name;
  void (*change)();
};

void dieHoldingTheLock() {
  Child child([] {
    const Fd ifg = node("brund/ctl");
    (void)createQ(ifg, "torn", 8);
    const Lock lock(Driver::get()->state());
    findQueue(*findGroup(Driver::get()->state(), "brund"), "torn")->life = Life::kPending;
    Driver::get()->state().groups[0].freeHead = 5;
    ::_exit(0);
    return 0;
  });
  EXPECT_EQ(child.join(), 0);
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
       (void)ifgRequest(ZORVIK_IFG_REMOVE, "g");
     }},
    {"recovery", [] { const Lock lock(Driver::get()->state()); }},
};

// Runs the change in a child, one machine instruction after the other, and kills it after `steps`,
// or when the change is done; the steps made.
long dieAfter(const Fatal& fatal, long steps) {
  if (fatal.change == kFatal[3].change) {
    dieHoldingTheLock();
  }
  Child child([&] {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)::raise(SIGSTOP);
    fatal.change();
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

class DeathTest : public DriverTest, public ::testing::WithParamInterface<Fatal> {};

TEST_P(DeathTest, AfterAnyInstructionIsPutRight) {
  Child probe([] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1; });
  if (probe.join() != 0) {
    GTEST_SKIP() << "this machine allows no ptrace";
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  const long all = dieAfter(GetParam(), 10000000);
  std::uint32_t deaths = 0;
  // Points spread evenly however early the time is up; a slow build gets a death in the lock too.
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
    zorvik_frm_desc_size size{};  // brings back the frames of the dead
    EXPECT_EQ(call(node("brund/frm_desc"), ZORVIK_FRM_DESC_SIZE, &size), 0);
    ASSERT_EQ(findGroup(Driver::get()->state(), "brund")->freeCount, 12u);
  }
  RecordProperty("steps", static_cast<int>(all));
  RecordProperty("deaths", static_cast<int>(deaths));
  EXPECT_GT(Driver::get()->state().deaths, 0u);
}

INSTANTIATE_TEST_SUITE_P(Processes, DeathTest, ::testing::ValuesIn(kFatal),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace tarnik::zorvik
