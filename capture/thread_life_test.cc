// The capture thread's life: start, failures to start, stop at any moment, join.
#include <pthread.h>

#include <chrono>
#include <latch>

#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using test::calls;
using test::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ThreadLifeTest : public test::ThreadTest {};

TEST_F(ThreadLifeTest, OpensAndClosesTheQueue) {
  setDebugLevel(4);
  run({});
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(1000)",
                                   "Shutdown", "Close", "TarnikIfDestroy", "TarnikIfgClose"));
  const std::vector<LogLine> lines = threadLines();
  EXPECT_EQ(lines.front(), (LogLine{LOG_DEBUG, "Debug: start: Packet capture starting"}));
  EXPECT_THAT(lines, testing::IsSupersetOf(
                         {LogLine{LOG_DEBUG, "Debug: stop: Packet capture stop"},
                          LogLine{LOG_DEBUG, "Debug: join: Packet capture stopping"},
                          LogLine{LOG_DEBUG, "Debug: processFrames: rv=-1 (errno=108) (nil) (nil)"},
                          LogLine{LOG_DEBUG, "Debug: processFrames: Shutdown"},
                          LogLine{LOG_DEBUG, "Debug: processFrames: exiting"},
                          LogLine{LOG_DEBUG, "Debug: CloseWriters: Closing writers"}}));
  EXPECT_THAT(lines, SizeIs(7));
}

TEST_F(ThreadLifeTest, TellsMoreWithTheDebugLevel) {
  run({});
  EXPECT_THAT(test::logLines(), IsEmpty());
  setDebugLevel(1);
  run({});
  EXPECT_THAT(threadLines(),
              testing::UnorderedElementsAre(LogLine{LOG_DEBUG, "Debug: stop: Packet capture stop"},
                                            LogLine{LOG_DEBUG, "Debug: processFrames: Shutdown"}));
  useDebugLevel(3);
  run({});
  EXPECT_THAT(threadLines(), SizeIs(2));
}

TEST_F(ThreadLifeTest, TheTimeoutIsHandedOnUnconverted) {
  thread.start(5'000'000);
  test::awaitEndOfScript();
  thread.stop();
  thread.join();
  EXPECT_EQ(calls().at(3), "SetTimeout(5000000)");
}

TEST_F(ThreadLifeTest, AGroupThatCannotBeOpened) {
  test::play({.ifgOpen = kQNoGroup});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen"));
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR, "Error: initCaptureQueue: Failed to open tarnikd ifg"},
                          LogLine{LOG_ERR,
                                  "Error: threadFunc: Failed initialize the thread for "
                                  "capture"}));
  EXPECT_FALSE(std::filesystem::exists(ORLO_STATS_DIR));
}

TEST_F(ThreadLifeTest, AnInterfaceThatCannotBeCreated) {
  test::play({.create = false});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen", "TarnikIfCreate"));
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_ERR, "Error: initCaptureQueue: Failed to create tarnikd interface"},
                  LogLine{LOG_ERR, "Error: threadFunc: Failed initialize the thread for capture"}));
}

TEST_F(ThreadLifeTest, AQueueThatCannotBeOpened) {
  test::play({.open = kQFailed});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)"));
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_ERR, "Error: initCaptureQueue: Failed to open tarnikQ: -1"},
                  LogLine{LOG_ERR, "Error: threadFunc: Failed initialize the thread for capture"}));
  thread.stop();
  EXPECT_EQ(calls().back(), "Shutdown") << "the object stays";
}

TEST_F(ThreadLifeTest, WithoutAStatisticsAreaNoFrameIsRead) {
  std::ofstream(ORLO_STATS_DIR) << "a file where the directory should be";
  bool wasRead = false;
  test::play({.reads = {{.before = [&] { wasRead = true; }}}});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(test::logLines(), IsEmpty());
  EXPECT_FALSE(wasRead);
  EXPECT_THAT(calls(),
              ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(1000)"));
  std::filesystem::remove(ORLO_STATS_DIR);
}

TEST_F(ThreadLifeTest, AThreadThatCannotBeCreated) {
  pthread_attr_t usual;
  ASSERT_EQ(::pthread_getattr_default_np(&usual), 0);
  pthread_attr_t huge;
  ASSERT_EQ(::pthread_attr_init(&huge), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 50U), 0);
  ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
  thread.start(1000);
  ASSERT_EQ(::pthread_setattr_default_np(&usual), 0);
  EXPECT_THAT(test::logLines(), ElementsAre(LogLine{LOG_ERR,
                                                    "Error: Failed to create analysis "
                                                    "thread: Resource temporarily "
                                                    "unavailable"}));
  test::clearLog();
  thread.join();
  EXPECT_THAT(test::logLines(), IsEmpty());
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ThreadLifeTest, JoinWithoutAStartOnlyLogs) {
  setDebugLevel(4);
  thread.join();
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: join: Packet capture stopping"}));
}

TEST_F(ThreadLifeTest, AThreadThatCannotBeJoined) {
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
  GTEST_SKIP() << "the thread sanitizer loses sight of a thread whose join failed";
#endif
#endif
  pthread_t handle{};
  std::latch started(1);
  test::play({.reads = {{.before = [&] {
                handle = ::pthread_self();
                started.wait();
                thread.join();  // a thread cannot join itself
              }}}});
  thread.start(1000);
  started.count_down();
  test::awaitEndOfScript();
  EXPECT_THAT(test::logLines(),
              testing::Contains(LogLine{LOG_ERR,
                                        "Error: Failed to join analysis thread: Resource "
                                        "deadlock avoided"}));
  test::clearLog();
  thread.join();
  EXPECT_THAT(test::logLines(), IsEmpty()) << "there is nothing to join any more";
  thread.stop();
  ASSERT_EQ(::pthread_join(handle, nullptr), 0);
}

TEST_F(ThreadLifeTest, AShutdownFromElsewhereEndsTheThread) {
  announce(1, 70000);
  test::play({.reads = {read(1, 100, 1), failure(ESHUTDOWN), read(1, 100, 2)}});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1)));
  EXPECT_EQ(calls().back(), "TarnikIfgClose");
}

TEST_F(ThreadLifeTest, AStopClosesAllWriters) {
  announce(1, 70000);
  announce(2, 5);
  run({.reads = {read(1, 100, 1), read(2, 100, 2), read(3, 100, 3)}});
  EXPECT_THAT(captures(),
              ElementsAre("20240305-070809.ips.web.1.pcap", "20240305-070809.naprule-5.2.pcap"));
  EXPECT_THAT(entries(), SizeIs(4));
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_WARNING,
                                  "Warning: Finalize: Failed to determine capture name "
                                  "for [/var/support/tarnik/3]"}));
}

// Whatever the thread is doing, a stop neither waits for it nor is lost, and everything is closed
// once, in order.
class StopTest : public test::ThreadTest,
                 public testing::WithParamInterface<std::pair<const char*, unsigned>> {};

TEST_P(StopTest, EndsTheThread) {
  const auto& [moment, framesRead] = GetParam();
  announce(1, 70000);
  test::play({.reads = {read(1), read(1), failure(ESHUTDOWN)},
              .onCall = [this, moment = std::string(moment)](const std::string& call) {
                if (call == moment) {
                  stopFromElsewhere();
                }
              }});
  thread.start(1000);
  thread.join();
  std::vector<std::string> made = calls();
  std::erase_if(
      made, [](const std::string& call) { return call == "Shutdown" || call.starts_with("Free"); });
  EXPECT_THAT(made, ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(1000)",
                                "Close", "TarnikIfDestroy", "TarnikIfgClose"));
  EXPECT_EQ(frameCounters().at(0), framesRead);
  EXPECT_THAT(captures(), SizeIs(framesRead == 0 ? 0 : 1));
}

INSTANTIATE_TEST_SUITE_P(Moments, StopTest,
                         testing::Values(std::pair("TarnikIfgOpen", 0u),
                                         std::pair("TarnikIfCreate", 0u), std::pair("Open(0)", 0u),
                                         std::pair("SetTimeout(1000)", 0u),
                                         std::pair("Free(1)", 1u), std::pair("Free(2)", 2u),
                                         std::pair("Close", 2u), std::pair("TarnikIfDestroy", 2u),
                                         std::pair("TarnikIfgClose", 2u)));

// A queue that lost its shutdown, because somebody else wrote to its memory, still ends when the
// read times out.
TEST_F(ThreadLifeTest, AStopEndsTheLoopAfterTheCurrentRead) {
  test::Read slow = failure(EAGAIN);
  slow.before = [this] {
    stopFromElsewhere();
    test::loseShutdown();
  };
  test::play({.reads = {slow, read(1)}});
  thread.start(1000);
  thread.join();
  EXPECT_EQ(frameCounters().at(0), 0u);
}

TEST_F(ThreadLifeTest, StopsAtRandomMoments) {
  test::useSystemTime();
  for (int round = 0; round < 200; ++round) {
    const std::vector<test::Read> timeouts(static_cast<std::size_t>(round % 40), failure(EAGAIN));
    test::play({.reads = timeouts});
    thread.start(1000);
    std::this_thread::sleep_for(std::chrono::microseconds(round * 7 % 500));
    thread.stop();
    thread.stop();
    thread.join();
    ASSERT_EQ(calls().back(), "TarnikIfgClose");
  }
}

TEST_F(ThreadLifeTest, StartsAgain) {
  announce(1, 70000);
  run({.reads = {read(1, 100, 1)}});
  run({.reads = {read(1, 100, 2), read(1, 100, 3)}});
  EXPECT_THAT(captures(), SizeIs(2));
  EXPECT_EQ(frameCounters().at(0), 3u) << "the area is made once and goes on counting";
}

// What reopening does, which no event of today asks for.
class ReopeningThread : public CaptureThread {
 public:
  using CaptureThread::initCaptureQueue;
};

TEST_F(ThreadLifeTest, ReopeningClosesWhatIsOpenFirst) {
  ReopeningThread reopening;
  ASSERT_TRUE(reopening.initCaptureQueue(true)) << "nothing is open";
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(0)"));
  test::play({});
  ASSERT_TRUE(reopening.initCaptureQueue(true));
  EXPECT_THAT(calls(), ElementsAre("Close", "TarnikIfDestroy", "TarnikIfgClose", "TarnikIfgOpen",
                                   "TarnikIfCreate", "Open(0)", "SetTimeout(0)"));
}

}  // namespace
}  // namespace tarnik
