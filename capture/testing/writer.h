// A fixture for tests of the PCAP writer.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <string>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/pcap_writer.h"
#include "capture/testing/call_faults.h"
#include "capture/testing/files.h"

namespace tarnik::test {

// Limits the size of the files that this process writes: a write across the limit is partial.
class LimitedSize {
 public:
  explicit LimitedSize(rlim_t bytes) {
    ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  LimitedSize(const LimitedSize&) = delete;
  LimitedSize& operator=(const LimitedSize&) = delete;
  ~LimitedSize() { ::setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

// An empty capture directory without info templates, no faults and an empty log.
class WriterTest : public testing::Test {
 protected:
  static constexpr char kWorking[] = "/var/support/tarnik/1f";
  static constexpr char kFinal[] = "/var/support/tarnik/a.pcap";
  static constexpr std::uint64_t kNoLimit = 1U << 30U;

  WriterTest() {
    emptyCaptureDir();
    clearFaults();
    useDebugLevel(0);
  }
  ~WriterTest() override {
    clearFaults();
    setDebugLevel(0);
  }

  static void useDebugLevel(unsigned level) {
    setDebugLevel(level);
    clearLog();
  }
  static std::unique_ptr<PcapWriter> opened(std::uint64_t maxFileSize = kNoLimit,
                                            std::size_t bufferSize = kLargestBuffer) {
    auto writer = std::make_unique<PcapWriter>(kWorking, maxFileSize, bufferSize);
    EXPECT_TRUE(writer->Open());
    return writer;
  }
  // An open writer with a final name and one record of 100 bytes.
  static std::unique_ptr<PcapWriter> started() {
    auto writer = opened();
    EXPECT_TRUE(write(*writer, 100));
    writer->Update(kFinal, 7, "uuid", 12);
    return writer;
  }
  static bool write(PcapWriter& writer, std::uint32_t size, unsigned seed = 0) {
    const auto data = frameData(size, seed);
    return writer.Write(frame(size, size, seed, 0), data.data());
  }
  static std::uintmax_t sizeOf(const std::string& path) { return std::filesystem::file_size(path); }
  static std::size_t recordsIn(const std::string& path) {
    const auto records = parsePcap(readFile(path));
    EXPECT_TRUE(records) << path << " is not a whole capture file";
    return records ? records->size() : 0;
  }
  // Expects exactly these lines, and removes them.
  static void expectLog(const std::vector<LogLine>& lines) {
    EXPECT_EQ(logLines(), lines);
    clearLog();
  }
};

}  // namespace tarnik::test
