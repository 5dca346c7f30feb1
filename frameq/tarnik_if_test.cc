#include "frameq/tarnik_if.h"

#include <filesystem>
#include <functional>
#include <optional>

#include "base/testing/process.h"
#include "frameq/testing/tarnik_q.h"

namespace tarnik::test {
namespace {

constexpr char kControlNode[] = "/dev/zorvik/brund/ctl";

TEST(QResult, HasTheDocumentedValues) {
  EXPECT_EQ(kQOk, 0);
  EXPECT_EQ(kQFailed, -1);
  EXPECT_EQ(kQNotOpen, -2);
  EXPECT_EQ(kQNoGroup, -3);
  EXPECT_EQ(kQWrongMode, -4);
  EXPECT_EQ(kQTimeout, -5);
}

TEST_F(TarnikIfTest, OpensTheGroupOnce) {
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  zorlib_ifg* const first = capture_if::ifg;
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->name.data(), "brund");
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  EXPECT_EQ(capture_if::ifg, first);
  EXPECT_EQ(first->refs, 1u);
  expectLog({});
  TarnikIfgClose();
  EXPECT_EQ(capture_if::ifg, nullptr);
  TarnikIfgClose();
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
}

TEST_F(TarnikIfTest, LogsEachCallAtDebugLevelOne) {
  setDebugLevel(1);
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  expectLog({"Debug: TarnikIfgOpen: entry", "Debug: TarnikIfgOpen: brund",
             "Debug: TarnikIfgOpen: exit (0)"});
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  expectLog({"Debug: TarnikIfgOpen: entry", "Debug: TarnikIfgOpen: brund",
             "Debug: TarnikIfgOpen: exit (0)"});
  TarnikQ* const q = TarnikIfCreate();
  const std::string address = text("(%p)", static_cast<void*>(q));
  expectLog({"Debug: TarnikIfCreate: entry", "Debug: TarnikIfCreate: exit " + address});
  TarnikIfDestroy(q);
  expectLog({"Debug: TarnikIfDestroy: entry " + address});
  TarnikIfDestroy(nullptr);
  expectLog({"Debug: TarnikIfDestroy: entry ((nil))"});
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 51), kQOk);
  expectLog({"Debug: TarnikIfQInit2: entry (51", "Debug: TarnikIfQInit2: exit (0)"});
  EXPECT_EQ(TarnikIfQFini2(), kQOk);
  expectLog({"Debug: TarnikIfQFini2: entry", "Debug: TarnikIfQFini2: exit (0)"});
  TarnikIfgClose();
  expectLog({"Debug: TarnikIfgClose: entry", "Debug: TarnikIfgClose: brund"});
  EXPECT_EQ(TarnikIfQInit(99999), kQOk);
  expectLog({"Debug: TarnikIfQInit: entry (99999", "Debug: TarnikIfQInit: exit (0)"});
  EXPECT_EQ(TarnikIfQFini(), kQOk);
  expectLog({"Debug: TarnikIfQFini: entry", "Debug: TarnikIfQFini: exit (0)"});
}

TEST_F(TarnikIfTest, LogsTheResultOfAFailedCall) {
  setDebugLevel(1);
  const auto last = [] { return logLines().back().text; };
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  EXPECT_EQ(last(), "Debug: TarnikIfCreate: exit ((nil))");
  clearLog();
  refuse(ZORVIK_Q_CREATE, EIO);
  EXPECT_EQ(TarnikIfQInit(50), kQFailed);
  EXPECT_EQ(logLines().front(), debug("Debug: TarnikIfQInit: entry (50")) << "the caller's size";
  EXPECT_EQ(last(), "Debug: TarnikIfQInit: exit (-1)");
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 51), kQFailed);
  EXPECT_EQ(last(), "Debug: TarnikIfQInit2: exit (-1)");
  TarnikIfgClose();
  const HiddenFile hidden(kControlNode);
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(last(), "Debug: TarnikIfgOpen: exit (-3)");
  EXPECT_EQ(TarnikIfQInit(51), kQNoGroup);
  EXPECT_EQ(last(), "Debug: TarnikIfQInit: exit (-3)");
}

TEST_F(TarnikIfTest, AFailedOpenLeavesNoGroupAndNoLock) {
  const HiddenFile hidden(kControlNode);
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(capture_if::ifg, nullptr);
  ASSERT_EQ(logLines().size(), 2u) << "the library's and";
  EXPECT_EQ(logLines()[1], error("Error: TarnikIfgOpen: Cannot open IFG brund"));
  clearLog();
  EXPECT_EQ(TarnikIfQInit(100), kQNoGroup);
  EXPECT_EQ(logLines()[1], error("Error: TarnikIfQInit: Cannot open IFG brund"));
  EXPECT_TRUE(capture_if::mutex.try_lock());
  capture_if::mutex.unlock();
}

TEST_F(TarnikIfTest, CreatesAnObjectOnlyWithAGroupAndMemory) {
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  expectLog({"Error: TarnikIfCreate: TarnikIf ifg handle not initialized"});
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  if (!kReplacesNew) {
    GTEST_SKIP() << "operator new cannot be made to fail";
  }
  systemCalls.allocationsLeft = 0;
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  expectLog({"Error: TarnikIfCreate: Failed to allocate tarnikIf memory"});
}

TEST_F(TarnikIfTest, ReplacesASizeOutOfBounds) {
  struct Case {
    std::size_t given;
    std::uint32_t used;
  };
  std::optional<zorvik_q_create> request;
  answer(ZORVIK_Q_CREATE, [&](int, void* argument) -> std::optional<int> {
    request = *static_cast<zorvik_q_create*>(argument);
    return std::nullopt;
  });
  const auto expectRequest = [&](const char* name, const Case& each) {
    ASSERT_TRUE(request);
    EXPECT_EQ(request->size, each.used);
    EXPECT_EQ(request->type, 5u);
    EXPECT_STREQ(request->name, "TarnikQ");
    request.reset();
    if (each.given == each.used) {
      expectLog({});
    } else {
      expectLog({std::string("Error: ") + name + ": Invalid queue size (" +
                 std::to_string(each.given) + "), defaulting to 5000"});
    }
  };
  for (const Case& each : {Case{0, 5000}, Case{50, 5000}, Case{51, 51}, Case{99999, 99999},
                           Case{100000, 5000}, Case{std::size_t{1} << 40, 5000}}) {
    EXPECT_EQ(TarnikIfQInit(each.given), kQOk);
    expectRequest("TarnikIfQInit", each);
    EXPECT_EQ(TarnikIfQFini(), kQOk);
    EXPECT_EQ(capture_if::ifg, nullptr) << "closed with the queue";

    zorlib_ifg* const mine = openGroup();
    EXPECT_EQ(TarnikIfQInit2(mine, each.given), kQOk);
    EXPECT_EQ(capture_if::ifg, mine);
    expectRequest("TarnikIfQInit2", each);
    EXPECT_EQ(TarnikIfQFini2(), kQOk);
    EXPECT_EQ(capture_if::ifg, mine) << "never closed";
    EXPECT_EQ(mine->refs, 1u);
    TarnikIfgClose();
  }
}

TEST_F(TarnikIfTest, AQueueThatExistsIsNoFailure) {
  zorlib_ifg* const mine = openGroup();
  EXPECT_EQ(TarnikIfQInit2(mine, 100), kQOk);
  EXPECT_EQ(TarnikIfQInit2(mine, 100), kQOk);
  // In a child process, because QInit overwrites the handle without closing it.
  Process child([mine] {
    EXPECT_EQ(TarnikIfQInit(100), kQOk);
    EXPECT_NE(capture_if::ifg, mine) << "it opens the group again";
    EXPECT_EQ(mine->refs, 1u);
    expectLog({});
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
  expectLog({});
}

TEST_F(TarnikIfTest, LogsAQueueThatCannotBeCreated) {
  refuse(ZORVIK_Q_CREATE, ENOSPC);
  EXPECT_EQ(TarnikIfQInit(100), kQFailed);
  ASSERT_EQ(logLines().size(), 2u) << "the library's and";
  EXPECT_EQ(logLines()[1], error("Error: TarnikIfQInit: zorlib_ifg_create_q_app failed: errno=28"));
  clearLog();
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 100), kQFailed);
  EXPECT_EQ(logLines()[1],
            error("Error: TarnikIfQInit2: zorlib_ifg_create_q_app failed: errno=28"));
}

// The two removals, which differ in the name that they log.
struct Removal {
  std::string name;
  int (*remove)();
};
const Removal kRemovals[] = {{"TarnikIfQFini", TarnikIfQFini}, {"TarnikIfQFini2", TarnikIfQFini2}};

TEST_F(TarnikIfTest, RemovalWithoutAGroupIsLoggedAtDebugLevelOne) {
  for (const auto& [name, remove] : kRemovals) {
    EXPECT_EQ(remove(), kQNoGroup);
    expectLog({});
    setDebugLevel(1);
    EXPECT_EQ(remove(), kQNoGroup);
    setDebugLevel(0);
    expectLog({"Debug: " + name + ": entry",
               "Debug: " + name + ": TarnikIf ifg handle not initialized",
               "Debug: " + name + ": exit (-3)"});
  }
}

TEST_F(TarnikIfTest, AQueueInUseStaysWithoutAnError) {
  EXPECT_EQ(TarnikIfQInit(100), kQOk);
  zorlib_ifg* const group = capture_if::ifg;
  TarnikQ* const q = TarnikIfCreate();
  EXPECT_EQ(q->Open(TarnikQ::kIngress), kQOk);
  for (const auto& [name, remove] : kRemovals) {
    EXPECT_EQ(remove(), kQFailed);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(capture_if::ifg, group);
    ASSERT_EQ(logLines().size(), 1u) << "the library's only";
    const std::string line = logLines()[0].text;
    EXPECT_TRUE(line.starts_with("Error: zorlib_ifg_q_remove: "));
    clearLog();
    setDebugLevel(1);
    EXPECT_EQ(remove(), kQFailed);
    setDebugLevel(0);
    expectLog({"Debug: " + name + ": entry", line, "Debug: " + name + ": exit (-1)"});
  }
  EXPECT_EQ(q->Close(), kQOk);
  TarnikIfDestroy(q);
  EXPECT_EQ(TarnikIfQFini(), kQOk);
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/brund/TarnikQ"));
}

TEST_F(TarnikIfTest, LogsAnyOtherFailedRemoval) {
  EXPECT_EQ(TarnikIfgOpen(), kQOk);
  for (const auto& [name, remove] : kRemovals) {
    EXPECT_EQ(remove(), kQFailed);
    expectLog({"Error: " + name + ": zorlib_ifg_remove_q_app failed, errno=2"});
  }
  EXPECT_NE(capture_if::ifg, nullptr);
}

}  // namespace
}  // namespace tarnik::test
