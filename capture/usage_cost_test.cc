// What a measurement costs, and what it falls back to where the kernel does not tell what changed.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/owned.h"
#include "base/testing/counted_memory.h"
#include "capture/testing/files.h"
#include "capture/testing/usage.h"

namespace {

std::atomic<int> calls = 0;  // system calls of a measurement
int watchesLeft = -1;        // so many more can be had, or no limit
bool noNotifications = false;
std::string onOtherMachine;  // the path whose file system is another machine's

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

// The look whether anything changed.
long syscall(long number, ...) noexcept {
  static auto* const real = next(&syscall, "syscall");
  va_list list;
  va_start(list, number);
  std::array<long, 6> arguments{};
  for (long& argument : arguments) {
    argument = va_arg(list, long);
  }
  va_end(list);
  calls += number == SYS_epoll_pwait ? 1 : 0;
  const auto [a, b, c, d, e, f] = arguments;
  return real(number, a, b, c, d, e, f);
}

ssize_t read(int fd, void* data, std::size_t size) {
  static auto* const real = next(&read, "read");
  ++calls;
  return real(fd, data, size);
}

int stat(const char* path, struct stat* status) {
  static auto* const real = next(&stat, "stat");
  ++calls;
  return real(path, status);
}

int lstat(const char* path, struct stat* status) {
  static auto* const real = next(&lstat, "lstat");
  ++calls;
  return real(path, status);
}

int statfs(const char* path, struct statfs* status) {
  static auto* const real = next(&statfs, "statfs");
  const int result = real(path, status);
  if (path == onOtherMachine) {
    status->f_type = NFS_SUPER_MAGIC;
  }
  return result;
}

int inotify_init1(int flags) {
  static auto* const real = next(&inotify_init1, "inotify_init1");
  ++calls;
  if (noNotifications) {
    errno = EMFILE;
    return -1;
  }
  return real(flags);
}

int inotify_add_watch(int fd, const char* path, std::uint32_t mask) {
  static auto* const real = next(&inotify_add_watch, "inotify_add_watch");
  ++calls;
  if (watchesLeft == 0) {
    errno = ENOSPC;
    return -1;
  }
  watchesLeft -= watchesLeft > 0 ? 1 : 0;
  return real(fd, path, mask);
}
}

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;

const std::string kDir = kCaptureDir;

class UsageCostTest : public UsageTest {
 protected:
  ~UsageCostTest() override {
    watchesLeft = -1;
    noNotifications = false;
    onOtherMachine.clear();
  }
  void SetUp() override {
    if (::access("/proc/self/mountinfo", R_OK) != 0) {
      GTEST_SKIP() << "no mount table here, so every measurement is a scan";
    }
  }

  int callsOfUpdate() {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
    calls = 0;
    usage_.update(bytes, files);
    return calls;
  }
};

TEST_F(UsageCostTest, OneCallAndNoMemoryWhenNothingChanged) {
  for (int i = 0; i < 2000; ++i) {
    append(kDir + std::to_string(i) + ".pcap", 1);
  }
  EXPECT_TRUE(agrees(usage_));
  const std::uint64_t before = allocations();
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(callsOfUpdate(), 1);
  }
  EXPECT_EQ(allocations() - before, 0U);
}

TEST_F(UsageCostTest, ThreeCallsAndNoMemoryWhenOneFileGrew) {
  append(kDir + "a.pcap", 10);
  callsOfUpdate();
  const OwnedFd file(::open((kDir + "a.pcap").c_str(), O_WRONLY | O_APPEND));
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(file.get(), "xyz", 3), 3);
    const std::uint64_t before = allocations();
    EXPECT_EQ(callsOfUpdate(), 3);  // news?, which?, how large?
    EXPECT_EQ(allocations() - before, 0U);
    EXPECT_TRUE(agrees(usage_));
  }
}

TEST_F(UsageCostTest, OnlyAFurtherNameInTheDirectoryCostsALook) {
  fs::create_hard_link(kDir + "a.pcap", "/var/other/a");
  append("/var/other/a", 10);
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
  fs::create_hard_link(kDir + "a.pcap", kDir + "c.pcap");
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 2);
}

TEST_F(UsageCostTest, AWayOverLinksCostsNoMore) {
  fs::create_directory("/var/other/place");
  fs::create_directory_symlink("place", "/var/other/link");
  fs::remove_all("/var/support/tarnik");
  fs::create_directory_symlink("../other/./link//", "/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
}

// Of all watches that the process holds.
std::size_t watchesHeld() {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    for (std::string line; std::getline(info, line);) {
      count += line.rfind("inotify wd:", 0) == 0 ? 1 : 0;
    }
  }
  return count;
}

TEST_F(UsageCostTest, FilesThatLeftAreNotWatched) {
  const std::size_t before = watchesHeld();
  ASSERT_GT(before, 2U);
  for (int i = 0; i < 100; ++i) {
    append(kDir + std::to_string(i), 1);
    callsOfUpdate();
    EXPECT_EQ(watchesHeld(), before + 1);
    fs::rename(kDir + std::to_string(i), "/var/other/" + std::to_string(i));
    callsOfUpdate();
    EXPECT_EQ(watchesHeld(), before);
  }
}

TEST_F(UsageCostTest, TheKernelsQueueOverflows) {
  for (int i = 0; i < 20000; ++i) {
    const std::string path = kDir + std::to_string(i);
    writeFile(path, "x");
    if (i % 3 != 0) {
      fs::remove(path);
    }
  }
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
  append(kDir + "0", 100);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageCostTest, WithoutNotificationsItScans) {
  noNotifications = true;
  DiskUsage usage;
  EXPECT_TRUE(agrees(usage));
  append(kDir + "a.pcap", 10);
  fs::create_symlink("nowhere", kDir + "link");
  EXPECT_TRUE(agrees(usage));
  noNotifications = false;
  EXPECT_TRUE(agrees(usage));
  append(kDir + "a.pcap", 10);
  EXPECT_TRUE(agrees(usage));
}

TEST_F(UsageCostTest, WatchesRunOut) {
  watchesLeft = 0;
  writeFile(kDir + "c.pcap", "c");
  writeFile(kDir + "d.pcap", "d");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "c.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::rename(kDir + "c.pcap", kDir + "d.pcap");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "d.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::remove(kDir + "d.pcap");
  EXPECT_TRUE(agrees(usage_));

  for (const int left : {1, 4, 5, 6}) {
    watchesLeft = left;  // too few for the way to the directory, or for its files
    DiskUsage usage;
    EXPECT_TRUE(agrees(usage));
    append(kDir + "a.pcap", 10);
    append(kDir + "b.info", 10);
    EXPECT_TRUE(agrees(usage));
  }
}

TEST_F(UsageCostTest, TheDirectoryOrItsParentOnAnotherMachine) {
  for (const auto& path : {kDir, kDir + "/.."}) {
    SCOPED_TRACE(path);
    onOtherMachine = path;
    usage_ = DiskUsage();
    EXPECT_TRUE(agrees(usage_));
    EXPECT_GT(callsOfUpdate(), 1) << "scanned, though nothing changed";
  }
}

TEST_F(UsageCostTest, AFileSystemOfOtherMachinesIsScanned) {
  fs::remove_all("/var/support/tarnik");
  fs::create_directory_symlink("/proc/self/fdinfo", "/var/support/tarnik");
  EXPECT_GT(callsOfUpdate(), 1);
  EXPECT_GT(callsOfUpdate(), 1);
  fs::remove("/var/support/tarnik");
  fs::create_directory("/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
}

}  // namespace
}  // namespace tarnik::test
