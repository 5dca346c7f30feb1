// The event loop with real signals, timers and descriptors. Each test runs in a child process,
// since a process has one loop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <functional>
#include <thread>
#include <vector>

#include "platform/orlo/testing/child.h"

namespace orlo::test {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;
using ::testing::ElementsAre;

// A callback that records its value and runs an action.
struct Recorder {
  std::vector<int> values;
  std::function<int(int)> action = [](int) {
    OrloLoopQuit();
    return 0;
  };
};

int record(int value, void* userData) {
  auto* const recorder = static_cast<Recorder*>(userData);
  recorder->values.push_back(value);
  return recorder->action(value);
}

int unexpected(int value, void*) {
  ADD_FAILURE() << "called with " << value;
  return 0;
}

double secondsSince(steady_clock::time_point start) {
  return duration<double>(steady_clock::now() - start).count();
}

TEST(Loop, RunsASignalsCallbackOutsideSignalContext) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              ASSERT_EQ(OrloLoopSignalAdd(SIGTERM, record, &recorder), 0);
              kill(getpid(), SIGTERM);
              EXPECT_THAT(recorder.values, ElementsAre());
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(SIGTERM));
            }),
            kSucceeded);
}

TEST(Loop, RunsTheCallbackOfEachSignal) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              recorder.action = [&](int) {
                if (recorder.values.size() == 3) {
                  OrloLoopQuit();
                }
                return 1;  // ignored
              };
              for (const int signo : {SIGHUP, SIGUSR1, SIGINT}) {
                ASSERT_EQ(OrloLoopSignalAdd(signo, record, &recorder), 0);
                kill(getpid(), signo);
              }
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, testing::UnorderedElementsAre(SIGHUP, SIGUSR1, SIGINT));
            }),
            kSucceeded);
}

TEST(Loop, BlocksASignalThatWasIgnoredOrUnblockedBefore) {
  EXPECT_EQ(inChild([] {
              signal(SIGHUP, SIG_IGN);
              sigset_t set;
              sigemptyset(&set);
              sigprocmask(SIG_SETMASK, &set, nullptr);
              Recorder recorder;
              ASSERT_EQ(OrloLoopSignalAdd(SIGHUP, record, &recorder), 0);
              sigprocmask(SIG_SETMASK, nullptr, &set);
              EXPECT_EQ(sigismember(&set, SIGHUP), 1);
              kill(getpid(), SIGHUP);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(SIGHUP));
            }),
            kSucceeded);
}

TEST(Loop, ReplacesTheCallbackOfASignal) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              ASSERT_EQ(OrloLoopSignalAdd(SIGUSR1, unexpected, nullptr), 0);
              ASSERT_EQ(OrloLoopSignalAdd(SIGUSR1, record, &recorder), 0);
              kill(getpid(), SIGUSR1);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(SIGUSR1));
            }),
            kSucceeded);
}

TEST(Loop, RefusesInvalidSources) {
  EXPECT_EQ(inChild([] {
              const auto refused = [](int result, int error) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(errno, error);
              };
              refused(OrloLoopSignalAdd(0, unexpected, nullptr), EINVAL);
              refused(OrloLoopSignalAdd(NSIG, unexpected, nullptr), EINVAL);
              refused(OrloLoopSignalAdd(SIGTERM, nullptr, nullptr), EINVAL);
              refused(OrloLoopTimerAdd(0, unexpected, nullptr), EINVAL);
              refused(OrloLoopTimerAdd(-1, unexpected, nullptr), EINVAL);
              refused(OrloLoopTimerAdd(INT64_C(1) + INT_MAX, unexpected, nullptr), EINVAL);
              refused(OrloLoopTimerAdd(1, nullptr, nullptr), EINVAL);
              refused(OrloLoopFdAdd(-1, unexpected, nullptr), EBADF);
              refused(OrloLoopFdAdd(987, unexpected, nullptr), EBADF);
              refused(OrloLoopFdAdd(0, nullptr, nullptr), EINVAL);
              const int file = open("/proc/self/exe", O_RDONLY);
              refused(OrloLoopFdAdd(file, unexpected, nullptr), EPERM);
              Pipe pipe;
              EXPECT_EQ(OrloLoopFdAdd(pipe.reader(), unexpected, nullptr), 0);
              refused(OrloLoopFdAdd(pipe.reader(), unexpected, nullptr), EEXIST);
              EXPECT_EQ(OrloLoopTimerAdd(INT_MAX, unexpected, nullptr), 0);
            }),
            kSucceeded);
}

TEST(Loop, RunsADescriptorsCallbackWhileItIsReadable) {
  EXPECT_EQ(inChild([] {
              Pipe pipe;
              ASSERT_EQ(write(pipe.writer(), "abc", 3), 3);
              Recorder recorder;
              std::string received;
              recorder.action = [&](int fd) {
                char c = 0;
                EXPECT_EQ(read(fd, &c, 1), 1);
                received += c;
                if (received.size() == 3) {
                  OrloLoopQuit();
                }
                return -1;  // ignored
              };
              ASSERT_EQ(OrloLoopFdAdd(pipe.reader(), record, &recorder), 0);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_EQ(received, "abc");
              EXPECT_THAT(recorder.values,
                          ElementsAre(pipe.reader(), pipe.reader(), pipe.reader()));
            }),
            kSucceeded);
}

TEST(Loop, WatchesAReusedDescriptorNumber) {
  EXPECT_EQ(inChild([] {
              Pipe first;
              Pipe second;
              Recorder recorder;
              ASSERT_EQ(OrloLoopFdAdd(first.reader(), unexpected, nullptr), 0);
              ASSERT_EQ(dup2(second.reader(), first.reader()), first.reader());
              ASSERT_EQ(OrloLoopFdAdd(first.reader(), record, &recorder), 0);
              ASSERT_EQ(write(second.writer(), "x", 1), 1);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(first.reader()));
            }),
            kSucceeded);
}

TEST(Loop, AlternatesBetweenABusyDescriptorAndASignal) {
  EXPECT_EQ(inChild([] {
              Pipe pipe;
              ASSERT_EQ(write(pipe.writer(), "x", 1), 1);
              Recorder busy;
              busy.action = [&](int) {  // stays readable
                EXPECT_LT(busy.values.size(), 100u);
                if (busy.values.size() == 5) {
                  kill(getpid(), SIGTERM);
                }
                return 0;
              };
              Recorder recorder;
              ASSERT_EQ(OrloLoopFdAdd(pipe.reader(), record, &busy), 0);
              ASSERT_EQ(OrloLoopSignalAdd(SIGTERM, record, &recorder), 0);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(SIGTERM));
            }),
            kSucceeded);
}

TEST(Loop, RunsATimerEveryInterval) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              recorder.action = [&](int) {
                if (recorder.values.size() == 2) {
                  OrloLoopQuit();
                }
                return 0;
              };
              const auto start = steady_clock::now();
              ASSERT_EQ(OrloLoopTimerAdd(1, record, &recorder), 0);
              ASSERT_EQ(OrloLoopTimerAdd(60, unexpected, nullptr), 0);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_GE(secondsSince(start), 1.99);
              EXPECT_LT(secondsSince(start), 20.0);
              EXPECT_THAT(recorder.values, ElementsAre(1, 1));
            }),
            kSucceeded);
}

TEST(Loop, DeliversMissedExpiriesOnce) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              std::vector<double> times;
              const auto start = steady_clock::now();
              recorder.action = [&](int) {
                times.push_back(secondsSince(start));
                if (times.size() == 1) {
                  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
                }
                if (times.size() == 3) {
                  OrloLoopQuit();
                }
                return 0;
              };
              ASSERT_EQ(OrloLoopTimerAdd(1, record, &recorder), 0);
              EXPECT_EQ(OrloLoop(), 0);
              // At 1 s; at 3.5 s, when the callback has returned, once for 2 s and 3 s; at 4 s.
              ASSERT_EQ(times.size(), 3u);
              EXPECT_GE(times[1], 3.49);
              EXPECT_GE(times[2], 3.99);
            }),
            kSucceeded);
}

TEST(Loop, QuitBeforeTheLoopEndsTheNextLoopOnly) {
  EXPECT_EQ(inChild([] {
              Recorder recorder;
              ASSERT_EQ(OrloLoopSignalAdd(SIGTERM, record, &recorder), 0);
              OrloLoopQuit();
              OrloLoopQuit();
              kill(getpid(), SIGTERM);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre());
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(SIGTERM));
            }),
            kSucceeded);
}

TEST(Loop, QuitsFromAnotherThread) {
  EXPECT_EQ(inChild([] {
              ASSERT_EQ(OrloLoopTimerAdd(60, unexpected, nullptr), 0);
              const auto start = steady_clock::now();
              std::thread other([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                OrloLoopQuit();
              });
              EXPECT_EQ(OrloLoop(), 0);
              other.join();
              EXPECT_LT(secondsSince(start), 10.0);
            }),
            kSucceeded);
}

void ignoreSignal(int) {}

TEST(Loop, ContinuesAfterAnInterruption) {
  EXPECT_EQ(inChild([] {
              struct sigaction action {};
              action.sa_handler = ignoreSignal;
              sigaction(SIGALRM, &action, nullptr);
              const itimerval often{{0, 50'000}, {0, 50'000}};
              ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
              Recorder recorder;
              ASSERT_EQ(OrloLoopTimerAdd(1, record, &recorder), 0);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(recorder.values, ElementsAre(1));
            }),
            kSucceeded);
}

TEST(Loop, AllowsACallbackToAddSourcesAndReplaceItself) {
  EXPECT_EQ(inChild([] {
              Recorder second;
              Recorder first;
              first.action = [&](int) {
                EXPECT_EQ(OrloLoopSignalAdd(SIGUSR1, record, &second), 0);
                EXPECT_EQ(OrloLoopTimerAdd(60, unexpected, nullptr), 0);
                kill(getpid(), SIGUSR1);
                return 0;
              };
              ASSERT_EQ(OrloLoopSignalAdd(SIGUSR1, record, &first), 0);
              kill(getpid(), SIGUSR1);
              EXPECT_EQ(OrloLoop(), 0);
              EXPECT_THAT(first.values, ElementsAre(SIGUSR1));
              EXPECT_THAT(second.values, ElementsAre(SIGUSR1));
            }),
            kSucceeded);
}

}  // namespace
}  // namespace orlo::test
