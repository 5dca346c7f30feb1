// The process's hold on the group, and the queue for its owner.
#include "frameq/tarnik_if.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/log.h"
#include "frameq/tarnik_if_state.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class InterfaceTest : public DriverTest {
 protected:
  void TearDown() override {
    answerNothing();
    setDebugLevel(0);
    TarnikIfgClose();
    DriverTest::TearDown();
  }
  // The number of entries that a creation asks for.
  void keepSize() {
    answer(ZORVIK_Q_CREATE, [this](int, void* argument) -> std::optional<int> {
      const auto& request = *static_cast<zorvik_q_create*>(argument);
      size_ = request.size;
      type_ = request.type;
      EXPECT_STREQ(request.name, "TarnikQ");
      return std::nullopt;
    });
  }
  std::uint32_t size_ = 0;
  std::uint32_t type_ = 0;
};

TEST_F(InterfaceTest, OpensTheGroupOnceAProcess) {
  EXPECT_EQ(TarnikIfgOpen(), 0);
  zorlib_ifg* const first = capture_if::ifg;
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->name.data(), "brund");
  EXPECT_EQ(TarnikIfgOpen(), 0);
  EXPECT_EQ(capture_if::ifg, first);
  EXPECT_EQ(first->refs, 1u);
  EXPECT_THAT(logLines(), IsEmpty());
  TarnikIfgClose();
  EXPECT_EQ(capture_if::ifg, nullptr);
  TarnikIfgClose();
  EXPECT_EQ(TarnikIfgOpen(), 0);
}

TEST_F(InterfaceTest, TellsItsStepsInTheDebugLog) {
  setDebugLevel(1);
  EXPECT_EQ(TarnikIfgOpen(), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfgOpen: entry"),
                                      debug("Debug: TarnikIfgOpen: brund"),
                                      debug("Debug: TarnikIfgOpen: exit (0)")));
  clearLog();
  TarnikQ* const q = TarnikIfCreate();
  EXPECT_THAT(logLines(),
              ElementsAre(debug("Debug: TarnikIfCreate: entry"),
                          debug(text("Debug: TarnikIfCreate: exit (%p)", static_cast<void*>(q)))));
  clearLog();
  TarnikIfDestroy(q);
  EXPECT_THAT(
      logLines(),
      ElementsAre(debug(text("Debug: TarnikIfDestroy: entry (%p)", static_cast<void*>(q)))));
  clearLog();
  TarnikIfDestroy(nullptr);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfDestroy: entry ((nil))")));
  clearLog();
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 51), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfQInit2: entry (51"),
                                      debug("Debug: TarnikIfQInit2: exit (0)")));
  clearLog();
  EXPECT_EQ(TarnikIfQFini2(), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfQFini2: entry"),
                                      debug("Debug: TarnikIfQFini2: exit (0)")));
  clearLog();
  TarnikIfgClose();
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfgClose: entry"),
                                      debug("Debug: TarnikIfgClose: brund")));
  clearLog();
  EXPECT_EQ(TarnikIfQInit(99999), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfQInit: entry (99999"),
                                      debug("Debug: TarnikIfQInit: exit (0)")));
  clearLog();
  EXPECT_EQ(TarnikIfQFini(), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfQFini: entry"),
                                      debug("Debug: TarnikIfQFini: exit (0)")));
}

TEST_F(InterfaceTest, TellsItsFailuresInTheDebugLogToo) {
  setDebugLevel(1);
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  EXPECT_EQ(logLines().back(), debug("Debug: TarnikIfCreate: exit ((nil))"));
  refuse(ZORVIK_Q_CREATE, EEXIST);
  clearLog();
  EXPECT_EQ(TarnikIfQInit(50), 0);
  EXPECT_EQ(logLines().front(), debug("Debug: TarnikIfQInit: entry (50")) << "as it was given";
  EXPECT_EQ(logLines().back(), debug("Debug: TarnikIfQInit: exit (0)"));
  refuse(ZORVIK_Q_CREATE, EIO);
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 51), -1);
  EXPECT_EQ(logLines().back(), debug("Debug: TarnikIfQInit2: exit (-1)"));
  clearLog();
  EXPECT_EQ(TarnikIfgOpen(), 0);
  EXPECT_THAT(logLines(), ElementsAre(debug("Debug: TarnikIfgOpen: entry"),
                                      debug("Debug: TarnikIfgOpen: brund"),
                                      debug("Debug: TarnikIfgOpen: exit (0)")));
  TarnikIfgClose();
  std::filesystem::rename("/dev/zorvik/brund/ctl", "/dev/zorvik/brund/hidden");
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(logLines().back(), debug("Debug: TarnikIfgOpen: exit (-3)"));
  EXPECT_EQ(TarnikIfQInit(51), kQNoGroup);
  EXPECT_EQ(logLines().back(), debug("Debug: TarnikIfQInit: exit (-3)"));
  std::filesystem::rename("/dev/zorvik/brund/hidden", "/dev/zorvik/brund/ctl");
}

TEST_F(InterfaceTest, AGroupThatCannotBeOpenedLeavesNothing) {
  std::filesystem::rename("/dev/zorvik/brund/ctl", "/dev/zorvik/brund/hidden");
  EXPECT_EQ(TarnikIfgOpen(), kQNoGroup);
  EXPECT_EQ(capture_if::ifg, nullptr);
  ASSERT_EQ(logLines().size(), 2u);
  EXPECT_EQ(logLines()[1], error("Error: TarnikIfgOpen: Cannot open IFG brund"));
  clearLog();
  EXPECT_EQ(TarnikIfQInit(100), kQNoGroup);
  EXPECT_EQ(logLines()[1], error("Error: TarnikIfQInit: Cannot open IFG brund"));
  std::filesystem::rename("/dev/zorvik/brund/hidden", "/dev/zorvik/brund/ctl");
  EXPECT_TRUE(capture_if::mutex.try_lock());
  capture_if::mutex.unlock();
}

TEST_F(InterfaceTest, CreatesAQueueObjectOnlyWithAGroup) {
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: TarnikIfCreate: TarnikIf ifg handle not initialized")));
  clearLog();
  if (!kReplacesNew) {
    GTEST_SKIP() << "no allocation can be made to fail";
  }
  EXPECT_EQ(TarnikIfgOpen(), 0);
  systemCalls.allocationsLeft = 0;
  EXPECT_EQ(TarnikIfCreate(), nullptr);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: TarnikIfCreate: Failed to allocate tarnikIf memory")));
}

TEST_F(InterfaceTest, ASizeOutsideItsBoundsIsReplaced) {
  struct Case {
    std::size_t given;
    std::uint32_t used;
  };
  for (const Case& each : {Case{0, 5000}, Case{50, 5000}, Case{51, 51}, Case{99999, 99999},
                           Case{100000, 5000}, Case{std::size_t{1} << 40, 5000}}) {
    keepSize();
    clearLog();
    EXPECT_EQ(TarnikIfQInit(each.given), 0);
    EXPECT_EQ(size_, each.used);
    EXPECT_EQ(type_, 5u);
    const std::string message =
        "Invalid queue size (" + std::to_string(each.given) + "), defaulting to 5000";
    if (each.given == each.used) {
      EXPECT_THAT(logLines(), IsEmpty());
    } else {
      EXPECT_THAT(logLines(), ElementsAre(error("Error: TarnikIfQInit: " + message)));
    }
    EXPECT_EQ(TarnikIfQFini(), 0);
    EXPECT_EQ(capture_if::ifg, nullptr);

    zorlib_ifg* const mine = openGroup();
    clearLog();
    EXPECT_EQ(TarnikIfQInit2(mine, each.given), 0);
    EXPECT_EQ(capture_if::ifg, mine);
    EXPECT_EQ(size_, each.used);
    if (each.given != each.used) {
      EXPECT_THAT(logLines(), ElementsAre(error("Error: TarnikIfQInit2: " + message)));
    }
    EXPECT_EQ(TarnikIfQFini2(), 0);
    EXPECT_EQ(capture_if::ifg, mine) << "never closed";
    EXPECT_EQ(mine->refs, 1u);
    TarnikIfgClose();
  }
}

TEST_F(InterfaceTest, AQueueThatExistsWillDo) {
  zorlib_ifg* const mine = openGroup();
  EXPECT_EQ(TarnikIfQInit2(mine, 100), 0);
  EXPECT_EQ(TarnikIfQInit2(mine, 100), 0);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(InterfaceTest, InitialisingOpensTheGroupAgain) {
  // In a child, because the handle that was there before is given up on purpose.
  const pid_t child = ::fork();
  if (child == 0) {
    bool good = TarnikIfgOpen() == 0;
    zorlib_ifg* const before = capture_if::ifg;
    good = good && TarnikIfQInit(100) == 0 && capture_if::ifg != before && before->refs == 1;
    ::_exit(good ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(InterfaceTest, AQueueThatCannotBeCreatedIsAnError) {
  refuse(ZORVIK_Q_CREATE, ENOSPC);
  const std::string number = std::to_string(ENOSPC);
  EXPECT_EQ(TarnikIfQInit(100), -1);
  ASSERT_EQ(logLines().size(), 2u);
  EXPECT_EQ(logLines()[1],
            error("Error: TarnikIfQInit: zorlib_ifg_create_q_app failed: errno=" + number));
  clearLog();
  EXPECT_EQ(TarnikIfQInit2(capture_if::ifg, 100), -1);
  EXPECT_EQ(logLines()[1],
            error("Error: TarnikIfQInit2: zorlib_ifg_create_q_app failed: errno=" + number));
}

TEST_F(InterfaceTest, RemovalWithoutAGroupSaysSoInTheDebugLog) {
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup);
  EXPECT_EQ(TarnikIfQFini2(), kQNoGroup);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  EXPECT_EQ(TarnikIfQFini(), kQNoGroup);
  EXPECT_EQ(TarnikIfQFini2(), kQNoGroup);
  EXPECT_THAT(
      logLines(),
      ElementsAre(debug("Debug: TarnikIfQFini: entry"),
                  debug("Debug: TarnikIfQFini: TarnikIf ifg handle not initialized"),
                  debug("Debug: TarnikIfQFini: exit (-3)"), debug("Debug: TarnikIfQFini2: entry"),
                  debug("Debug: TarnikIfQFini2: TarnikIf ifg handle not initialized"),
                  debug("Debug: TarnikIfQFini2: exit (-3)")));
}

TEST_F(InterfaceTest, AQueueInUseIsLeftInPlaceInSilence) {
  EXPECT_EQ(TarnikIfQInit(100), 0);
  zorlib_ifg* const group = capture_if::ifg;
  TarnikQ* const q = TarnikIfCreate();
  EXPECT_EQ(q->Open(TarnikQ::kIngress), 0);
  for (const auto remove : {TarnikIfQFini, TarnikIfQFini2}) {
    clearLog();
    EXPECT_EQ(remove(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(capture_if::ifg, group);
    ASSERT_EQ(logLines().size(), 1u) << "the library's own";
    EXPECT_TRUE(logLines()[0].text.starts_with("Error: zorlib_ifg_q_remove: "));
    const LogLine ofTheLibrary = logLines()[0];
    const std::string name = remove == TarnikIfQFini ? "TarnikIfQFini" : "TarnikIfQFini2";
    clearLog();
    setDebugLevel(1);
    EXPECT_EQ(remove(), -1);
    setDebugLevel(0);
    EXPECT_THAT(logLines(), ElementsAre(debug("Debug: " + name + ": entry"), ofTheLibrary,
                                        debug("Debug: " + name + ": exit (-1)")));
  }
  EXPECT_EQ(q->Close(), 0);
  TarnikIfDestroy(q);
  EXPECT_EQ(TarnikIfQFini(), 0);
  EXPECT_FALSE(std::filesystem::exists("/dev/zorvik/brund/TarnikQ"));
}

TEST_F(InterfaceTest, AnyOtherRefusedRemovalIsAnError) {
  EXPECT_EQ(TarnikIfgOpen(), 0);
  EXPECT_EQ(TarnikIfQFini(), -1);
  EXPECT_EQ(TarnikIfQFini2(), -1);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: TarnikIfQFini: zorlib_ifg_remove_q_app failed, errno=2"),
                          error("Error: TarnikIfQFini2: zorlib_ifg_remove_q_app failed, errno=2")));
  EXPECT_NE(capture_if::ifg, nullptr);
}

}  // namespace
}  // namespace tarnik::test
