// The command line, and the commands for the daemon: against the real daemon where possible.
#include "tools/tarnikctl/testing/tarnikctl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/testing/daemon_process.h"

namespace tarnik::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace fs = std::filesystem;

sockaddr_un addressOf(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

TEST(TarnikctlUsage, PrintsHelpAndVersion) {
  const std::string help = outputOf("--help");
  for (const char* word : {"reload", "state", "dump", "metadata", "stats", "list", "--socket",
                           "--timeout", "/run/orlo/tarnikd.sock", "Exit status"}) {
    EXPECT_THAT(help, HasSubstr(word));
  }
  EXPECT_THAT(outputOf("stats --help"), HasSubstr("--prometheus"));
  EXPECT_THAT(outputOf("--version"), MatchesRegex("tarnikctl [0-9.]+\n"));
}

TEST(TarnikctlUsage, RefusesWrongUsage) {
  for (const char* arguments : {"", "nonsense", "state now", "list a b", "metadata 1 2",
                                "state --json", "stats --json --prometheus", "--socket"}) {
    expectError(arguments, 2, "tarnikctl --help");
  }
}

TEST(TarnikctlUsage, RefusesNumbersOutOfRange) {
  for (const char* number : {"-2", "x", "0x", "010", "18446744073709551616"}) {
    expectError("metadata 1 " + std::string(number) + " 3", 2,
                "flow: '" + std::string(number) + "' is not a number");
  }
  expectError("metadata 1 2 4294967296", 2, "from 0 to 4294967295");
  for (const char* seconds : {"0", "-1", "1s", "nan", "86401"}) {
    expectError("--timeout " + std::string(seconds) + " state", 2, "is not a number of seconds");
  }
}

TEST(TarnikctlUsage, FailsWhenTheOutputCannotBeWritten) {
  fs::create_directories("/var/support/tarnik");
  for (const char* arguments : {"--help", "--version", "list"}) {
    const std::string command = TARNIKCTL_PATH + (" " + std::string(arguments)) + " >/dev/full";
    expectError(runProgram({"sh", "-c", command}), 1, "cannot write the output: No space left");
  }
}

TEST(TarnikctlCommands, RefusesASocketPathThatIsTooLong) {
  expectError("--socket /tmp/" + std::string(100, 'n') + " state", 2, "too long");
}

TEST(TarnikctlCommands, FailsWithoutADaemon) {
  for (const char* arguments : {"reload", "state", "dump", "metadata 1 2 3"}) {
    expectError(arguments, 3, "no daemon at /run/orlo/tarnikd.sock: ");
  }
  expectError(runProgram({TARNIKCTL_PATH, "--socket", "a\nb", "state"}), 3, "no daemon at a?b: ");
  fs::remove_all(ORLO_STATS_DIR);
  expectError("stats", 3, "no statistics at ");
}

class TarnikctlWithDaemon : public ::testing::Test {
 protected:
  TarnikctlWithDaemon() {
    prepareRoot();
    writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 1\n");
    daemon_.emplace();
    EXPECT_TRUE(daemon_->waitFor("Daemon started"));
  }
  ~TarnikctlWithDaemon() override {
    if (daemon_) {
      EXPECT_EQ(daemon_->stop(), kSucceeded);
    }
  }

  std::optional<DaemonProcess> daemon_;
};

TEST_F(TarnikctlWithDaemon, SendsEachCommand) {
  EXPECT_EQ(outputOf("state"), "started\n");

  daemon_->mark();
  EXPECT_EQ(outputOf("reload"), "");
  EXPECT_TRUE(daemon_->waitFor("Daemon started"));

  daemon_->mark();
  EXPECT_EQ(outputOf("metadata 0x0102030405060708 18446744073709551615 65539"), "");
  EXPECT_EQ(outputOf("dump"), "");
  EXPECT_TRUE(daemon_->waitFor("0x102030405060708: 0xffffffffffffffff 0x10003"));
  EXPECT_THAT(daemon_->newLog(), Contains("tarnik.file.maxno=1000"));

  for (const auto& entry : fs::directory_iterator("/run/orlo")) {
    EXPECT_EQ(entry.path().string().find(".client."), std::string::npos) << entry.path();
  }
  expectError("--socket /run/orlo/other.sock state", 3, "no daemon at");
}

TEST_F(TarnikctlWithDaemon, SaysThatAReloadFailed) {
  writeFile("/etc/tarnik.conf", "tarnik.file.maxno = 9\n");
  expectError(
      "reload", 1,
      "the reload failed (status 12): the new configuration is in force only in part or not at "
      "all; the daemon's log names the cause");
  EXPECT_EQ(outputOf("state"), "configuration invalid\n");
}

TEST_F(TarnikctlWithDaemon, GivesUpOnADaemonThatDoesNotAnswer) {
  daemon_->signal(SIGSTOP);
  expectError("--timeout 0.2 state", 1, "no answer within 0.2 seconds");
  daemon_->signal(SIGCONT);
  EXPECT_EQ(outputOf("state"), "started\n");
  EXPECT_EQ(daemon_->stop(), kSucceeded);
  daemon_.reset();
  expectError("state", 3, "no daemon at");
}

TEST_F(TarnikctlWithDaemon, GivesUpWhenTheQueueOfTheSocketIsFull) {
  daemon_->signal(SIGSTOP);
  const OwnedFd filler(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address = addressOf("/run/orlo/tarnikd.sock");
  while (::sendto(filler.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == 1) {
  }
  for (const char* timeout : {"0.2", "0.000000001"}) {
    expectError("--timeout " + std::string(timeout) + " dump", 1, "does not read its commands");
  }
  daemon_->signal(SIGCONT);
}

TEST(TarnikctlCommands, IgnoresResponsesToOtherRequests) {
  const sockaddr_un address = addressOf("/tmp/answering.sock");
  const OwnedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  Process asking(tarnikctlCommand("--socket /tmp/answering.sock state"));
  Bytes response(23);
  sockaddr_un client{};
  socklen_t length = sizeof client;
  ASSERT_EQ(::recvfrom(socket.get(), response.data(), response.size(), 0,
                       reinterpret_cast<sockaddr*>(&client), &length),
            19);
  EXPECT_EQ(response[17], 2);
  EXPECT_EQ(response[18], 1);
  response[3] = 23;
  response[18] = 2;
  response[21] = 7;
  const auto answer = [&](const Bytes& bytes) {
    EXPECT_EQ(::sendto(socket.get(), bytes.data(), bytes.size(), 0,
                       reinterpret_cast<const sockaddr*>(&client), length),
              static_cast<ssize_t>(bytes.size()));
  };
  for (const std::size_t offset : {1U, 3U, 4U, 11U, 17U, 18U}) {
    Bytes wrong = response;
    wrong[offset] ^= 4;
    answer(wrong);
  }
  answer(resized(response, 22));
  answer(resized(response, 24));
  answer({});
  response[21] = 3;
  answer(response);
  EXPECT_EQ(asking.wait(), kSucceeded);
  EXPECT_EQ(asking.output(), "stopping\n");
  ::unlink("/tmp/answering.sock");
}

}  // namespace
}  // namespace tarnik::test
