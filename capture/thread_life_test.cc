// The life of the capture thread: start, failures to start, stop at any moment, join.
#include <pthread.h>

#include <chrono>
#include <latch>
#include <new>

#include "base/testing/process.h"
#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using test::calls;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::SizeIs;

constexpr char kFailed[] = "Error: threadFunc: Failed initialize the thread for capture";

class ThreadLifeTest : public test::ThreadTest {
 protected:
  // Calls stop() on another thread and waits for it. So stop() must not wait for this thread.
  void stopFromElsewhere() {
    std::thread([this] { thread.stop(); }).join();
  }
};

TEST_F(ThreadLifeTest, OpensAndClosesTheQueue) {
  const std::vector<test::Step> expected = {
      {4, "Debug: start: Packet capture starting"},
      {1, "Debug: stop: Packet capture stop"},
      {4, "Debug: join: Packet capture stopping"},
      {4, "Debug: processFrames: rv=-1 (errno=108) (nil) (nil)"},
      {1, "Debug: processFrames: Shutdown"},
      {4, "Debug: processFrames: exiting"},
      {4, "Debug: CloseWriters: Closing writers"}};
  for (const unsigned level : {0U, 1U, 3U, 4U}) {
    useDebugLevel(level);
    run({});
    EXPECT_THAT(calls(),
                ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(1000)",
                            "Shutdown", "Close", "TarnikIfDestroy", "TarnikIfgClose"));
    Texts texts;
    for (const test::Step& step : expected) {
      if (step.level <= level) {
        texts.push_back(step.text);
      }
    }
    EXPECT_THAT(threadSteps(), testing::UnorderedElementsAreArray(texts)) << level;
  }
}

TEST_F(ThreadLifeTest, TheTimeoutIsNotConverted) {
  thread.start(5'000'000);
  test::awaitEndOfScript();
  thread.stop();
  thread.join();
  EXPECT_EQ(calls().at(3), "SetTimeout(5000000)");
}

TEST_F(ThreadLifeTest, FailuresToOpen) {
  const struct {
    test::Script script;
    Texts calls;
    std::string line;
  } cases[] = {
      {{.ifgOpen = kQNoGroup},
       {"TarnikIfgOpen"},
       "Error: initCaptureQueue: Failed to open tarnikd ifg"},
      {{.create = false},
       {"TarnikIfgOpen", "TarnikIfCreate"},
       "Error: initCaptureQueue: Failed to create tarnikd interface"},
      {{.onCall =
            [](const std::string& call) {
              if (call == "TarnikIfCreate") {
                throw std::bad_alloc();
              }
            }},
       {"TarnikIfgOpen"},
       "Error: initCaptureQueue: Failed to create tarnikd interface"},
      {{.open = kQFailed},
       {"TarnikIfgOpen", "TarnikIfCreate", "Open(0)"},
       "Error: initCaptureQueue: Failed to open tarnikQ: -1"},
  };
  for (const auto& failing : cases) {
    test::clearLog();
    runToEnd(failing.script);
    EXPECT_EQ(calls(), failing.calls);
    EXPECT_THAT(test::logTexts(), ElementsAre(failing.line, kFailed));
    EXPECT_FALSE(std::filesystem::exists(ORLO_STATS_DIR));
  }
  thread.stop();
  EXPECT_EQ(calls().back(), "Shutdown") << "the object of the queue remains";
}

TEST_F(ThreadLifeTest, WithoutAStatisticsAreaNoFrameIsRead) {
  std::ofstream(ORLO_STATS_DIR) << "a file instead of the directory";
  bool wasRead = false;
  runToEnd({.reads = {with([&] { wasRead = true; }, failure(ESHUTDOWN))}});
  EXPECT_THAT(test::logTexts(), IsEmpty());
  EXPECT_FALSE(wasRead);
  EXPECT_EQ(calls().back(), "SetTimeout(1000)");
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
  EXPECT_THAT(test::logTexts(), ElementsAre("Error: Failed to create analysis thread: Resource "
                                            "temporarily unavailable"));
  EXPECT_THAT(calls(), IsEmpty());
  useDebugLevel(4);
  thread.join();
  EXPECT_THAT(test::logTexts(), ElementsAre("Debug: join: Packet capture stopping"));
}

TEST_F(ThreadLifeTest, AThreadThatCannotBeJoined) {
#ifdef __has_feature
#if __has_feature(thread_sanitizer)
  GTEST_SKIP() << "the thread sanitizer no longer knows a thread whose join failed";
#endif
#endif
  pthread_t handle{};
  std::latch started(1);
  test::play({.reads = {with(
                  [&] {
                    handle = ::pthread_self();
                    started.wait();
                    thread.join();  // a thread cannot join itself
                  },
                  failure(EINTR))}});
  thread.start(1000);
  started.count_down();
  test::awaitEndOfScript();
  EXPECT_THAT(test::logTexts(),
              ElementsAre("Error: Failed to join analysis thread: Resource deadlock avoided"));
  test::clearLog();
  thread.join();
  EXPECT_THAT(test::logTexts(), IsEmpty()) << "nothing left to join";
  thread.stop();
  ASSERT_EQ(::pthread_join(handle, nullptr), 0);
}

TEST_F(ThreadLifeTest, AShutdownByAnotherProcessEndsTheThread) {
  announce(1, 70000);
  runToEnd({.reads = {read(1, 100, 1), failure(ESHUTDOWN), read(1, 100, 2)}});
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1)));
  EXPECT_EQ(calls().back(), "TarnikIfgClose");
}

TEST_F(ThreadLifeTest, AllWritersAreClosedBeforeTheQueue) {
  announce(1, 70000);
  announce(2, 5);
  Texts atClose;
  run({.reads = {read(1, 100, 1), read(2, 100, 2), read(3, 100, 3)},
       .onCall = [&](const std::string& call) {
         if (call == "Close") {
           atClose = entries();
         }
       }});
  EXPECT_THAT(captures(),
              ElementsAre("20240305-070809.ips.web.1.pcap", "20240305-070809.naprule-5.2.pcap"));
  EXPECT_EQ(entries(), atClose);
  EXPECT_THAT(atClose, SizeIs(4)) << "both have an info file, and 3 had no metadata";
}

// At any moment of the thread's life, stop does not wait for the thread, has an effect, and
// everything is closed once and in order.
class StopTest : public ThreadLifeTest,
                 public testing::WithParamInterface<std::pair<const char*, unsigned>> {};

TEST_P(StopTest, EndsTheThread) {
  const auto& [moment, framesRead] = GetParam();
  announce(1, 70000);
  runToEnd({.reads = {read(1), read(1), failure(ESHUTDOWN)},
            .onCall = [this, moment = std::string(moment)](const std::string& call) {
              if (call == moment) {
                stopFromElsewhere();
              }
            }});
  Texts made = calls();
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

// Another process may undo the shutdown. The thread still ends when its read times out.
TEST_F(ThreadLifeTest, AStopEndsTheLoopAfterTheCurrentRead) {
  runToEnd({.reads = {with(
                          [this] {
                            stopFromElsewhere();
                            test::loseShutdown();
                          },
                          failure(EAGAIN)),
                      read(1)}});
  EXPECT_EQ(frameCounters().at(0), 0u);
}

// A read that returns while the shutdown is still being requested is the last one.
TEST_F(ThreadLifeTest, StopEndsTheLoopBeforeItShutsTheQueueDown) {
  setDebugLevel(4);
  std::latch reading(1);
  std::latch stopping(1);
  test::play({.reads = {with(
                            [&] {
                              reading.count_down();
                              stopping.wait();
                            },
                            failure(EAGAIN)),
                        read(1)},
              .onCall = [&](const std::string& call) {
                if (call == "Shutdown") {
                  stopping.count_down();
                  EXPECT_TRUE(test::eventually([] {
                    return std::ranges::count(threadSteps(), "Debug: processFrames: exiting") > 0;
                  }));
                }
              }});
  thread.start(1000);
  reading.wait();
  thread.stop();
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

TEST_F(ThreadLifeTest, StartsAgainAndKeepsCounting) {
  announce(1, 5);
  run({.reads = {read(1, 100, 1)}});
  run({.reads = {read(1, 100, 2), read(1, 100, 3)}});
  EXPECT_THAT(captures(), SizeIs(2));
  EXPECT_EQ(frameCounters().at(0), 3u);
}

// The daemon never opens the queue again today.
class ReopeningThread : public CaptureThread {
 public:
  using CaptureThread::initCaptureQueue;
  using CaptureThread::Opening;
};

TEST_F(ThreadLifeTest, ReopeningFirstClosesWhatIsOpen) {
  using enum ReopeningThread::Opening;
  ReopeningThread reopening;
  ASSERT_TRUE(reopening.initCaptureQueue(kAgain)) << "nothing is open";
  EXPECT_THAT(calls(), ElementsAre("TarnikIfgOpen", "TarnikIfCreate", "Open(0)", "SetTimeout(0)"));
  test::play({});
  ASSERT_TRUE(reopening.initCaptureQueue(kAgain));
  EXPECT_THAT(calls(), ElementsAre("Close", "TarnikIfDestroy", "TarnikIfgClose", "TarnikIfgOpen",
                                   "TarnikIfCreate", "Open(0)", "SetTimeout(0)"));
}

}  // namespace
}  // namespace tarnik
