// What the tests of the ledger share: a directory to measure, and the comparison of the ledger with
// the scan, the numbers and what they log.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/paths.h"
#include "base/testing/captured_log.h"
#include "capture/disk_usage.h"
#include "capture/testing/files.h"

namespace tarnik::test {

inline testing::AssertionResult agrees(DiskUsage& usage) {
  std::uint64_t bytes = 4711;
  std::uint64_t files = 12;
  std::uint64_t scannedBytes = bytes;
  std::uint64_t scannedFiles = files;
  clearLog();
  usage.update(bytes, files);
  const auto logged = logLines();
  clearLog();
  scanDiskUsage(scannedBytes, scannedFiles);
  const auto scanLogged = logLines();
  clearLog();
  if (bytes != scannedBytes || files != scannedFiles) {
    return testing::AssertionFailure()
           << bytes << " bytes, " << files << " files; the scan: " << scannedBytes << " and "
           << scannedFiles;
  }
  if (logged != scanLogged) {
    return testing::AssertionFailure() << testing::PrintToString(logged)
                                       << "; the scan: " << testing::PrintToString(scanLogged);
  }
  return testing::AssertionSuccess();
}

// A capture directory of two files that the ledger has measured once, and a directory elsewhere.
class UsageTest : public testing::Test {
 protected:
  UsageTest() {
    std::filesystem::remove_all("/var/other");
    std::filesystem::create_directory("/var/other");
    emptyCaptureDir();
    writeFile(std::string(kCaptureDir) + "a.pcap", std::string(100, 'a'));
    writeFile(std::string(kCaptureDir) + "b.info", std::string(50, 'b'));
    EXPECT_TRUE(agrees(usage_));
  }

  DiskUsage usage_;
};

}  // namespace tarnik::test
