// Compares the ledger with the scan: the numbers and what they log.
#pragma once

#include <gtest/gtest.h>

#include "capture/disk_usage.h"
#include "tests/support/captured_log.h"

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

}  // namespace tarnik::test
