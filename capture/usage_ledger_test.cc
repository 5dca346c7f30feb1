// The ledger stays true whatever happens to the directory, its entries and the way to it.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

#include "base/owned.h"
#include "capture/test_files.h"
#include "capture/usage_check.h"

namespace {

std::atomic<int> calls = 0;        // system calls of a measurement
std::atomic<int> allocations = 0;  // of memory
int watchesLeft = -1;              // so many more can be had, or no limit
bool noNotifications = false;

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

extern "C" {

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static auto* const real = next(&epoll_wait, "epoll_wait");
  ++calls;
  return real(epoll, events, count, timeout);
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

int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) {
  static auto* const real = next(&statx, "statx");
  ++calls;
  return real(directory, path, flags, mask, status);
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

void append(const std::string& path, std::size_t bytes) {
  std::ofstream(path, std::ios::app) << std::string(bytes, 'x');
}

class UsageLedgerTest : public testing::Test {
 protected:
  UsageLedgerTest() {
    fs::remove_all("/var/other");
    fs::create_directory("/var/other");
    emptyCaptureDir();
    writeFile(kDir + "a.pcap", std::string(100, 'a'));
    writeFile(kDir + "b.info", std::string(50, 'b'));
    EXPECT_TRUE(agrees(usage_));
  }
  ~UsageLedgerTest() override {
    watchesLeft = -1;
    noNotifications = false;
  }

  int callsOfUpdate() {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
    calls = 0;
    usage_.update(bytes, files);
    return calls;
  }

  DiskUsage usage_;
};

TEST_F(UsageLedgerTest, OneCallAndNoMemoryWhenNothingChanged) {
  for (int i = 0; i < 2000; ++i) {
    append(kDir + std::to_string(i) + ".pcap", 1);
  }
  EXPECT_TRUE(agrees(usage_));
  allocations = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(callsOfUpdate(), 1);
  }
  EXPECT_EQ(allocations, 0);
}

TEST_F(UsageLedgerTest, ThreeCallsAndNoMemoryWhenOneFileGrew) {
  append(kDir + "a.pcap", 10);
  callsOfUpdate();
  const OwnedFd file(::open((kDir + "a.pcap").c_str(), O_WRONLY | O_APPEND));
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(file.get(), "xyz", 3), 3);
    allocations = 0;
    EXPECT_EQ(callsOfUpdate(), 3);  // news?, which?, how large?
    EXPECT_EQ(allocations, 0);
    EXPECT_TRUE(agrees(usage_));
  }
}

TEST_F(UsageLedgerTest, SizesChange) {
  append(kDir + "a.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::resize_file(kDir + "a.pcap", 5);
  EXPECT_TRUE(agrees(usage_));
  writeFile(kDir + "a.pcap", "truncated and written");
  EXPECT_TRUE(agrees(usage_));
  const OwnedFd file(::open((kDir + "a.pcap").c_str(), O_RDWR));
  ASSERT_EQ(::ftruncate(file.get(), 4000), 0);
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::fallocate(file.get(), 0, 4000, 96), 0);
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::pwrite(file.get(), "x", 1, 100000), 1);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, EntriesComeAndGo) {
  writeFile(kDir + "c.pcap", "123");
  EXPECT_TRUE(agrees(usage_));
  fs::rename(kDir + "c.pcap", kDir + "d");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "d", 5);
  EXPECT_TRUE(agrees(usage_));
  fs::rename(kDir + "d", kDir + "a.pcap");  // replaces
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "a.pcap", 5);
  EXPECT_TRUE(agrees(usage_));
  fs::rename(kDir + "a.pcap", "/var/other/a.pcap");
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/a.pcap", 5);
  EXPECT_TRUE(agrees(usage_));
  fs::rename("/var/other/a.pcap", kDir + "b.info");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "b.info", 5);
  EXPECT_TRUE(agrees(usage_));
  fs::remove(kDir + "b.info");
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, NamesChangePlacesBetweenTwoLooks) {
  fs::rename(kDir + "a.pcap", kDir + "x");
  fs::rename(kDir + "b.info", kDir + "a.pcap");
  fs::rename(kDir + "x", kDir + "b.info");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "a.pcap", 1000);
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "b.info", 3000);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, AFileThatWasRemovedWhileOpenNoLongerCounts) {
  std::ofstream file(kDir + "a.pcap", std::ios::app);
  fs::remove(kDir + "a.pcap");
  writeFile(kDir + "a.pcap", "another");
  EXPECT_TRUE(agrees(usage_));
  file << std::string(10000, 'x') << std::flush;
  EXPECT_TRUE(agrees(usage_));
  file.close();
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, AFileIsWrittenUnderItsOtherNames) {
  fs::create_hard_link(kDir + "a.pcap", "/var/other/a");  // made outside
  append("/var/other/a", 10);
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/a", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::create_hard_link(kDir + "a.pcap", kDir + "c.pcap");  // and inside
  append(kDir + "c.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::remove("/var/other/a");
  fs::remove(kDir + "a.pcap");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "c.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, AFileIsWrittenUnderANameThatIsGone) {
  std::ofstream file("/var/other/x", std::ios::app);
  fs::create_hard_link("/var/other/x", kDir + "c.pcap");
  fs::remove("/var/other/x");
  EXPECT_TRUE(agrees(usage_));
  for (int i = 0; i < 3; ++i) {
    file << "more" << std::flush;
    EXPECT_TRUE(agrees(usage_));
  }
}

TEST_F(UsageLedgerTest, SeveralNamesCostALookEachUntilTheyAreGone) {
  fs::create_hard_link(kDir + "a.pcap", "/var/other/a");
  EXPECT_TRUE(agrees(usage_));
  callsOfUpdate();  // reads that the file is not watched any more
  EXPECT_EQ(callsOfUpdate(), 2);
  fs::remove("/var/other/a");
  EXPECT_TRUE(agrees(usage_));
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
}

TEST_F(UsageLedgerTest, SubdirectoriesGrowUnseen) {
  fs::create_directory(kDir + "sub.pcap");
  EXPECT_TRUE(agrees(usage_));
  for (int i = 0; i < 300; ++i) {
    writeFile(kDir + "sub.pcap/" + std::to_string(i), "");
    ASSERT_TRUE(agrees(usage_));
  }
  fs::remove_all(kDir + "sub.pcap");
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, TheParentGrows) {
  for (int i = 0; i < 300; ++i) {
    writeFile("/var/support/" + std::to_string(i), "");
    ASSERT_TRUE(agrees(usage_));
  }
  for (int i = 0; i < 300; ++i) {
    fs::remove("/var/support/" + std::to_string(i));
    ASSERT_TRUE(agrees(usage_));
  }
}

TEST_F(UsageLedgerTest, WarningsComeInTheDirectorysOrder) {
  for (const char* const name : {"m", "c", "z", "a", "k"}) {
    fs::create_symlink("nowhere", kDir + name + ".link");
    ASSERT_TRUE(agrees(usage_));
    ASSERT_TRUE(agrees(usage_));
  }
  fs::rename(kDir + "z.link", kDir + "b.link");
  EXPECT_TRUE(agrees(usage_));
  fs::remove(kDir + "c.link");
  EXPECT_TRUE(agrees(usage_));
  writeFile(kDir + "nowhere", "");
  EXPECT_TRUE(agrees(usage_));
  fs::remove(kDir + "nowhere");
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, TheDirectoryIsReplaced) {
  fs::rename("/var/support/tarnik", "/var/other/moved");
  EXPECT_TRUE(agrees(usage_));  // none
  fs::create_directory("/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/moved/a.pcap", 1000);
  EXPECT_TRUE(agrees(usage_));
  writeFile(kDir + "new.pcap", "12345");
  EXPECT_TRUE(agrees(usage_));
  fs::remove_all("/var/support/tarnik");
  fs::rename("/var/other/moved", "/var/support/tarnik");  // both between two looks
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "a.pcap", 1000);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, TheWayToTheDirectoryIsReplaced) {
  fs::rename("/var/support", "/var/other/support");
  fs::create_directories("/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/support/tarnik/a.pcap", 1000);
  writeFile(kDir + "new.pcap", "12345");
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, TheWayLeadsOverLinks) {
  fs::create_directories("/var/other/one/place");
  fs::create_directories("/var/other/two/place");
  writeFile("/var/other/one/place/1.pcap", "1");
  writeFile("/var/other/two/place/2.pcap", "22");
  fs::create_directory_symlink("one", "/var/other/link");
  fs::remove_all("/var/support/tarnik");
  fs::create_directory_symlink("../other/./link//place/", "/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
  append(kDir + "1.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  fs::remove("/var/other/link");
  fs::create_directory_symlink("two", "/var/other/link");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "2.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
  writeFile("/var/other/two/neighbour", "");
  EXPECT_TRUE(agrees(usage_));
  fs::rename("/var/other/two", "/var/other/three");
  EXPECT_TRUE(agrees(usage_));
  fs::create_directories("/var/other/two/place");
  EXPECT_TRUE(agrees(usage_));
  fs::remove("/var/support/tarnik");
  fs::create_directory_symlink("/var/other/three/place", "/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "2.pcap", 10);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(UsageLedgerTest, SomethingIsMountedOnTheWay) {
  if (::mount("tmpfs", "/var/support/tarnik", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "cannot mount here: " << std::strerror(errno);
  }
  EXPECT_TRUE(agrees(usage_));
  EXPECT_EQ(callsOfUpdate(), 1);
  writeFile(kDir + "mounted.pcap", "12345");
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::umount("/var/support/tarnik"), 0);
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "a.pcap", 10);
  EXPECT_TRUE(agrees(usage_));

  writeFile("/var/other/below", "below");
  ASSERT_EQ(::mount("/var/other/below", (kDir + "a.pcap").c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/below", 100);
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::umount((kDir + "a.pcap").c_str()), 0);
  EXPECT_TRUE(agrees(usage_));
}

// More happens between two looks than the kernel keeps.
TEST_F(UsageLedgerTest, TheKernelsQueueOverflows) {
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

TEST_F(UsageLedgerTest, WithoutNotificationsItScans) {
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

// Files for which there is no watch left are looked at each time.
TEST_F(UsageLedgerTest, WatchesRunOut) {
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

TEST_F(UsageLedgerTest, AFileSystemOfOtherMachinesIsScanned) {
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
