// tarnikctl as a person runs it, against the real daemon where it needs one.
#include "tools/tarnikctl/testing/tarnikctl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
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

TEST(TarnikctlUsage, HelpAndVersion) {
  const Outcome help = tarnikctl("--help");
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"reload", "state", "dump", "metadata", "stats", "list", "--socket",
                           "--timeout", "--prometheus", "Exit status"}) {
    EXPECT_THAT(help.output, HasSubstr(word));
  }
  const Outcome version = tarnikctl("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, MatchesRegex("tarnikctl [0-9.]+\n"));
}

TEST(TarnikctlUsage, WhatIsNotUnderstood) {
  for (const char* arguments :
       {"", "nonsense", "state now", "list a b", "metadata 1 2", "metadata 1 2 3 4", "state --json",
        "stats --json --prometheus", "metadata 1 -2 3", "--nonsense", "--socket", "reload --watch",
        "list --prometheus"}) {
    expectOneLine(tarnikctl(arguments), 2, "tarnikctl --help");
  }
  for (const char* arguments : {"metadata x 2 3", "metadata 1 2 4294967296", "metadata 0x 2 3",
                                "metadata 18446744073709551616 2 3"}) {
    expectOneLine(tarnikctl(arguments), 2, "three numbers");
  }
  for (const char* arguments :
       {"--timeout 0 state", "--timeout -1 state", "--timeout 1s state", "--timeout nan state"}) {
    expectOneLine(tarnikctl(arguments), 2, "--timeout takes seconds");
  }
}

TEST(TarnikctlUsage, OutputThatCannotBeWritten) {
  for (const char* arguments : {"--help", "--version", "list"}) {
    fs::create_directories("/var/support/tarnik");
    const std::string redirected = std::string(arguments) +
                                   " 2>/tmp/complaint >/dev/full; status=$?;"
                                   " cat /tmp/complaint; exit $status;";
    expectOneLine(tarnikctl(redirected), 1, "cannot write the output: No space left");
  }
}

TEST(TarnikctlUsage, PathsThatCannotBe) {
  expectOneLine(tarnikctl("--socket /tmp/" + std::string(100, 'n') + " state"), 2,
                "too long for a socket's path");
  expectOneLine(tarnikctl("--socket \"$(printf 'a\\nb')\" state"), 3, "no daemon at a?b: ");
}

TEST(TarnikctlCommands, WithoutADaemon) {
  for (const char* arguments : {"reload", "state", "dump", "metadata 1 2 3"}) {
    expectOneLine(tarnikctl(arguments), 3, "is tarnikd running");
  }
  fs::remove_all(ORLO_STATS_DIR);
  expectOneLine(tarnikctl("stats"), 3, "no statistics");
}

TEST(TarnikctlCommands, WithADaemon) {
  prepareRoot();
  writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 1\n");
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.waitFor("Daemon started"));

  Outcome run = tarnikctl("state");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "started\n");

  daemon.mark();
  run = tarnikctl("reload");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output, "");
  EXPECT_TRUE(daemon.waitFor("Daemon started"));

  daemon.mark();
  EXPECT_EQ(tarnikctl("metadata 0x0102030405060708 18446744073709551615 65539").status, 0);
  EXPECT_EQ(tarnikctl("dump").status, 0);
  EXPECT_TRUE(daemon.waitFor("0x102030405060708: 0xffffffffffffffff 0x10003"));
  EXPECT_THAT(daemon.newLog(), Contains("tarnik.file.maxno=1000"));

  writeFile("/etc/tarnik.conf", "tarnik.file.maxno = 9\n");
  expectOneLine(tarnikctl("reload"), 1, "could not load its configuration (status 12)");
  EXPECT_EQ(tarnikctl("state").output, "configuration invalid\n");

  for (const auto& entry : fs::directory_iterator("/run/orlo")) {
    EXPECT_EQ(entry.path().string().find(".client."), std::string::npos) << entry.path();
  }
  EXPECT_EQ(tarnikctl("--socket /run/orlo/other.sock state").status, 3);
  EXPECT_EQ(daemon.stop(), kSucceeded);
  EXPECT_EQ(tarnikctl("state").status, 3);
}

TEST(TarnikctlCommands, ADaemonThatHangs) {
  prepareRoot();
  writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 1\n");
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  daemon.signal(SIGSTOP);
  expectOneLine(tarnikctl("--timeout 0.2 state"), 1, "no answer within 0.2 seconds");
  daemon.signal(SIGCONT);
  EXPECT_EQ(tarnikctl("state").output, "started\n");
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

TEST(TarnikctlCommands, ADaemonWhoseQueueIsFull) {
  prepareRoot();
  writeFile("/etc/tarnik.conf", "tarnik.debuglevel = 1\n");
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  daemon.signal(SIGSTOP);
  const OwnedFd filler(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address = addressOf("/run/orlo/tarnikd.sock");
  while (::sendto(filler.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == 1) {
  }
  for (const char* timeout : {"0.2", "0.000000001"}) {
    expectOneLine(tarnikctl(std::string("--timeout ") + timeout + " dump"), 1,
                  "takes no more commands");
  }
  daemon.signal(SIGCONT);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

// Only the response to its own question counts.
TEST(TarnikctlCommands, ADaemonThatAnswersWrongly) {
  const sockaddr_un address = addressOf("/tmp/answering.sock");
  const OwnedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  std::FILE* pipe = ::popen(TARNIKCTL_PATH " --socket /tmp/answering.sock state", "r");
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
  std::array<char, 64> line{};
  EXPECT_NE(std::fgets(line.data(), line.size(), pipe), nullptr);
  EXPECT_STREQ(line.data(), "stopping\n");
  EXPECT_EQ(::pclose(pipe), 0);
  ::unlink("/tmp/answering.sock");
}

}  // namespace
}  // namespace tarnik::test
