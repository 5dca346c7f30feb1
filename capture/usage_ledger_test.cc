// The ledger stays true whatever happens to the directory, its entries and the way to it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/owned.h"
#include "capture/testing/files.h"
#include "capture/testing/usage.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;

const std::string kDir = kCaptureDir;

class UsageLedgerTest : public UsageTest {};

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

}  // namespace
}  // namespace tarnik::test
