// What a measurement of the capture directory gives: the scan, and the ledger that replaces it.
#include "capture/disk_usage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/testing/files.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kDir = kCaptureDir;

struct Usage {
  std::uint64_t bytes = 4711;
  std::uint64_t files = 12;
};

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return static_cast<std::uint64_t>(status.st_size);
}

// Both ways to measure; the ledger from its second measurement on.
class DiskUsageTest : public testing::TestWithParam<bool> {
 protected:
  DiskUsageTest() {
    emptyCaptureDir();
    Usage first;
    usage_.update(first.bytes, first.files);
    clearLog();
    setDebugLevel(9);
  }
  ~DiskUsageTest() override { setDebugLevel(0); }

  Usage measure() {
    Usage usage;
    if (GetParam()) {
      usage_.update(usage.bytes, usage.files);
    } else {
      scanDiskUsage(usage.bytes, usage.files);
    }
    return usage;
  }
  static std::uint64_t directories() { return sizeOf(kDir + ".") + sizeOf(kDir + ".."); }

  DiskUsage usage_;
};

INSTANTIATE_TEST_SUITE_P(Scan, DiskUsageTest, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Ledger, DiskUsageTest, testing::Values(true));

TEST_P(DiskUsageTest, AnEmptyDirectoryHoldsItselfAndItsParent) {
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories());
  EXPECT_EQ(usage.files, 0U);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(DiskUsageTest, CountsNamesThatHoldPcapAnywhere) {
  writeFile(kDir + "a.pcap", std::string(1000, 'a'));
  writeFile(kDir + "a.pcap.info", std::string(10, 'a'));
  writeFile(kDir + "x.pcapng", "");
  writeFile(kDir + ".pcap", "1");
  writeFile(kDir + "abc", std::string(100, 'a'));
  writeFile(kDir + "pcap", std::string(20, 'a'));
  writeFile(kDir + "a.PCAP", std::string(3, 'a'));
  writeFile(kDir + "a.info", "");
  fs::create_directory(kDir + "dir.pcap");
  writeFile(kDir + "dir.pcap/inside.pcap", std::string(5000, 'a'));
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories() + 1000 + 10 + 1 + 100 + 20 + 3 + sizeOf(kDir + "dir.pcap"));
  EXPECT_EQ(usage.files, 5U);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(DiskUsageTest, LinksAreFollowed) {
  writeFile("/tmp/target", std::string(777, 't'));
  fs::create_symlink("/tmp/target", kDir + "link.pcap");
  fs::create_symlink("/tmp", kDir + "to-directory");
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories() + 777 + sizeOf("/tmp"));
  EXPECT_EQ(usage.files, 1U);
  writeFile("/tmp/target", std::string(1777, 't'));
  EXPECT_EQ(measure().bytes, directories() + 1777 + sizeOf("/tmp"));
}

TEST_P(DiskUsageTest, EveryNameOfAFileCounts) {
  writeFile(kDir + "one.pcap", std::string(500, 'a'));
  fs::create_hard_link(kDir + "one.pcap", kDir + "two.pcap");
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories() + 1000);
  EXPECT_EQ(usage.files, 2U);
}

TEST_P(DiskUsageTest, ADanglingLinkIsToldOfEachTimeAndCountsNowhere) {
  fs::create_symlink("/tmp/nothing", kDir + "gone.pcap");
  fs::create_symlink("circle", kDir + "circle");
  for (int i = 0; i < 3; ++i) {
    clearLog();
    const Usage usage = measure();
    EXPECT_EQ(usage.bytes, directories());
    EXPECT_EQ(usage.files, 0U);
    EXPECT_THAT(logLines(),
                testing::UnorderedElementsAre(
                    LogLine{LOG_WARNING,
                            "Warning: UpdateUsageCounters: Failed to get disk size for "
                            "[/var/support/tarnik/gone.pcap]: No such file or directory"},
                    LogLine{LOG_WARNING,
                            "Warning: UpdateUsageCounters: Failed to get disk size for "
                            "[/var/support/tarnik/circle]: Too many levels of symbolic links"}));
  }
  writeFile("/tmp/nothing", "now there");
  fs::remove(kDir + "circle");
  clearLog();
  EXPECT_EQ(measure().files, 1U);
  EXPECT_THAT(logLines(), IsEmpty());
  fs::remove("/tmp/nothing");
}

TEST_P(DiskUsageTest, SpecialFilesCount) {
  ASSERT_EQ(::mkfifo((kDir + "fifo.pcap").c_str(), 0600), 0);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (kDir + "socket.pcap").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(socket);
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories());
  EXPECT_EQ(usage.files, 2U);
}

TEST_P(DiskUsageTest, WithoutDirectoryTheNumbersStay) {
  fs::remove_all("/var/support/tarnik");
  for (int i = 0; i < 2; ++i) {
    clearLog();
    const Usage usage = measure();
    EXPECT_EQ(usage.bytes, 4711U);
    EXPECT_EQ(usage.files, 12U);
    EXPECT_THAT(logLines(),
                ElementsAre(LogLine{LOG_ERR,
                                    "Error: UpdateUsageCounters: Failed to open "
                                    "[/var/support/tarnik/]: No such file or directory"}));
  }
  writeFile("/var/support/tarnik", "a file");
  clearLog();
  EXPECT_EQ(measure().files, 12U);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_ERR,
                                              "Error: UpdateUsageCounters: Failed to open "
                                              "[/var/support/tarnik/]: Not a directory"}));
  fs::remove("/var/support/tarnik");
  fs::create_directory("/var/support/tarnik");
  clearLog();
  EXPECT_EQ(measure().bytes, directories());
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(DiskUsageTest, ALongNameCounts) {
  const std::string name(251, 'n');
  writeFile(kDir + name + ".pc", "12345");
  writeFile(kDir + name.substr(1) + ".pcap", "12345");
  const Usage usage = measure();
  EXPECT_EQ(usage.bytes, directories() + 10);
  EXPECT_EQ(usage.files, 1U);
}

}  // namespace
}  // namespace tarnik::test
