// Detaching, registering, and what the log daemon and the terminal receive.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/orlo/testing/child.h"

namespace {

std::function<pid_t()> failingSetsid;

}  // namespace

// Replaces libc's in the whole program, including the SDK.
extern "C" pid_t setsid() noexcept {
  static const auto real = reinterpret_cast<decltype(&setsid)>(dlsym(RTLD_NEXT, "setsid"));
  return failingSetsid ? failingSetsid() : real();
}

namespace orlo::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

constexpr char kPidPath[] = ORLO_RUN_DIR "/tarnikd.pid";

class Daemon : public RunDirTest {
 protected:
  void TearDown() override { failingSetsid = nullptr; }
};

int becomeDaemon(unsigned flags) {
  return OrloWatchdogDaemon("tarnikd", "packet capture daemon", flags);
}

bool isNull(int fd) {
  struct stat null {};
  struct stat status {};
  return stat("/dev/null", &null) == 0 && fstat(fd, &status) == 0 && status.st_ino == null.st_ino &&
         status.st_dev == null.st_dev;
}

struct Facts {
  pid_t pid, session, group;
  bool nulls[3];
  char directory[64];
};

TEST_F(Daemon, DetachesAndRegisters) {
  Pipe facts;
  Pipe registered;
  Process child = startChild([&] {
    EXPECT_EQ(becomeDaemon(0), 0);
    Facts mine{getpid(), getsid(0), getpgrp(), {isNull(0), isNull(1), isNull(2)}, ""};
    if (getcwd(mine.directory, sizeof mine.directory) == nullptr) {
      mine.directory[0] = '\0';
    }
    EXPECT_EQ(write(facts.writer(), &mine, sizeof mine), static_cast<ssize_t>(sizeof mine));
    facts.closeWriter();
    registered.readAll();
  });
  EXPECT_EQ(child.wait(), kSucceeded);
  // The daemon is registered before its parent ends.
  const std::string record = content(kPidPath);
  Facts its{};
  const std::string bytes = facts.readAll();
  ASSERT_EQ(bytes.size(), sizeof its);
  std::memcpy(&its, bytes.data(), sizeof its);
  EXPECT_EQ(record, std::to_string(its.pid) + "\ntarnikd\npacket capture daemon\n");
  EXPECT_NE(its.pid, child.pid());
  EXPECT_NE(its.session, getsid(0));
  EXPECT_NE(its.session, its.pid) << "a session leader can acquire a terminal";
  EXPECT_EQ(its.group, its.session);
  EXPECT_STREQ(its.directory, "/");
  EXPECT_TRUE(its.nulls[0] && its.nulls[1] && its.nulls[2]);
  EXPECT_THAT(namesIn(ORLO_RUN_DIR), ElementsAre("tarnikd.lock", "tarnikd.pid"));
}

TEST_F(Daemon, StaysInTheForegroundAndRegisters) {
  EXPECT_EQ(inChild([] {
              const pid_t session = getsid(0);
              const fs::path directory = fs::current_path();
              Pipe output;
              dup2(output.writer(), STDOUT_FILENO);
              umask(0077);
              EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0);
              EXPECT_EQ(getsid(0), session);
              EXPECT_EQ(fs::current_path(), directory);
              EXPECT_FALSE(isNull(STDOUT_FILENO));
              EXPECT_EQ(content(kPidPath),
                        std::to_string(getpid()) + "\ntarnikd\npacket capture daemon\n");
              struct stat status {};
              EXPECT_EQ(stat(kPidPath, &status), 0);
              EXPECT_EQ(status.st_mode & 07777, 0644u);
              EXPECT_THAT(namesIn(ORLO_RUN_DIR), ElementsAre("tarnikd.lock", "tarnikd.pid"));
            }),
            kSucceeded);
}

TEST_F(Daemon, ReplacesTheRecordOfAnEarlierRun) {
  std::ofstream(kPidPath) << "1\nlonger than what comes\nand with\nmore lines\n";
  EXPECT_EQ(inChild([] {
              EXPECT_EQ(OrloWatchdogDaemon("tarnikd", nullptr, ORLO_FOREGROUND), 0);
              EXPECT_EQ(content(kPidPath), std::to_string(getpid()) + "\ntarnikd\n\n");
            }),
            kSucceeded);
}

TEST_F(Daemon, LeavesTheRecordOfARunningInstance) {
  std::ofstream(kPidPath) << "1\nfirst\n\n";
  EXPECT_EQ(OrloCmdInit("tarnikd", 0), 0);
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kSucceeded);
  EXPECT_EQ(content(kPidPath), "1\nfirst\n\n");
  OrloCmdFini();
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kSucceeded);
  EXPECT_NE(content(kPidPath), "1\nfirst\n\n");
}

TEST_F(Daemon, OpensNullForClosedStandardDescriptors) {
  EXPECT_EQ(inChild([] {
              const int next = open("/", O_RDONLY);  // the test may inherit open descriptors
              close(next);
              for (int fd = 0; fd <= 2; ++fd) {
                close(fd);
              }
              EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0);
              EXPECT_TRUE(isNull(0) && isNull(1) && isNull(2));
              EXPECT_EQ(open("/", O_RDONLY), next);
            }),
            kSucceeded);
}

TEST_F(Daemon, ContinuesWhenItCannotRegister) {
  fs::remove_all(ORLO_RUN_DIR);
  std::ofstream(ORLO_RUN_DIR) << "no directory";
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kSucceeded);
  EXPECT_EQ(content(ORLO_RUN_DIR), "no directory");
  fs::remove(ORLO_RUN_DIR);
}

TEST_F(Daemon, RefusesABadName) {
  for (const char* name : {"", "a/b", ".a", "a\nb"}) {
    errno = 0;
    EXPECT_EQ(OrloWatchdogDaemon(name, "x", ORLO_FOREGROUND), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(OrloWatchdogDaemon(nullptr, "x", ORLO_FOREGROUND), -1);
}

TEST_F(Daemon, ReturnsInTheCallingProcessWhenDetachingFails) {
  EXPECT_EQ(inChild([] {
              const pid_t me = getpid();
              failingSetsid = [] {
                errno = EPERM;
                return -1;
              };
              EXPECT_EQ(becomeDaemon(0), -1);
              EXPECT_EQ(errno, EPERM);
              EXPECT_EQ(getpid(), me);
              failingSetsid = []() -> pid_t { _exit(0); };
              EXPECT_EQ(becomeDaemon(0), -1);
              EXPECT_EQ(errno, ECHILD);
              EXPECT_EQ(getpid(), me);
              EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
              EXPECT_FALSE(fs::exists(kPidPath));
            }),
            kSucceeded);
}

// One syslog line and one event, as the log daemon and standard error receive them.
struct Logged {
  std::vector<std::string> datagrams;
  std::string standardError;
  std::string ident;
};

Logged logThrough(unsigned foreground) {
  const LogDaemon log;
  Pipe output;
  Process child = startChild([&] {
    dup2(output.writer(), STDERR_FILENO);
    char name[] = "tarnikd";
    EXPECT_EQ(OrloLogInit(name, foreground), 0);
    std::memset(name, 'x', sizeof name - 1);  // the SDK has copied it
    syslog(LOG_ERR, "Error: %s: text", "operation");
    OrloLogEventNoArg("VRKUA0006E", "VRK_events");
  });
  Logged logged{{}, output.readAll(), "tarnikd[" + std::to_string(child.pid()) + "]: "};
  EXPECT_EQ(child.wait(), kSucceeded);
  for (std::string line = log.next(); !line.empty(); line = log.next()) {
    logged.datagrams.push_back(std::move(line));
  }
  return logged;
}

TEST_F(Daemon, LogsToTheLogDaemonWithNameAndProcessId) {
  const Logged logged = logThrough(0);
  ASSERT_EQ(logged.datagrams.size(), 2u);
  EXPECT_TRUE(logged.datagrams[0].starts_with("<27>")) << logged.datagrams[0];
  EXPECT_TRUE(logged.datagrams[0].ends_with(" " + logged.ident + "Error: operation: text"))
      << logged.datagrams[0];
  EXPECT_TRUE(logged.datagrams[1].starts_with("<29>")) << logged.datagrams[1];
  EXPECT_TRUE(logged.datagrams[1].ends_with(" " + logged.ident + "Event: VRK_events: VRKUA0006E"))
      << logged.datagrams[1];
  EXPECT_EQ(logged.standardError, "");
}

TEST_F(Daemon, AlsoLogsToStandardErrorInTheForeground) {
  const Logged logged = logThrough(ORLO_FOREGROUND);
  EXPECT_EQ(logged.datagrams.size(), 2u);
  EXPECT_EQ(logged.standardError, logged.ident + "Error: operation: text\n" + logged.ident +
                                      "Event: VRK_events: VRKUA0006E\n");
}

// The reader of a foreground daemon's standard error has ended.
TEST_F(Daemon, SurvivesAClosedStandardErrorPipe) {
  EXPECT_EQ(inChild([] {
              Pipe output;
              dup2(output.writer(), STDERR_FILENO);
              output.closeReader();
              EXPECT_EQ(OrloLogInit("tarnikd", ORLO_FOREGROUND), 0);
              syslog(LOG_ERR, "Error: %s: text", "operation");
            }),
            kSucceeded);
}

TEST_F(Daemon, LeavesSigpipeToTheProgram) {
  EXPECT_EQ(inChild([] {
              EXPECT_EQ(OrloLogInit("tarnikd", 0), 0);
              struct sigaction action {};
              EXPECT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
              EXPECT_EQ(action.sa_handler, SIG_DFL) << "in the background";
              const auto handler = [](int) {};
              std::signal(SIGPIPE, handler);
              EXPECT_EQ(OrloLogInit("tarnikd", ORLO_FOREGROUND), 0);
              EXPECT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
              EXPECT_EQ(action.sa_handler, +handler) << "the program's own";
            }),
            kSucceeded);
}

}  // namespace
}  // namespace orlo::test
