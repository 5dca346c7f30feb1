// The real daemon and its watchdog. With thousands of captures open on the real queue and the
// preloaded driver, closing them takes longer than the watchdog waits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "daemon/testing/daemon_process.h"
#include "frameq/tarnik_if.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::duration;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char kDirectory[] = "/var/support/tarnik";
constexpr unsigned kPool = 20000;  // frames that the driver has
constexpr seconds kWatchdog{4};    // longer than the three seconds between two tickles
constexpr seconds kClosing{10};    // what closing should take

// So many captures that closing them takes kClosing, at least 4000. Nearly all of that time is the
// shell's copy of a template, so one copy is measured.
unsigned captureCount() {
  writeFile("/tmp/template", "text");
  std::array<duration<double>, 31> copies{};
  for (duration<double>& copy : copies) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(std::system("cp /tmp/template /tmp/copy"), 0);
    copy = steady_clock::now() - begin;
  }
  std::ranges::sort(copies);
  rlimit files{};
  EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  const auto most = std::min<rlim_t>(kPool, files.rlim_max) - 100;
  const auto enough = static_cast<rlim_t>(kClosing / copies[copies.size() / 2]);
  return static_cast<unsigned>(std::min(most, std::max<rlim_t>(enough, 4000)));
}

struct Files {
  unsigned captures = 0;
  unsigned infos = 0;
  unsigned open = 0;
};
Files files() {
  Files result;
  for (const auto& entry : fs::directory_iterator(kDirectory)) {
    const fs::path path = entry.path();
    if (path.extension() == ".pcap") {
      ++result.captures;
    } else if (path.extension() == ".info") {
      ++result.infos;
    } else if (path.stem() != "template") {
      ++result.open;
    }
  }
  return result;
}

class ShutdownTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(kDirectory);
    fs::create_directories(kDirectory);
    writeFile("/etc/ips.conf", "ips.responses.object.one=tarnik:x\n");
    writeFile("/etc/acl.conf", "");
    writeFile("/etc/issues.csv", "70000,web\n");
    writeFile("/etc/tarnik.conf",
              "tarnik.debuglevel=1\ntarnik.file.maxno=20000\n"
              "tarnik.diskspace.bytes=17179869184\ntarnik.file.timeout=3000\n");
    ASSERT_EQ(zorlib_ifg_open("brund", &group_), 0);
    ASSERT_EQ(TarnikIfQInit2(group_, kPool), 0);
    ASSERT_EQ(TarnikIfgOpen(), 0);
  }
  void TearDown() override { EXPECT_EQ(TarnikIfQFini(), 0); }

  // Sends the daemon the metadata and one frame of each capture.
  void feed(unsigned captures) const {
    const Client client;
    TarnikQ* const queue = TarnikIfCreate();
    ASSERT_EQ(queue->Open(TarnikQ::kEgress), 0);
    for (unsigned id = 1; id <= captures; ++id) {
      Bytes payload(20);
      for (unsigned byte = 0; byte < 4; ++byte) {
        payload[byte] = static_cast<std::uint8_t>(id >> 8 * byte);
        payload[16 + byte] = static_cast<std::uint8_t>(70000U >> 8 * byte);
      }
      ASSERT_NO_FATAL_FAILURE(
          client.send(Message{.type = 4, .length = 39, .payload = payload}.bytes()));
      zorvik_frm_desc* frame = nullptr;
      ASSERT_EQ(zorlib_batch_alloc(group_, 60, &frame, 1), 1);
      frame->wire_len = 60;
      frame->cap_len = 60;
      frame->frame_size = 60;
      ASSERT_EQ(queue->WritePkt(frame, id, 0), 0);
    }
    EXPECT_EQ(queue->Close(), 0);
    TarnikIfDestroy(queue);
  }

  static void awaitOpen(unsigned captures) {
    ASSERT_TRUE(eventually([&] { return files().open >= captures; }, seconds(200)));
  }

  zorlib_ifg* group_ = nullptr;
};

TEST_F(ShutdownTest, ClosesEveryCaptureHoweverLongThatTakes) {
  const unsigned captures = captureCount();
  DaemonProcess daemon({"-D", "-w", std::to_string(kWatchdog.count()), "-p", "/etc"});
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  ASSERT_NO_FATAL_FAILURE(feed(captures));
  ASSERT_NO_FATAL_FAILURE(awaitOpen(captures));
  daemon.mark();
  const auto begin = steady_clock::now();
  EXPECT_EQ(daemon.stop(), kSucceeded);
  const auto took = steady_clock::now() - begin;
  const Files left = files();
  EXPECT_EQ(left.captures, captures);
  EXPECT_EQ(left.infos, captures);
  EXPECT_EQ(left.open, 0U);
  EXPECT_EQ(daemon.newLog().back(), "Debug: tarnikd: exit status=0");
  // The watchdog ends a daemon within a second after its time.
  if (took < kWatchdog + seconds(1)) {
    GTEST_SKIP() << captures << " captures, the most that may be open here, are closed too quickly";
  }
}

// A child process of the daemon that hangs while captures are closed must not hang the daemon.
TEST_F(ShutdownTest, TheWatchdogEndsADaemonWhoseChildHangs) {
  constexpr char kHungCp[] = "/tmp/bin/cp";
  fs::create_directories(fs::path(kHungCp).parent_path());
  writeFile(kHungCp, "#!/bin/sh\necho $$ > /tmp/hung\nexec sleep 1000\n");
  fs::permissions(kHungCp, fs::perms::all);
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
  DaemonProcess daemon({"-D", "-w", "5", "-p", "/etc"});
  ::setenv("PATH", path.c_str(), 1);
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  ASSERT_NO_FATAL_FAILURE(feed(3));
  ASSERT_NO_FATAL_FAILURE(awaitOpen(3));
  const auto begin = steady_clock::now();
  daemon.signal(SIGTERM);
  const Ending ending = daemon.wait();
  EXPECT_EQ(ending, killedBy(SIGABRT));
  EXPECT_LT(steady_clock::now() - begin, seconds(30));
  EXPECT_THAT(daemon.errors(), ::testing::HasSubstr("Watchdog: no sign of life for 6 seconds"));
  const int hung = std::stoi(readFile("/tmp/hung").value_or("0"));
  ASSERT_GT(hung, 1);
  ::kill(hung, SIGKILL);
}

// Captures that get no memory are refused. The daemon records again when there is memory.
TEST_F(ShutdownTest, OutOfMemoryRefusesCaptures) {
#ifdef __has_feature
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "a sanitizer does not work with limited memory";
#endif
#endif
  // One arena: the address space of another one is reserved, so the limit would not matter.
  DaemonProcess daemon({"-D", "-p", "/etc"}, {"MALLOC_ARENA_MAX=1"});
  ASSERT_TRUE(daemon.waitFor("Daemon started"));
  ASSERT_NO_FATAL_FAILURE(feed(1));
  ASSERT_NO_FATAL_FAILURE(awaitOpen(1));
  rlim_t pages = 0;
  std::ifstream("/proc/" + std::to_string(daemon.pid()) + "/statm") >> pages;
  rlimit before{};
  ASSERT_EQ(::prlimit(daemon.pid(), RLIMIT_AS, nullptr, &before), 0);
  const rlimit limit{pages * 4096 + (1U << 20U), before.rlim_max};
  ASSERT_EQ(::prlimit(daemon.pid(), RLIMIT_AS, &limit, nullptr), 0);
  ASSERT_NO_FATAL_FAILURE(feed(200));
  EXPECT_TRUE(daemon.waitFor("Error: ConsumeFrame: Open ["));
  ASSERT_EQ(::prlimit(daemon.pid(), RLIMIT_AS, &before, nullptr), 0);
  ASSERT_NO_FATAL_FAILURE(feed(200));
  ASSERT_NO_FATAL_FAILURE(awaitOpen(200));
  EXPECT_EQ(daemon.stop(), kSucceeded);
  EXPECT_EQ(files().captures, 200U);
}

// Without tickles the watchdog would end the daemon after five seconds.
TEST(WatchdogTest, TicklesKeepTheDaemonAlive) {
  for (const char* policy : {"/etc/ips.conf", "/etc/acl.conf"}) {
    writeFile(policy, "");
  }
  writeFile("/etc/tarnik.conf", "tarnik.debuglevel=1\n");
  DaemonProcess daemon({"-D", "-w", std::to_string(kWatchdog.count())});
  EXPECT_TRUE(daemon.waitFor("Debug: onTimeout: tickle watchdog", 2));
  EXPECT_EQ(daemonState(), 2);
  EXPECT_EQ(daemon.stop(), kSucceeded);
}

}  // namespace
}  // namespace tarnik::test
