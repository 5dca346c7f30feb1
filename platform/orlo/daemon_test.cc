// Detaching and registering, and the log as its daemon and the terminal get it.
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

// Takes the place of the system library's in the whole program, the SDK included.
extern "C" pid_t setsid() noexcept {
  static const auto real = reinterpret_cast<decltype(&setsid)>(dlsym(RTLD_NEXT, "setsid"));
  return failingSetsid ? failingSetsid() : real();
}

namespace orlo::test {
namespace {

namespace fs = std::filesystem;
using ::testing::UnorderedElementsAre;

constexpr char kPidPath[] = ORLO_RUN_DIR "/tarnikd.pid";

class Daemon : public RunDirTest {
 protected:
  void TearDown() override { failingSetsid = nullptr; }
};

std::string content(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int becomeDaemon(unsigned flags) {
  return OrloWatchdogDaemon("tarnikd", "packet capture daemon", flags);
}

bool isNull(int fd) {
  struct stat null {};
  struct stat status {};
  return stat("/dev/null", &null) == 0 && fstat(fd, &status) == 0 && status.st_ino == null.st_ino &&
         status.st_dev == null.st_dev;
}

std::vector<std::string> filesInRunDir() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(ORLO_RUN_DIR)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

struct Facts {
  pid_t pid, session, group;
  bool nulls[3];
  char directory[64];
};

TEST_F(Daemon, DetachesAndRegisters) {
  Pipe facts;
  Pipe registered;
  const pid_t child = startChild([&] {
    EXPECT_EQ(becomeDaemon(0), 0);
    Facts mine{getpid(), getsid(0), getpgrp(), {isNull(0), isNull(1), isNull(2)}, ""};
    if (getcwd(mine.directory, sizeof mine.directory) == nullptr) {
      mine.directory[0] = '\0';
    }
    EXPECT_EQ(write(facts.writer(), &mine, sizeof mine), static_cast<ssize_t>(sizeof mine));
    facts.closeWriter();
    registered.readAll();
  });
  EXPECT_EQ(waitFor(child), kPassed);
  // The new process stands as soon as the old one is gone.
  const std::string record = content(kPidPath);
  Facts its{};
  const std::string bytes = facts.readAll();
  ASSERT_EQ(bytes.size(), sizeof its);
  std::memcpy(&its, bytes.data(), sizeof its);
  EXPECT_EQ(record, std::to_string(its.pid) + "\ntarnikd\npacket capture daemon\n");
  EXPECT_NE(its.pid, child);
  EXPECT_NE(its.session, getsid(0));
  EXPECT_NE(its.session, its.pid) << "a session's leader can get a terminal again";
  EXPECT_EQ(its.group, its.session);
  EXPECT_STREQ(its.directory, "/");
  EXPECT_TRUE(its.nulls[0] && its.nulls[1] && its.nulls[2]);
  EXPECT_THAT(filesInRunDir(), UnorderedElementsAre("tarnikd.pid", "tarnikd.lock"));
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
              EXPECT_THAT(filesInRunDir(), UnorderedElementsAre("tarnikd.pid", "tarnikd.lock"));
            }),
            kPassed);
}

TEST_F(Daemon, ReplacesTheRecordOfAnEarlierRun) {
  std::ofstream(kPidPath) << "1\nlonger than what comes\nand with\nmore lines\n";
  EXPECT_EQ(inChild([] {
              EXPECT_EQ(OrloWatchdogDaemon("tarnikd", nullptr, ORLO_FOREGROUND), 0);
              EXPECT_EQ(content(kPidPath), std::to_string(getpid()) + "\ntarnikd\n\n");
            }),
            kPassed);
}

TEST_F(Daemon, LeavesTheRecordOfARunningInstance) {
  std::ofstream(kPidPath) << "1\nfirst\n\n";
  EXPECT_EQ(OrloCmdInit("tarnikd", 0), 0);
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kPassed);
  EXPECT_EQ(content(kPidPath), "1\nfirst\n\n");
  OrloCmdFini();
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kPassed);
  EXPECT_NE(content(kPidPath), "1\nfirst\n\n");
}

TEST_F(Daemon, PutsClosedStandardDescriptorsOnNull) {
  EXPECT_EQ(inChild([] {
              const int next = open("/", O_RDONLY);  // who started the test may have left some open
              close(next);
              for (int fd = 0; fd <= 2; ++fd) {
                close(fd);
              }
              EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0);
              EXPECT_TRUE(isNull(0) && isNull(1) && isNull(2));
              EXPECT_EQ(open("/", O_RDONLY), next);
            }),
            kPassed);
}

TEST_F(Daemon, GoesOnWhereItCannotRegister) {
  fs::remove_all(ORLO_RUN_DIR);
  std::ofstream(ORLO_RUN_DIR) << "no directory";
  EXPECT_EQ(inChild([] { EXPECT_EQ(becomeDaemon(ORLO_FOREGROUND), 0); }), kPassed);
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
            kPassed);
}

// What one syslog line and one event look like for the log daemon and on standard error.
struct Logged {
  std::vector<std::string> datagrams;
  std::string standardError;
  std::string ident;
};

Logged logThrough(unsigned foreground) {
  constexpr char kLogPath[] = "/dev/log";
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const sockaddr_un address = socketAddress(kLogPath);
  EXPECT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  Pipe output;
  const pid_t child = startChild([&] {
    dup2(output.writer(), STDERR_FILENO);
    char name[] = "tarnikd";
    EXPECT_EQ(OrloLogInit(name, foreground), 0);
    std::memset(name, 'x', sizeof name - 1);  // the name is the SDK's by now
    syslog(LOG_ERR, "Error: %s: text", "operation");
    OrloLogEventNoArg("VRKUA0006E", "VRK_events");
  });
  Logged logged{{}, output.readAll(), "tarnikd[" + std::to_string(child) + "]: "};
  EXPECT_EQ(waitFor(child), kPassed);
  char line[1024];
  for (ssize_t n = recv(log, line, sizeof line, 0); n > 0; n = recv(log, line, sizeof line, 0)) {
    logged.datagrams.emplace_back(line, static_cast<std::size_t>(n));
  }
  close(log);
  unlink(kLogPath);
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

TEST_F(Daemon, LogsToStandardErrorAsWellInTheForeground) {
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
            kPassed);
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
            kPassed);
}

}  // namespace
}  // namespace orlo::test
