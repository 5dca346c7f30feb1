// The watchdog timer: what it counts, and how it ends the process. Each test uses a child process
// and acts as its log daemon.
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/orlo/testing/child.h"

namespace orlo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

uint32_t elapsed(OrloWatchdogTimer* timer) {
  return std::atomic_ref(timer->elapsed).load();
}
void store(OrloWatchdogTimer* timer, uint32_t value) {
  std::atomic_ref(timer->elapsed).store(value);
}

// Waits until `timer` has counted to `seconds`. False when it takes far too long.
bool reaches(OrloWatchdogTimer* timer, uint32_t seconds) {
  for (int i = 0; i < 1500 && elapsed(timer) < seconds; ++i) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  return elapsed(timer) == seconds;
}

class Watchdog : public RunDirTest {
 protected:
  LogDaemon log_;
};

TEST_F(Watchdog, CountsTheSecondsSinceItWasTickled) {
  EXPECT_EQ(inChild([] {
              const auto start = steady_clock::now();
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              ASSERT_NE(timer, nullptr);
              EXPECT_EQ(offsetof(OrloWatchdogTimer, elapsed), 28u);
              EXPECT_EQ(elapsed(timer), 0u);
              ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, 50), 0);
              EXPECT_TRUE(reaches(timer, 2));
              EXPECT_GE(steady_clock::now() - start, milliseconds(1990));
              store(timer, 0);
              EXPECT_TRUE(reaches(timer, 1));
              EXPECT_GE(steady_clock::now() - start, milliseconds(2990));
              OrloWatchdogTimerVirtDestroy(timer);
            }),
            kSucceeded);
  EXPECT_EQ(log_.next(), "");
}

TEST_F(Watchdog, EndsTheProcessAndLogsWhy) {
  const auto start = steady_clock::now();
  Pipe output;
  Process child = startChild([&] {
    dup2(output.writer(), STDERR_FILENO);
    OrloLogInit("guarded", 0);
    OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
    OrloWatchdogTimerVirtSet(timer, 1);
    for (;;) {
      pause();  // hung
    }
  });
  EXPECT_EQ(child.wait(), killedBy(SIGABRT));
  const auto took = steady_clock::now() - start;
  EXPECT_GE(took, milliseconds(1990));
  EXPECT_LT(took, milliseconds(15000));
  EXPECT_EQ(log_.next(), "<26>guarded[" + std::to_string(child.pid()) +
                             "]: Watchdog: no sign of life for 2 seconds (limit 1), ending the "
                             "process");
  EXPECT_EQ(output.readAll(), "");
}

TEST_F(Watchdog, LogsToStandardErrorInTheForeground) {
  Pipe output;
  Process child = startChild([&] {
    dup2(output.writer(), STDERR_FILENO);
    OrloLogInit("guarded", 1);
    OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
    OrloWatchdogTimerVirtSet(timer, 4000000000);
    store(timer, 4000000000);
    for (;;) {
      pause();
    }
  });
  EXPECT_EQ(child.wait(), killedBy(SIGABRT));
  const std::string line = "guarded[" + std::to_string(child.pid()) +
                           "]: Watchdog: no sign of life for 4000000001 seconds (limit "
                           "4000000000), ending the process";
  EXPECT_EQ(output.readAll(), line + "\n");
  EXPECT_EQ(log_.next(), "<26>" + line);
}

TEST_F(Watchdog, EndsTheProcessOnlyWhenTheLimitIsPassed) {
  Pipe progress;
  Process child = startChild([&] {
    OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
    OrloWatchdogTimerVirtSet(timer, 100);
    store(timer, 99);
    if (reaches(timer, 100)) {
      std::this_thread::sleep_for(milliseconds(200));
      EXPECT_EQ(write(progress.writer(), "alive", 5), 5);
    }
    for (;;) {
      pause();
    }
  });
  EXPECT_EQ(progress.readAll(), "alive");
  EXPECT_EQ(child.wait(), killedBy(SIGABRT));
}

TEST_F(Watchdog, EndsTheProcessWithoutALogDaemon) {
  ASSERT_EQ(unlink(LogDaemon::kPath), 0);
  EXPECT_EQ(inChild([] {
              signal(SIGABRT, SIG_IGN);
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              OrloWatchdogTimerVirtSet(timer, 1);
              store(timer, 5);
              for (;;) {
                pause();
              }
            }),
            killedBy(SIGABRT));
}

TEST_F(Watchdog, CountsButEndsNothingWhileDisarmed) {
  EXPECT_EQ(inChild([] {
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              store(timer, 1000);
              EXPECT_TRUE(reaches(timer, 1001));
              for (const int64_t none : {INT64_C(0), INT64_C(-1), INT64_MIN}) {
                ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, 10), 0);
                ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, none), 0);
                store(timer, 0xFFFFFFF0u);
                EXPECT_TRUE(reaches(timer, 0xFFFFFFF1u));
              }
              ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, INT64_MAX), 0);
              EXPECT_TRUE(reaches(timer, 0xFFFFFFF2u));
              OrloWatchdogTimerVirtDestroy(timer);
            }),
            kSucceeded);
  EXPECT_EQ(log_.next(), "");
}

TEST_F(Watchdog, ExistsOncePerProcess) {
  EXPECT_EQ(inChild([] {
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              ASSERT_NE(timer, nullptr);
              EXPECT_EQ(OrloWatchdogTimerVirtCreate(), nullptr);
              EXPECT_EQ(errno, EBUSY);
              OrloWatchdogTimerVirtDestroy(timer);
              EXPECT_EQ(OrloWatchdogTimerVirtSet(timer, 5), -1);
              EXPECT_EQ(errno, EINVAL);
              OrloWatchdogTimer* const again = OrloWatchdogTimerVirtCreate();
              ASSERT_NE(again, nullptr);
              OrloWatchdogTimer other{};
              EXPECT_EQ(OrloWatchdogTimerVirtSet(&other, 5), -1);
              EXPECT_EQ(OrloWatchdogTimerVirtSet(nullptr, 5), -1);
              OrloWatchdogTimerVirtDestroy(&other);
              OrloWatchdogTimerVirtDestroy(nullptr);
              EXPECT_EQ(OrloWatchdogTimerVirtSet(again, 5), 0);
            }),
            kSucceeded);
}

TEST_F(Watchdog, StopsWhenDestroyed) {
  EXPECT_EQ(inChild([] {
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, 1), 0);
              store(timer, 1000);
              OrloWatchdogTimerVirtDestroy(timer);
              std::this_thread::sleep_for(milliseconds(1200));
              EXPECT_EQ(raise(SIGRTMAX - 1), 0);  // a pending tick
            }),
            kSucceeded);
}

TEST_F(Watchdog, NeedsNoThreadAndInterruptsNoRead) {
  EXPECT_EQ(inChild([] {
              const auto threads = [] {
                std::error_code none;  // without /proc there is nothing to count
                return std::distance(std::filesystem::directory_iterator("/proc/self/task", none),
                                     {});
              };
              const auto before = threads();
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, 50), 0);
              EXPECT_EQ(threads(), before);
              Pipe pipe;
              std::thread writer([&] {
                std::this_thread::sleep_for(milliseconds(2200));
                EXPECT_EQ(write(pipe.writer(), "x", 1), 1);
              });
              char c = 0;
              EXPECT_EQ(read(pipe.reader(), &c, 1), 1);
              EXPECT_GE(elapsed(timer), 1u);
              writer.join();
              OrloWatchdogTimerVirtDestroy(timer);
            }),
            kSucceeded);
}

TEST_F(Watchdog, CountsWhileTheLoopRuns) {
  EXPECT_EQ(inChild([] {
              OrloWatchdogTimer* const timer = OrloWatchdogTimerVirtCreate();
              const auto tickle = [](int, void* userData) {
                auto* const mine = static_cast<OrloWatchdogTimer*>(userData);
                EXPECT_GE(elapsed(mine), 2u);
                store(mine, 0);
                OrloLoopQuit();
                return 0;
              };
              ASSERT_EQ(OrloLoopTimerAdd(3, tickle, timer), 0);
              ASSERT_EQ(OrloWatchdogTimerVirtSet(timer, 5), 0);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_EQ(elapsed(timer), 0u);
              OrloWatchdogTimerVirtDestroy(timer);
            }),
            kSucceeded);
}

}  // namespace
}  // namespace orlo::test
