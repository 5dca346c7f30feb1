// Updates of the disk usage: which changes they find and when, and what they cost.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/aio_abi.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "base/owned.h"
#include "base/testing/counted_memory.h"
#include "capture/testing/usage.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;

const std::string kDir = kCaptureDir;

// Updates at times of the test's choice.
class DiskUsageTest : public UsageTest {
 protected:
  DiskUsageTest() {
    writeFile(kDir + "a.pcap", std::string(100, 'a'));
    writeFile(kDir + "b.info", std::string(50, 'b'));
    EXPECT_TRUE(agrees(usage_));
  }

  int callsOfUpdate() {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
    systemCalls = 0;
    usage_.update(bytes, files);
    return systemCalls;
  }

  DiskUsage usage_;
};

// Without a scan between them.
TEST_F(DiskUsageTest, ReportsChangesToRegularFilesAtOnce) {
  const OwnedFd open(::open((kDir + "a.pcap").c_str(), O_RDWR));
  const std::pair<const char*, std::function<void()>> kChanges[] = {
      {"append", [] { append(kDir + "a.pcap", 10); }},
      {"truncate", [] { fs::resize_file(kDir + "a.pcap", 5); }},
      {"rewrite", [] { writeFile(kDir + "a.pcap", "truncated and written"); }},
      {"ftruncate", [&] { ASSERT_EQ(::ftruncate(open.get(), 4000), 0); }},
      {"fallocate", [&] { ASSERT_EQ(::fallocate(open.get(), 0, 4000, 96), 0); }},
      {"pwrite", [&] { ASSERT_EQ(::pwrite(open.get(), "x", 1, 100000), 1); }},
      {"create", [] { writeFile(kDir + "c.pcap", "123"); }},
      {"rename", [] { fs::rename(kDir + "c.pcap", kDir + "d"); }},
      {"append after a rename", [] { append(kDir + "d", 5); }},
      {"replace", [] { fs::rename(kDir + "d", kDir + "a.pcap"); }},
      {"append to what replaced it", [] { append(kDir + "a.pcap", 5); }},
      {"write what was replaced", [&] { ASSERT_EQ(::ftruncate(open.get(), 7000), 0); }},
      {"move out", [] { fs::rename(kDir + "a.pcap", "/var/other/a.pcap"); }},
      {"append elsewhere", [] { append("/var/other/a.pcap", 5); }},
      {"move in", [] { fs::rename("/var/other/a.pcap", kDir + "b.info"); }},
      {"append to what moved in", [] { append(kDir + "b.info", 5); }},
      {"link", [] { fs::create_hard_link(kDir + "b.info", kDir + "e.pcap"); }},
      {"remove", [] { fs::remove(kDir + "b.info"); }},
      {"create and remove",
       [] {
         writeFile(kDir + "f.pcap", "short-lived");
         fs::remove(kDir + "f.pcap");
       }},
      {"remove and create",
       [] {
         fs::remove(kDir + "e.pcap");
         writeFile(kDir + "e.pcap", "again");
       }},
      {"swap",
       [] {
         writeFile(kDir + "f.pcap", "another");
         ASSERT_EQ(::renameat2(AT_FDCWD, (kDir + "e.pcap").c_str(), AT_FDCWD,
                               (kDir + "f.pcap").c_str(), RENAME_EXCHANGE),
                   0);
       }},
      {"make it a directory",
       [] {
         fs::remove(kDir + "f.pcap");
         fs::create_directory(kDir + "f.pcap");
       }},
      {"make it a link",
       [] {
         fs::remove(kDir + "f.pcap");
         fs::create_symlink("e.pcap", kDir + "f.pcap");
       }},
      {"many names",
       [] {
         for (int i = 0; i < 500; ++i) {
           writeFile(kDir + std::to_string(i) + std::string(50, 'n'), "x");
         }
       }},
  };
  listings = 0;
  for (const auto& [what, change] : kChanges) {
    change();
    EXPECT_TRUE(agrees(usage_)) << what;
  }
  EXPECT_EQ(listings, static_cast<int>(std::size(kChanges))) << "only the comparison scans";
}

// The kernel reports no such write.
void writeAsynchronously(const std::string& path, long long offset) {
  aio_context_t context = 0;
  if (::syscall(SYS_io_setup, 1, &context) != 0) {
    return;  // not every kernel allows it
  }
  const OwnedFd file(::open(path.c_str(), O_WRONLY));
  iocb request{};
  request.aio_fildes = static_cast<std::uint32_t>(file.get());
  request.aio_lio_opcode = IOCB_CMD_PWRITE;
  request.aio_buf = reinterpret_cast<std::uint64_t>("x");
  request.aio_nbytes = 1;
  request.aio_offset = offset;
  iocb* requests[] = {&request};
  EXPECT_EQ(::syscall(SYS_io_submit, context, 1, requests), 1);
  io_event event{};
  EXPECT_EQ(::syscall(SYS_io_getevents, context, 1, 1, &event, nullptr), 1);
  ::syscall(SYS_io_destroy, context);
}

TEST_F(DiskUsageTest, ReportsOtherChangesWithinASecond) {
  writeFile("/var/other/target", "");
  fs::create_symlink("/var/other/target", kDir + "link.pcap");
  fs::create_symlink("/var/other/nothing", kDir + "dangling");
  fs::create_hard_link(kDir + "a.pcap", "/var/other/hard");
  fs::create_directory(kDir + "sub.pcap");
  const std::pair<const char*, std::function<void()>> kChanges[] = {
      {"the target of a link", [] { append("/var/other/target", 10); }},
      {"a dangling link", [] { writeFile("/var/other/nothing", "now there"); }},
      {"a file through another name", [] { append("/var/other/hard", 10); }},
      {"an asynchronous write", [] { writeAsynchronously(kDir + "a.pcap", 3000); }},
      {"a subdirectory",
       [] {
         for (int i = 0; i < 300; ++i) {
           writeFile(kDir + "sub.pcap/" + std::to_string(i), "");
         }
       }},
      {"the parent directory",
       [] {
         for (int i = 0; i < 300; ++i) {
           writeFile("/var/support/" + std::to_string(i), "");
         }
       }},
      {"the path",
       [] {
         fs::rename("/var/support", "/var/other/support");
         fs::create_directories("/var/support/tarnik");
         writeFile(kDir + "new.pcap", "12345");
       }},
  };
  for (const auto& [what, change] : kChanges) {
    change();
    passOneSecond();
    EXPECT_TRUE(agrees(usage_)) << what;
  }
  append(kDir + "new.pcap", 5);
  EXPECT_TRUE(agrees(usage_)) << "the directory at the end of the path is watched";
}

TEST_F(DiskUsageTest, ScansOnceASecond) {
  listings = 0;
  callsOfUpdate();
  clockMilliseconds += 999;
  callsOfUpdate();
  EXPECT_EQ(listings, 0);
  clockMilliseconds += 1;
  callsOfUpdate();
  callsOfUpdate();
  EXPECT_EQ(listings, 1);
}

TEST_F(DiskUsageTest, ReportsAWriteDuringTheScan) {
  passOneSecond();
  onCloseDirectory = [] { append(kDir + "a.pcap", 10); };
  callsOfUpdate();
  EXPECT_TRUE(agrees(usage_));
  DiskUsage first;
  onCloseDirectory = [] { append(kDir + "a.pcap", 10); };
  std::uint64_t bytes = 0;
  std::uint64_t files = 0;
  first.update(bytes, files);
  EXPECT_TRUE(agrees(first));
}

TEST_F(DiskUsageTest, NoticesAtOnceThatTheDirectoryIsReplaced) {
  fs::rename("/var/support/tarnik", "/var/other/moved");
  EXPECT_TRUE(agrees(usage_));  // none
  fs::create_directory("/var/support/tarnik");
  EXPECT_TRUE(agrees(usage_));
  append("/var/other/moved/a.pcap", 1000);
  EXPECT_EQ(callsOfUpdate(), 1) << "the former directory is not watched";
  writeFile(kDir + "new.pcap", "12345");
  EXPECT_TRUE(agrees(usage_));
  fs::remove_all("/var/support/tarnik");
  fs::rename("/var/other/moved", "/var/support/tarnik");  // both between two updates
  EXPECT_TRUE(agrees(usage_));
  append(kDir + "a.pcap", 1000);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(DiskUsageTest, FollowsMountsAndUnmounts) {
  if (::mount("tmpfs", "/var/support/tarnik", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "cannot mount here: " << std::strerror(errno);
  }
  passOneSecond();
  EXPECT_TRUE(agrees(usage_));
  writeFile(kDir + "mounted.pcap", "12345");
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::umount("/var/support/tarnik"), 0);
  EXPECT_TRUE(agrees(usage_)) << "an unmount is reported at once";
  append(kDir + "a.pcap", 10);
  EXPECT_TRUE(agrees(usage_));

  writeFile("/var/other/below", "below");
  ASSERT_EQ(::mount("/var/other/below", (kDir + "a.pcap").c_str(), nullptr, MS_BIND, nullptr), 0);
  append("/var/other/below", 100);
  passOneSecond();
  EXPECT_TRUE(agrees(usage_));
  ASSERT_EQ(::umount((kDir + "a.pcap").c_str()), 0);
  passOneSecond();
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(DiskUsageTest, ScansWhenTheKernelDropsEvents) {
  const OwnedFd one(::open((kDir + "a.pcap").c_str(), O_WRONLY));
  const OwnedFd other(::open((kDir + "b.info").c_str(), O_WRONLY));
  for (int i = 0; i < 10000; ++i) {  // the queue takes 16384 events by default
    ASSERT_EQ(::pwrite(one.get(), "x", 1, i), 1);
    ASSERT_EQ(::pwrite(other.get(), "x", 1, i), 1);
  }
  writeFile(kDir + "c.pcap", "dropped");
  EXPECT_TRUE(agrees(usage_));
  callsOfUpdate();
  EXPECT_EQ(callsOfUpdate(), 1);
  append(kDir + "c.pcap", 100);
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(DiskUsageTest, ScansEachTimeWithoutInotify) {
  for (const char* const call :
       {"inotify_init1", "inotify_add_watch", "epoll_create1", "epoll_ctl"}) {
    SCOPED_TRACE(call);
    DiskUsage fresh;
    passOneSecond();
    faults[call] = {.error = ENOSPC, .times = 1000};
    for (int i = 0; i < 3; ++i) {
      append(kDir + "a.pcap", 10);
      EXPECT_TRUE(agrees(fresh));
      EXPECT_TRUE(agrees(usage_));
    }
    clearFaults();
    EXPECT_TRUE(agrees(fresh));
    append(kDir + "a.pcap", 10);
    listings = 0;
    EXPECT_TRUE(agrees(fresh));
    EXPECT_EQ(listings, 1) << "only the comparison scans";
  }
}

TEST_F(DiskUsageTest, ScansWithoutMemory) {
  if (!kReplacesNew) {
    GTEST_SKIP() << "operator new cannot be made to fail";
  }
  writeFile(kDir + "a name that is too long for a small string.pcap", "x");
  Usage usage;
  faults["new"] = {.times = 1000};
  usage_.update(usage.bytes, usage.files);
  clearFaults();
  EXPECT_EQ(usage, (Usage{directories() + 151, 2}));
  EXPECT_TRUE(agrees(usage_));
}

TEST_F(DiskUsageTest, MakesOneCallAndAllocatesNothingWhenNothingChanged) {
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

TEST_F(DiskUsageTest, MakesThreeCallsAndAllocatesNothingWhenOneFileGrew) {
  const OwnedFd file(::open((kDir + "a.pcap").c_str(), O_WRONLY | O_APPEND));
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(file.get(), "xyz", 3), 3);
    const std::uint64_t before = allocations();
    EXPECT_EQ(callsOfUpdate(), 3);  // epoll_wait, read, stat
    EXPECT_EQ(allocations() - before, 0U);
    EXPECT_TRUE(agrees(usage_));
  }
}

}  // namespace
}  // namespace tarnik::test
