// The daemon from command line to exit status, call by call.
#include "daemon/entry.h"

#include <fcntl.h>
#include <link.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "base/owned.h"
#include "daemon/settings.h"
#include "daemon/testing/entry_fixture.h"

namespace tarnik::test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;

TEST_F(EntryTest, StartsServesAndShutsDownInOrder) {
  for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
    sdk().loopSteps = {[signal] { sdk().raise(signal); }};
    const Outcome outcome = runDaemon({"-D"});
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(outcome.record,
                ElementsAreArray(joined({kStart,
                                         {"<6>onTerminate: Received SIGTERM, exiting", "tickle",
                                          "CaptureThread::stop()", "OrloLoopQuit()"},
                                         kShutdown})))
        << signal;
  }
}

TEST_F(EntryTest, RestartExitsWithTwoAfterTheSameShutdown) {
  sdk().loopSteps = {[] { sdk().raise(SIGUSR1); }};
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.record, ElementsAreArray(joined({kStart,
                                                       {"<6>onRestart: Restarting", "tickle",
                                                        "CaptureThread::stop()", "OrloLoopQuit()"},
                                                       kShutdown})));
}

TEST_F(EntryTest, ALoopThatFailsStopsTheCaptureThreadBeforeItIsJoined) {
  sdk().loopSteps.clear();
  sdk().failWhere("OrloLoop()");
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 0);
  Record expected = joined({kStart, kShutdown});
  expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(kStart.size()) + 1,
                  "CaptureThread::stop()");
  EXPECT_THAT(outcome.record, ElementsAreArray(expected));
}

TEST_F(EntryTest, TicklesSilentlyInEveryRoundOfTheJoin) {
  writeConfig("tarnik.debuglevel=5\n");
  sdk().joinRounds = 2;
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 0);
  const auto join = std::find(outcome.record.begin(), outcome.record.end(), kShutdown.at(2));
  EXPECT_THAT(Record(join, outcome.record.end()), ElementsAreArray({
                                                      "CaptureThread::join()",
                                                      "tickle",
                                                      "a round of the join",
                                                      "tickle",
                                                      "a round of the join",
                                                      "tickle",
                                                      "OrloWatchdogTimerVirtDestroy(timer)",
                                                      "OrloCmdFini()",
                                                      "<7>Debug: setState: 4",
                                                      "<7>Debug: tarnikd Daemon stopped",
                                                      "<7>Debug: tarnikd: exit status=0",
                                                  }));
}

TEST_F(EntryTest, TerminationAfterARestartKeepsTheRestartStatus) {
  // Both signals were pending: the loop runs both callbacks before it quits.
  sdk().loopSteps = {[] {
    sdk().raise(SIGUSR1);
    sdk().raise(SIGTERM);
  }};
  EXPECT_EQ(runDaemon({"-D"}).exitStatus, 2);
}

TEST_F(EntryTest, WithoutTheOptionItDetaches) {
  const Outcome outcome = runDaemon({});
  EXPECT_EQ(startingWith(outcome.record, {"OrloLogInit", "OrloWatchdogDaemon"}),
            (Record{"OrloLogInit(\"tarnikd\", 0)",
                    "OrloWatchdogDaemon(\"tarnikd\", \"packet capture daemon\", 0)"}));
}

TEST_F(EntryTest, OptionsReachThePlatformAndTheCaptureManager) {
  const Outcome outcome = runDaemon({"-w", "abc", "-p", "/opt/m/"});
  EXPECT_THAT(startingWith(outcome.record, {"OrloWatchdogTimerVirtSet", "CaptureManager"}),
              ElementsAreArray({
                  "OrloWatchdogTimerVirtSet(timer, 0)",
                  "CaptureManager::Reload(/opt/m//issues.csv, 120, 53687091, 1000, 1048576, 0, 0)",
                  "CaptureManager::Init(/opt/m//issues.csv, 120, 53687091, 1000, 1048576, 0, 0)",
              }));
}

TEST_F(EntryTest, SettingsReachTheCaptureSideInTheirOrder) {
  writeConfig(
      "tarnik.file.timeout=11\ntarnik.diskspace.bytes=22\ntarnik.file.maxno=33\n"
      "tarnik.file.maxsize=4444\ntarnik.event.interval=55\ntarnik.event.threshold=66\n"
      "tarnik.brund.qtimeout=7777777\ntarnik.brund.timeout=88\n");
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_THAT(startingWith(outcome.record, {"Capture", "TarnikMetaCache"}),
              ElementsAreArray({
                  "CaptureManager::Reload(/usr/lib64/ruv-qan/issues.csv, 11, 22, 33, 4444, 55, 66)",
                  "TarnikMetaCache::config(1164)",
                  "CaptureManager::Init(/usr/lib64/ruv-qan/issues.csv, 11, 22, 33, 4444, 55, 66)",
                  "CaptureThread::start(7777777)",
                  "CaptureThread::stop()",
                  "CaptureThread::join()",
              }));
}

TEST_F(EntryTest, TheExpiryTimerTakesItsIntervalFromTheDefaults) {
  getSettings().brund.interval = 77;
  writeConfig("tarnik.brund.interval=60\n");
  EXPECT_THAT(runDaemon({"-D"}).record, Contains("OrloLoopTimerAdd(77, onCacheExpiry, null)"));
}

TEST_F(EntryTest, KeepsTheWatchdogTimerWhereADebuggerFindsIt) {
  sdk().loopSteps = {[] {
    sdk().record(watchdogTimer == sdk().timer.get() ? "found" : "not found");
    sdk().raise(SIGTERM);
  }};
  EXPECT_THAT(runDaemon({"-D"}).record, Contains("found"));
}

TEST_F(EntryTest, IgnoresTheResultsOfThePlatformAndTheCaptureManager) {
  for (const char* call :
       {"OrloLogInit", "OrloWatchdogDaemon", "OrloWatchdogTimerVirtSet", "CaptureManager::Reload",
        "CaptureManager::Init", "runShell", "OrloLoop()"}) {
    sdk().failWhere(call, call == std::string("CaptureManager::Init") ? 7 : -1);
  }
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(startUpTo("OrloLoop()"),
              ElementsAreArray(
                  Record(outcome.record.begin(),
                         outcome.record.begin() + static_cast<std::ptrdiff_t>(kStart.size()))));
}

// ---- debug level and states

TEST_F(EntryTest, TheFirstStateIsGatedByTheLevelBeforeTheOptions) {
  const Outcome quiet = runDaemon({"-D", "-v"});
  EXPECT_THAT(quiet.record, Not(Contains(HasSubstr("Daemon starting"))));
  OrloLogDebugLevel = 1;
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_EQ(outcome.record.front(), "<7>Debug: tarnikd Daemon starting...");
  EXPECT_EQ(outcome.record.at(1), "sigprocmask(SIG_SETMASK, none)");
}

TEST_F(EntryTest, TheConfiguredLevelReplacesThatOfTheOptions) {
  const Outcome outcome = runDaemon({"-D", "-vv"});
  EXPECT_THAT(outcome.record, Contains("<7>Debug: tarnikd Daemon configuration reloading"));
  EXPECT_THAT(outcome.record, Not(Contains(HasSubstr("Daemon started"))));
  EXPECT_THAT(outcome.record, Not(Contains(HasSubstr("exit status"))));
}

TEST_F(EntryTest, AtLevelOneTheStatesAndTheExitStatusAreLogged) {
  writeConfig("tarnik.debuglevel=1\n");
  sdk().loopSteps = {[] { sdk().raise(SIGUSR1); }};
  const Outcome outcome = runDaemon({"-D"});
  EXPECT_THAT(Record(outcome.record.end() - 10, outcome.record.end()),
              ElementsAreArray({
                  "OrloLoopQuit()",
                  "OrloLoop returns",
                  "tickle",
                  "<7>Debug: tarnikd Daemon stopping...",
                  "CaptureThread::join()",
                  "tickle",
                  "OrloWatchdogTimerVirtDestroy(timer)",
                  "OrloCmdFini()",
                  "<7>Debug: tarnikd Daemon stopped",
                  "<7>Debug: tarnikd: exit status=2",
              }));
  EXPECT_EQ(startingWith(outcome.record, {"<7>Debug: tarnikd Daemon"}),
            (Record{"<7>Debug: tarnikd Daemon started", "<7>Debug: tarnikd Daemon stopping...",
                    "<7>Debug: tarnikd Daemon stopped"}));
}

// ---- the process itself

TEST_F(EntryTest, UnblocksAllSignalsAndClearsTheUmask) {
  sdk().loopSteps = {[] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sdk().record(sigisemptyset(&mask) != 0 ? "nothing blocked" : "something blocked");
    const OwnedFd file(::open("/tmp/umask-probe", O_CREAT | O_RDWR | O_EXCL, 0777));
    struct stat status {};
    ::fstat(file.get(), &status);
    sdk().record("mode " + std::to_string(status.st_mode & 0777));
    ::unlink("/tmp/umask-probe");
  }};
  sigset_t blocked;
  sigset_t former;
  sigfillset(&blocked);
  pthread_sigmask(SIG_SETMASK, &blocked, &former);
  const Outcome outcome = runDaemon({"-D"});
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  EXPECT_THAT(outcome.record, AllOf(Contains("nothing blocked"), Contains("mode 511")));
}

TEST_F(EntryTest, RaisesTheLimitOnOpenFilesToTheHardOne) {
  rlimit former{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
  const rlimit low{64, former.rlim_max};
  sdk().loopSteps = {[] {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    sdk().record("limit " + std::to_string(limit.rlim_cur));
  }};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const Outcome outcome = runDaemon({"-D"});
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
  EXPECT_THAT(outcome.record, Contains("limit " + std::to_string(former.rlim_max)));
}

TEST_F(EntryTest, LogsAMissingCaptureDirectory) {
  ASSERT_EQ(::rmdir("/var/support/tarnik"), 0);
  const Outcome outcome = runDaemon({"-D"});
  ASSERT_EQ(::mkdir("/var/support/tarnik", 0755), 0);
  EXPECT_EQ(outcome.exitStatus, 0);
  Record expected = kStart;
  expected.insert(
      expected.end() - 3,
      "<3>Error: main: Cannot write to [/var/support/tarnik/]: No such file or directory");
  EXPECT_THAT(Record(outcome.record.begin(),
                     outcome.record.begin() + static_cast<std::ptrdiff_t>(expected.size())),
              ElementsAreArray(expected));
}

TEST_F(EntryTest, TheRecordingPlatformIsTheOnlyOne) {
  std::string libraries;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* names) {
        *static_cast<std::string*>(names) += info->dlpi_name + std::string("\n");
        return 0;
      },
      &libraries);
  EXPECT_THAT(libraries, HasSubstr("libc.so"));
  EXPECT_THAT(libraries, Not(HasSubstr("liborlo_sdk")));
}

}  // namespace
}  // namespace tarnik::test
