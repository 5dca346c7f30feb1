#include "base/shell.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "base/owned.h"
#include "base/testing/files.h"
#include "base/testing/process.h"

namespace tarnik::test {
namespace {

TEST(ShellTest, ReturnsTheWaitStatus) {
  EXPECT_EQ(runShell("exit 0"), 0);
  int status = runShell("exit 3");
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
  status = runShell("kill -TERM $$");
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(WEXITSTATUS(runShell("/does/not/exist 2>/dev/null")), 127);
}

// A process of its own, as another user where needed: the limit does not hold for root.
TEST(ShellTest, IsNegativeWhenNoProcessCanBeCreated) {
  Process child([] {
    const rlimit none{0, 0};
    EXPECT_EQ(::setrlimit(RLIMIT_NPROC, &none), 0);
    if (::getuid() == 0) {
      EXPECT_EQ(::setuid(65534), 0);
    }
    EXPECT_EQ(runShell("exit 0"), -1);
    EXPECT_EQ(errno, EAGAIN);
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
}

// system() would discard the signal: it ignores SIGINT and SIGQUIT while it runs.
TEST(ShellTest, KeepsPendingSignalsOfTheCaller) {
  Process child([] {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGQUIT);
    EXPECT_EQ(::pthread_sigmask(SIG_BLOCK, &both, nullptr), 0);
    ::kill(::getpid(), SIGINT);
    EXPECT_EQ(runShell("kill -QUIT $PPID"), 0);
    sigset_t pending;
    EXPECT_EQ(::sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGINT), 1);
    EXPECT_EQ(sigismember(&pending, SIGQUIT), 1);
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
}

TEST(ShellTest, TheCommandInheritsNoSignalsAndNoDescriptors) {
  const TempDir directory;
  const std::string status = directory / "status";
  Process child([&] {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::signal(SIGHUP, SIG_IGN);
    const OwnedFd inherited(::open("/dev/null", O_RDONLY));  // not close-on-exec
    EXPECT_EQ(runShell(("grep -E 'Sig(Blk|Ign)' /proc/self/status >" + status).c_str()), 0);
    EXPECT_EQ(runShell(("test ! -e /proc/$$/fd/" + std::to_string(inherited.get())).c_str()), 0);
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
  // The C library ignores two signals of its own, 32 and 33.
  EXPECT_THAT(readFile(status).value_or(""),
              ::testing::MatchesRegex("SigBlk:\t0+\nSigIgn:\t00000001?[08]0000000\n"));
}

TEST(ShellTest, ASignalHandlerDoesNotEndTheWait) {
  Process child([] {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);  // without SA_RESTART
    ::ualarm(20000, 20000);
    EXPECT_EQ(runShell("sleep 0.2; exit 4"), 4 << 8);
    ::ualarm(0, 0);
    return 0;
  });
  EXPECT_EQ(child.wait(), kSucceeded);
}

}  // namespace
}  // namespace tarnik::test
