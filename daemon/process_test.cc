// The real daemon: starting, signals, reloading, stopping.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "daemon/testing/daemon_process.h"

namespace tarnik::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

namespace fs = std::filesystem;

constexpr char kConfig[] = "/etc/tarnik.conf";

// The lines of the main thread. The capture thread, which finds no driver here, logs others.
std::vector<std::string> ownLines(std::vector<std::string> lines) {
  std::erase_if(lines, [](const std::string& line) {
    return line.find("onReload") == std::string::npos && line.find("Daemon") == std::string::npos &&
           line.find("Event: ") == std::string::npos &&
           line.find("onTerminate") == std::string::npos &&
           line.find("onRestart") == std::string::npos &&
           line.find("exit status") == std::string::npos;
  });
  return lines;
}

class ProcessTest : public ::testing::Test {
 protected:
  ProcessTest() {
    prepareRoot();
    writeFile(kConfig, "tarnik.debuglevel = 1\n");
  }
};

// A daemon that answers.
struct Running : DaemonProcess {
  Running() { waitFor("Daemon started"); }
};

TEST_F(ProcessTest, StartsAndStops) {
  Running daemon;
  EXPECT_EQ(daemonState(), 2);
  EXPECT_TRUE(fs::is_socket("/run/orlo/tarnikd.sock"));
  EXPECT_EQ(daemon.stop(), kSucceeded);
  EXPECT_FALSE(fs::exists("/run/orlo/tarnikd.sock"));
  EXPECT_THAT(
      ownLines(daemon.log()),
      ElementsAre("onReload: Reloading", "Debug: tarnikd Daemon started",
                  "onTerminate: Received SIGTERM, exiting", "Debug: tarnikd Daemon stopping...",
                  "Debug: tarnikd Daemon stopped", "Debug: tarnikd: exit status=0"));
}

TEST_F(ProcessTest, ExitStatusBySignal) {
  const struct {
    int signal;
    int status;
    const char* line;
  } cases[] = {
      {SIGTERM, 0, "onTerminate: Received SIGTERM, exiting"},
      {SIGQUIT, 0, "onTerminate: Received SIGTERM, exiting"},
      {SIGINT, 0, "onTerminate: Received SIGTERM, exiting"},
      {SIGUSR1, 2, "onRestart: Restarting"},
  };
  for (const auto& [signal, status, line] : cases) {
    Running daemon;
    daemon.signal(signal);
    EXPECT_EQ(daemon.wait(), exited(status)) << signal;
    EXPECT_THAT(daemon.log(), Contains(line));
    EXPECT_EQ(daemon.log().back(), "Debug: tarnikd: exit status=" + std::to_string(status));
  }
}

TEST_F(ProcessTest, HangupReloadsAndRegeneratesTheTemplates) {
  Running daemon;
  writeFile("/var/support/tarnik/template.old", "");
  writeFile("/etc/ips.conf", "ips.responses.object.one=tarnik:x\n");
  daemon.mark();
  daemon.signal(SIGHUP);
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  EXPECT_THAT(ownLines(daemon.newLog()),
              ElementsAre("onReload: Reloading", "Debug: tarnikd Daemon configuration reloading",
                          "Debug: tarnikd Daemon started"));
  EXPECT_FALSE(fs::exists("/var/support/tarnik/template.old"));
  EXPECT_TRUE(fs::exists("/var/support/tarnik/template.ips"));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

TEST_F(ProcessTest, AnInvalidReloadLeavesItRunningInStateSeven) {
  Running daemon;
  writeFile(kConfig, "tarnik.debuglevel=0\ntarnik.file.maxsize=1023\n");
  daemon.mark();
  daemon.signal(SIGHUP);
  ASSERT_TRUE(daemon.waitFor("configuration invalid"));
  EXPECT_THAT(
      ownLines(daemon.newLog()),
      ElementsAre("onReload: Reloading", "Debug: tarnikd Daemon configuration reloading",
                  "Error: onReload: Failed to reload base configuration",
                  "Event: VRK_events: VRKUA0006E", "Error: tarnikd Daemon configuration invalid"));
  EXPECT_THAT(daemon.newLog(), Contains("Error: loadTarnikCfg: Invalid value: maxsize=1023"));
  EXPECT_EQ(daemonState(), 7);
  writeFile(kConfig, "tarnik.debuglevel=1\n");
  daemon.signal(SIGHUP);
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

TEST_F(ProcessTest, AReloadRequestAndAHangupTogether) {
  Running daemon;
  daemon.mark();
  const Client client;
  daemon.signal(SIGSTOP);
  client.send(Message{.type = 1}.bytes());
  daemon.signal(SIGHUP);
  daemon.signal(SIGCONT);
  EXPECT_TRUE(client.receive().has_value());
  EXPECT_TRUE(daemon.waitFor("Daemon started", 2));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

// Meanwhile the reload runs a command. A large policy makes the reload last longer.
TEST_F(ProcessTest, ASignalDuringAReloadIsNotLost) {
  std::string policy;
  for (int line = 0; line < 20000; ++line) {
    policy += "ips.rule.name." + std::to_string(line) + " = value\n";
  }
  writeFile("/etc/ips.conf", policy);
  const struct {
    int signal;
    int status;
  } cases[] = {{SIGINT, 0}, {SIGQUIT, 0}, {SIGTERM, 0}, {SIGUSR1, 2}};
  for (int trial = 0; trial < 20; ++trial) {
    const auto& [signal, status] = cases[trial % 4];
    Running daemon;
    daemon.signal(SIGHUP);
    daemon.signal(signal);
    ASSERT_TRUE(eventually([&] { return !daemon.running(); }, std::chrono::seconds(10)))
        << "signal " << signal << " in trial " << trial;
    EXPECT_EQ(daemon.wait(), exited(status));
  }
}

TEST_F(ProcessTest, ASignalDuringTheStartIsNotLost) {
  for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.waitFor("onReload: Reloading"));
    daemon.signal(signal);
    EXPECT_EQ(daemon.wait(), kSucceeded) << signal;
  }
}

TEST_F(ProcessTest, ARestartAndATerminationTogetherRestart) {
  Running daemon;
  daemon.signal(SIGSTOP);
  daemon.signal(SIGTERM);
  daemon.signal(SIGUSR1);
  daemon.signal(SIGCONT);
  EXPECT_EQ(daemon.wait(), exited(2));
}

TEST_F(ProcessTest, ASecondOneIsRefused) {
  Running daemon;
  DaemonProcess second;
  EXPECT_EQ(second.wait(), exited(1));
  const std::vector<std::string> log = second.log();
  ASSERT_EQ(log.size(), 3U);
  EXPECT_EQ(log[0], "Event: VRK_events: VRKUA0007E");
  EXPECT_EQ(log[1], "Error: tarnikd Daemon failed to start");
  EXPECT_THAT(log[2], ::testing::StartsWith(
                          "Fatal error: main: Failed to create command interface: another "
                          "tarnikd runs"));
  int registered = 0;
  std::ifstream("/run/orlo/tarnikd.pid") >> registered;
  EXPECT_EQ(registered, daemon.pid());
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

TEST_F(ProcessTest, RefusedCommandLine) {
  DaemonProcess daemon({"-D", "--help"});
  EXPECT_EQ(daemon.wait(), exited(1));
  EXPECT_THAT(daemon.log(), ElementsAre("Usage: tarnikd [-D] [--nodaemon] [-v] [--verbose]"));
}

TEST_F(ProcessTest, DetachesAndServes) {
  DaemonProcess launcher{std::vector<std::string>()};
  EXPECT_EQ(launcher.wait(), kSucceeded);
  int pid = 0;
  std::ifstream("/run/orlo/tarnikd.pid") >> pid;
  ASSERT_GT(pid, 1);
  EXPECT_TRUE(eventually([] { return fs::exists("/run/orlo/tarnikd.sock"); }));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_NE(::getsid(pid), ::getsid(0));
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  EXPECT_TRUE(eventually([] { return !fs::exists("/run/orlo/tarnikd.sock"); }));
  EXPECT_THAT(launcher.log(), ::testing::IsEmpty());
}

// ---- bad configuration files

class BadConfigurationTest : public ProcessTest {
 protected:
  BadConfigurationTest() { fs::remove(kConfig); }

  // A start fails, and a running daemon continues.
  static void refused(int error) {
    const std::string unreadable =
        "Error: load: Failed to open: /etc/tarnik.conf, errno=" + std::to_string(error);
    DaemonProcess failing;
    EXPECT_EQ(failing.wait(), exited(1));
    EXPECT_THAT(
        failing.log(),
        ElementsAre("onReload: Reloading", unreadable,
                    "Error: onReload: Failed to reload base configuration",
                    "Event: VRK_events: VRKUA0006E", "Error: tarnikd Daemon configuration invalid",
                    "Fatal error: tarnikd: Failed to load the configuration"));
    EXPECT_TRUE(fs::is_socket("/run/orlo/tarnikd.sock")) << "nothing is undone";
    const fs::path aside = "/etc/tarnik.conf.aside";
    if (fs::exists(kConfig)) {
      fs::rename(kConfig, aside);
    }
    writeFile(kConfig, "tarnik.debuglevel=1\n");
    Running daemon;
    fs::remove(kConfig);
    if (fs::exists(aside)) {
      fs::rename(aside, kConfig);
    }
    daemon.signal(SIGHUP);
    EXPECT_TRUE(daemon.waitFor("Debug: load: Failed to open config: /etc/tarnik.conf"));
    EXPECT_EQ(daemonState(), 7);
    EXPECT_EQ(daemon.stop(), kSucceeded);
  }
};

TEST_F(BadConfigurationTest, OnlyARegularFileIsRead) {
  const struct {
    const char* what;
    int error;
    std::function<void()> make;
  } cases[] = {
      {"nothing", ENOENT, [] {}},
      {"directory", EISDIR, [] { fs::create_directory(kConfig); }},
      {"pipe that nobody writes", EINVAL, [] { ASSERT_EQ(::mkfifo(kConfig, 0644), 0); }},
      {"device", EINVAL, [] { fs::create_symlink("/dev/zero", kConfig); }},
  };
  for (const auto& [what, error, make] : cases) {
    SCOPED_TRACE(what);
    fs::remove_all(kConfig);
    make();
    refused(error);
  }
}

// Lines without a setting are skipped, however long they are.
TEST_F(BadConfigurationTest, OneGibibyteOfOneLine) {
  writeFile(kConfig, "tarnik.file.maxno=20\n");
  fs::resize_file(kConfig, 1UL << 30);
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.waitFor("onReload: Reloading"));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
  EXPECT_LT(daemon.usage().ru_maxrss, 512 * 1024) << "KiB";
}

}  // namespace
}  // namespace tarnik::test
