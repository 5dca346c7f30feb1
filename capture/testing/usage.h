// For tests of the disk usage: the clock of its scans, faults and counts of its system calls, and
// the comparison with a full scan.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>

#include "base/paths.h"
#include "base/testing/captured_log.h"
#include "capture/disk_usage.h"
#include "capture/testing/call_faults.h"
#include "capture/testing/files.h"

namespace tarnik::test {

// usage.cc replaces C functions. It adds the faults inotify_init1, inotify_add_watch, epoll_create1
// and epoll_ctl.
inline std::atomic<std::int64_t> clockMilliseconds{1'000'000};  // CLOCK_MONOTONIC_COARSE
inline std::atomic<int> systemCalls{0};                         // all that usage.cc replaces
inline std::atomic<int> listings{0};                            // opendir
inline std::string pathWithoutStatus;                           // stat fails with EIO there
inline std::function<void()> onCloseDirectory;

// Lets the next update scan the directory.
inline void passOneSecond() {
  clockMilliseconds += 1000;
}

// Both counters. Their initial values are those of an earlier measurement.
struct Usage {
  std::uint64_t bytes = 4711;
  std::uint64_t files = 12;
  bool operator==(const Usage&) const = default;
};

inline std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return static_cast<std::uint64_t>(status.st_size);
}

// What the directory and its parent count.
inline std::uint64_t directories() {
  return sizeOf(kCaptureDir + std::string(".")) + sizeOf(kCaptureDir + std::string(".."));
}

// Compares an update with a scan: both counters and what is logged.
inline testing::AssertionResult agrees(DiskUsage& usage) {
  Usage updated;
  Usage scanned;
  clearLog();
  usage.update(updated.bytes, updated.files);
  const auto logged = logLines();
  clearLog();
  scanDiskUsage(scanned.bytes, scanned.files);
  const auto scanLogged = logLines();
  clearLog();
  if (updated != scanned) {
    return testing::AssertionFailure()
           << updated.bytes << " bytes, " << updated.files << " files; the scan: " << scanned.bytes
           << " and " << scanned.files;
  }
  if (logged != scanLogged) {
    return testing::AssertionFailure() << testing::PrintToString(logged)
                                       << "; the scan: " << testing::PrintToString(scanLogged);
  }
  return testing::AssertionSuccess();
}

// An empty capture directory, and a directory elsewhere.
class UsageTest : public testing::Test {
 protected:
  UsageTest() {
    std::error_code ignored;
    std::filesystem::remove_all("/var/other", ignored);
    std::filesystem::remove_all("/var/support", ignored);
    std::filesystem::create_directory("/var/other");
    emptyCaptureDir();
    clearLog();
  }
  ~UsageTest() override {
    clearFaults();
    pathWithoutStatus.clear();
    onCloseDirectory = nullptr;
  }
};

}  // namespace tarnik::test
