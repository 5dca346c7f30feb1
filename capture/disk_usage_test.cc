// What a measurement of the capture directory gives: the same by a scan and by events.
#include "capture/disk_usage.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "base/log.h"
#include "base/owned.h"
#include "capture/testing/usage.h"

namespace tarnik::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string kDir = kCaptureDir;

LogLine noStatus(const std::string& name, const std::string& error) {
  return {LOG_WARNING, "Warning: UpdateUsageCounters: Failed to get disk size for [" + kDir + name +
                           "]: " + error};
}

LogLine noDirectory(const std::string& error) {
  return {LOG_ERR, "Error: UpdateUsageCounters: Failed to open [" + kDir + "]: " + error};
}

// The same expectations of a scan, of an update that scans, and of one that reads events.
enum class By { kScan, kUpdateThatScans, kEvents };

class MeasurementTest : public UsageTest, public testing::WithParamInterface<By> {
 protected:
  MeasurementTest() {
    (void)measure();
    clearLog();
    setDebugLevel(9);
  }
  ~MeasurementTest() override { setDebugLevel(0); }

  Usage measure() {
    Usage usage;
    if (GetParam() == By::kScan) {
      scanDiskUsage(usage.bytes, usage.files);
      return usage;
    }
    if (GetParam() == By::kUpdateThatScans) {
      passOneSecond();
    }
    usage_.update(usage.bytes, usage.files);
    return usage;
  }

  DiskUsage usage_;
};

INSTANTIATE_TEST_SUITE_P(Scan, MeasurementTest, testing::Values(By::kScan));
INSTANTIATE_TEST_SUITE_P(UpdateThatScans, MeasurementTest, testing::Values(By::kUpdateThatScans));
INSTANTIATE_TEST_SUITE_P(Events, MeasurementTest, testing::Values(By::kEvents));

TEST_P(MeasurementTest, AnEmptyDirectoryCountsItselfAndItsParent) {
  EXPECT_EQ(measure(), (Usage{directories(), 0}));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(MeasurementTest, CountsNamesThatContainPcapAnywhere) {
  const std::string longName(250, 'n');
  const std::pair<std::string, std::size_t> kFiles[] = {{"a.pcap", 1000},
                                                        {"a.pcap.info", 10},
                                                        {"x.pcapng", 0},
                                                        {".pcap", 1},
                                                        {"abc", 100},
                                                        {"pcap", 20},
                                                        {"a.PCAP", 3},
                                                        {"a.info", 0},
                                                        {longName, 50000},
                                                        {"link1", 7},
                                                        {longName + ".pcap", 4000}};
  std::uint64_t bytes = 0;
  for (const auto& [name, size] : kFiles) {
    writeFile(kDir + name, std::string(size, 'x'));
    bytes += size;
  }
  fs::create_directory(kDir + "dir.pcap");
  writeFile(kDir + "dir.pcap/inside.pcap", std::string(50000, 'a'));
  fs::create_hard_link(kDir + "link1", kDir + "link2.pcap");
  ASSERT_EQ(::mkfifo((kDir + "fifo.pcap").c_str(), 0600), 0);
  const OwnedFd socket(::socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (kDir + "socket.pcap").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(measure(), (Usage{directories() + bytes + 7 + sizeOf(kDir + "dir.pcap"), 9}));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(MeasurementTest, FollowsLinks) {
  writeFile("/var/other/target", std::string(777, 't'));
  fs::create_symlink("/var/other/target", kDir + "link.pcap");
  fs::create_symlink("/var/other", kDir + "to-directory");
  EXPECT_EQ(measure(), (Usage{directories() + 777 + sizeOf("/var/other"), 1}));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(MeasurementTest, CountsSizesBeyond32Bits) {
  writeFile(kDir + "big.pcap", "");
  ASSERT_EQ(::truncate((kDir + "big.pcap").c_str(), 5'000'000'000), 0);
  EXPECT_EQ(measure().bytes, directories() + 5'000'000'000);
}

TEST_P(MeasurementTest, WarnsOfEachEntryWithoutStatusAtEachScan) {
  fs::create_symlink("/var/other/nothing", kDir + "gone.pcap");
  fs::create_symlink("circle", kDir + "circle");
  for (int i = 0; i < 3; ++i) {
    clearLog();
    EXPECT_EQ(measure(), (Usage{directories(), 0}));
    if (GetParam() != By::kEvents) {
      EXPECT_THAT(logLines(),
                  UnorderedElementsAre(noStatus("gone.pcap", "No such file or directory"),
                                       noStatus("circle", "Too many levels of symbolic links")));
    }
  }
}

TEST_P(MeasurementTest, CountsNoDirectoryWithoutStatus) {
  for (const auto& [broken, counted] : {std::pair{".", ".."}, std::pair{"..", "."}}) {
    pathWithoutStatus = kDir + broken;
    passOneSecond();
    clearLog();
    EXPECT_EQ(measure(), (Usage{sizeOf(kDir + counted), 0}));
    EXPECT_THAT(logLines(), ElementsAre(noStatus(broken, "Input/output error")));
  }
}

TEST_P(MeasurementTest, KeepsTheCountersWithoutADirectory) {
  const std::pair<const char*, std::function<void()>> kWays[] = {
      {"No such file or directory", [] { fs::remove_all("/var/support/tarnik"); }},
      {"Not a directory", [] { writeFile("/var/support/tarnik", "a file"); }}};
  for (const auto& [error, take] : kWays) {
    take();
    for (int i = 0; i < 2; ++i) {
      clearLog();
      EXPECT_EQ(measure(), Usage{});
      EXPECT_THAT(logLines(), ElementsAre(noDirectory(error)));
    }
  }
  emptyCaptureDir();
  clearLog();
  EXPECT_EQ(measure(), (Usage{directories(), 0}));
  EXPECT_THAT(logLines(), IsEmpty());
}

// Takes root's power to open any directory from this thread.
class WithoutOverride {
 public:
  WithoutOverride() {
    EXPECT_EQ(::syscall(SYS_capget, &header_, before_), 0);
    __user_cap_data_struct less[2] = {before_[0], before_[1]};
    less[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    EXPECT_EQ(::syscall(SYS_capset, &header_, less), 0);
  }
  ~WithoutOverride() { ::syscall(SYS_capset, &header_, before_); }
  WithoutOverride(const WithoutOverride&) = delete;
  WithoutOverride& operator=(const WithoutOverride&) = delete;

 private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct before_[2];
};

TEST_P(MeasurementTest, KeepsTheCountersWithoutPermission) {
  const WithoutOverride unprivileged;
  fs::permissions(kDir, fs::perms::none);
  for (int i = 0; i < 2; ++i) {
    clearLog();
    EXPECT_EQ(measure(), Usage{});
    EXPECT_THAT(logLines(), ElementsAre(noDirectory("Permission denied")));
  }
  fs::permissions(kDir, fs::perms::owner_all);
  EXPECT_EQ(measure(), (Usage{directories(), 0}));
}

}  // namespace
}  // namespace tarnik::test
