// Opening and closing the command socket: exclusion, stale files and errors.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/orlo/testing/child.h"

namespace {

// The call that fails, and its errno.
struct Failing {
  std::string call;
  int error = 0;
} failing;
uid_t effectiveUser = 0;

bool fails(const char* call) {
  if (failing.call != call) {
    return false;
  }
  errno = failing.error;
  return true;
}

template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These replace libc's in the whole program, including the SDK.
extern "C" {
int mkdir(const char* path, mode_t mode) noexcept {
  return fails("mkdir") ? -1 : next(mkdir, "mkdir")(path, mode);
}
int flock(int fd, int operation) noexcept {
  return fails("flock") ? -1 : next(flock, "flock")(fd, operation);
}
int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  return fails("bind") ? -1 : next(bind, "bind")(fd, address, length);
}
int socket(int domain, int type, int protocol) noexcept {
  return fails("socket") ? -1 : next(socket, "socket")(domain, type, protocol);
}
int unlink(const char* path) noexcept {
  return fails("unlink") ? -1 : next(unlink, "unlink")(path);
}
uid_t geteuid() noexcept {
  return effectiveUser;
}
}

namespace orlo::test {
namespace {

namespace fs = std::filesystem;

constexpr char kPath[] = ORLO_RUN_DIR "/tarnikd.sock";
constexpr char kLockPath[] = ORLO_RUN_DIR "/tarnikd.lock";

class CommandOpen : public RunDirTest {
 protected:
  void SetUp() override {
    failing = {};
    effectiveUser = 0;
    RunDirTest::SetUp();
  }
  void TearDown() override {
    failing = {};
    OrloCmdFini();
  }
};

// Opens the socket and returns the text of the result.
std::string opened(const char* name = "tarnikd") {
  return OrloCmdError(OrloCmdInit(name, 0));
}

// Leaves a socket file without a listener.
void leaveStaleSocket() {
  boundSocket(kPath).reset();
}

TEST_F(CommandOpen, DescribesZeroAsNoError) {
  EXPECT_STREQ(OrloCmdError(0), "no error");
}

TEST_F(CommandOpen, DescribesUnknownCodes) {
  EXPECT_STREQ(OrloCmdError(-1), "unknown error -1");
  EXPECT_STREQ(OrloCmdError(INT32_MAX), "unknown error 2147483647");
}

TEST_F(CommandOpen, HasADescriptorOnlyWhileOpen) {
  EXPECT_EQ(OrloCmdFd(), -1);
  EXPECT_EQ(opened(), "no error");
  EXPECT_GE(OrloCmdFd(), 0);
  OrloCmdFini();
  EXPECT_EQ(OrloCmdFd(), -1);
  EXPECT_FALSE(fs::exists(kPath));
  OrloCmdFini();
  OrloCmdSender sender{};
  sender.addressLength = sizeof sender.address;
  char byte = 0;
  EXPECT_EQ(OrloCmdRecv(&byte, 1, nullptr, 0), 0u);
  EXPECT_EQ(OrloCmdResp(&byte, 1, &sender), -EBADF);
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, CreatesTheDirectory) {
  fs::remove_all(ORLO_RUN_DIR);
  EXPECT_EQ(opened(), "no error");
  struct stat status {};
  ASSERT_EQ(stat(ORLO_RUN_DIR, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_TRUE(fs::is_socket(kPath));
}

TEST_F(CommandOpen, UsesADirectoryThatItCouldNotCreate) {
  failing = {"mkdir", EROFS};
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, ReplacesAStaleSocket) {
  leaveStaleSocket();
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, ReplacesTheSocketOfAKilledInstance) {
  EXPECT_EQ(inChild([] {
              EXPECT_EQ(opened(), "no error");
              kill(getpid(), SIGKILL);
            }),
            killedBy(SIGKILL));
  ASSERT_TRUE(fs::is_socket(kPath));
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, OpensOneSocketPerProcess) {
  ASSERT_EQ(opened(), "no error");
  const int fd = OrloCmdFd();
  EXPECT_EQ(opened("another"),
            "the command socket /run/orlo/tarnikd.sock is already open in this process: close it "
            "first");
  EXPECT_EQ(OrloCmdFd(), fd);
  EXPECT_TRUE(fs::is_socket(kPath));
}

TEST_F(CommandOpen, RefusesASecondInstance) {
  Pipe ready;
  Pipe done;
  Process other = startChild([&] {
    EXPECT_EQ(opened(), "no error");
    EXPECT_EQ(write(ready.writer(), "x", 1), 1);
    done.readAll();
    OrloCmdFini();
  });
  char byte = 0;
  ASSERT_EQ(read(ready.reader(), &byte, 1), 1);
  EXPECT_EQ(opened(), "another tarnikd runs and holds /run/orlo/tarnikd.lock: stop it first");
  EXPECT_EQ(OrloCmdFd(), -1);
  OrloCmdFini();  // must not remove the other instance's file
  EXPECT_TRUE(fs::is_socket(kPath));
  EXPECT_EQ(opened("another"), "no error");
  OrloCmdFini();
  done.closeWriter();
  EXPECT_EQ(other.wait(), kSucceeded);
  EXPECT_FALSE(fs::exists(kPath));
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, AdmitsOneOfManyInstances) {
  leaveStaleSocket();
  Pipe opening;
  Pipe done;
  std::deque<Process> children;
  for (int i = 0; i < 16; ++i) {
    children.emplace_back([&] {
      const bool in = OrloCmdInit("tarnikd", 0) == 0;
      EXPECT_EQ(write(opening.writer(), in ? "1" : "0", 1), 1);
      opening.closeWriter();
      done.readAll();
      return 0;
    });
  }
  std::string results = opening.readAll();
  EXPECT_EQ(results.size(), 16u);
  EXPECT_EQ(std::count(results.begin(), results.end(), '1'), 1);
  done.closeWriter();
  for (Process& child : children) {
    EXPECT_EQ(child.wait(), kSucceeded);
  }
}

TEST_F(CommandOpen, RefusesASocketWithAnotherListener) {
  tarnik::OwnedFd other = boundSocket(kPath);
  EXPECT_EQ(opened(), "another process listens on /run/orlo/tarnikd.sock: stop it first");
  EXPECT_TRUE(fs::is_socket(kPath));
  other.reset();
  EXPECT_EQ(opened(), "no error");
}

TEST_F(CommandOpen, KeepsAFileThatIsNotASocket) {
  std::ofstream(kPath) << "precious";
  EXPECT_EQ(opened(), "/run/orlo/tarnikd.sock is in the way and no socket: remove it");
  EXPECT_EQ(fs::file_size(kPath), 8u);
}

TEST_F(CommandOpen, RefusesABadName) {
  const std::string longest(64, 'n');
  for (const char* name : {"", "a/b", "..", ".hidden", "a b", "a\n"}) {
    EXPECT_EQ(opened(name), "'" + std::string(name) +
                                "' cannot name a command socket: use 1 to 64 letters, digits, "
                                "'.', '_' or '-'");
  }
  EXPECT_NE(OrloCmdInit((longest + "n").c_str(), 0), 0);
  EXPECT_NE(OrloCmdInit(nullptr, 0), 0);
  EXPECT_EQ(opened(longest.c_str()), "no error");
}

struct StepCase {
  const char* call;
  int error;
  const char* text;
};

TEST_F(CommandOpen, ReportsTheFailedStep) {
  constexpr StepCase kSteps[] = {
      {"flock", ENOLCK, "cannot open /run/orlo/tarnikd.lock: No locks available"},
      {"unlink", EACCES,
       "cannot remove the stale socket /run/orlo/tarnikd.sock: Permission denied"},
      {"socket", EMFILE, "cannot create a socket for /run/orlo/tarnikd.sock: Too many open files"},
      {"bind", ENOSPC, "cannot bind /run/orlo/tarnikd.sock: No space left on device"},
  };
  for (const StepCase& step : kSteps) {
    leaveStaleSocket();
    failing = {step.call, step.error};
    EXPECT_EQ(opened(), step.text);
    failing = {};
    EXPECT_EQ(OrloCmdFd(), -1);
    EXPECT_EQ(opened(), "no error") << "after " << step.call;
    OrloCmdFini();
  }
}

TEST_F(CommandOpen, ReportsWhyTheDirectoryCannotBeCreated) {
  fs::remove_all(ORLO_RUN_DIR);
  failing = {"mkdir", EACCES};
  EXPECT_EQ(opened(), "cannot create /run/orlo: Permission denied");
  effectiveUser = 1000;
  EXPECT_EQ(opened(), "cannot create /run/orlo: Permission denied (run as root)");
  failing = {"mkdir", EROFS};
  EXPECT_EQ(opened(), "cannot create /run/orlo: Read-only file system");
  failing = {};
  std::ofstream(ORLO_RUN_DIR) << "no directory";
  EXPECT_EQ(opened(), "cannot create /run/orlo: Not a directory");
}

TEST_F(CommandOpen, FollowsNoLinkToALockFile) {
  fs::create_symlink("/tmp/elsewhere", kLockPath);
  EXPECT_EQ(opened(), "cannot open /run/orlo/tarnikd.lock: Too many levels of symbolic links");
  EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
}

}  // namespace
}  // namespace orlo::test
