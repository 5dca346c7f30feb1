// What the tests of the capture manager share: a manager that is set up from real files, with a
// clock, an event journal and a capture directory of the test's own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/testing/captured_log.h"
#include "capture/capture_manager.h"
#include "capture/meta_cache.h"
#include "capture/testing/files.h"
#include "capture/testing/platform.h"
#include "frameq/tarnik_q.h"

namespace tarnik::test {

inline constexpr char kIssuesPath[] = "/etc/issues.csv";
inline constexpr std::time_t kNow = 1'709'622'489;  // 2024-03-05 07:08:09 UTC
inline constexpr char kStamp[] = "20240305-070809";

class ManagerTest : public testing::Test {
 protected:
  struct Settings {
    std::int64_t maxTimeout = 120;
    std::uint64_t diskSpace = 1'000'000'000;
    std::uint64_t fileCount = 1000;
    std::int64_t maxFileSize = 1'000'000;
    std::int64_t eventInterval = 10;
    std::uint32_t eventThreshold = 3;
  };

  void SetUp() override {
    emptyCaptureDir();
    writeFile(kNapPolicyPath,
              "acl.rule.priority._uuid-five = 5\nacl.rule.priority.uuid-top = 65534\n");
    writeFile(kIssuesPath, "70000,web\n70001,X_Y\n65536,first\n4294967295,last\n");
    for (const char* policy : {"ips", "nap.uuid-five", "nap.uuid-top"}) {
      writeFile(kCaptureDir + kTemplate + policy, "");
    }
    useDebugLevel(0);
    forgetMetadata();
    setTime(kNow);
    forget();
  }
  void TearDown() override {
    useDebugLevel(0);
    forgetMetadata();
    useSystemTime();
  }

  // Forgets what was logged and raised so far.
  static void forget() {
    clearLog();
    clearEvents();
  }
  static void useDebugLevel(unsigned level) {
    setDebugLevel(level);
    clearLog();
  }
  static void forgetMetadata() {
    setTime(kNow * 1000);
    TarnikMetaCache::instance().expire();
    TarnikMetaCache::instance().config(1800);
  }

  int init(const Settings& settings) {
    return manager.Init(kIssuesPath, settings.maxTimeout, settings.diskSpace, settings.fileCount,
                        settings.maxFileSize, settings.eventInterval, settings.eventThreshold);
  }
  int reload(const Settings& settings) {
    return manager.Reload(kIssuesPath, settings.maxTimeout, settings.diskSpace, settings.fileCount,
                          settings.maxFileSize, settings.eventInterval, settings.eventThreshold);
  }

  static void announce(std::uint64_t captureId, std::uint32_t triggerId,
                       std::uint64_t flowId = 0xf10) {
    TarnikMetaCache::instance().add(captureId, flowId, triggerId);
  }

  // Hands the manager a frame of `size` bytes, whose content and time follow from `seed`.
  int consume(std::uint64_t captureId, std::uint32_t size = 100, unsigned seed = 0,
              std::uint32_t flags = 0) {
    lastData = frameData(size, seed);
    return manager.ConsumeFrame(captureId, frame(size + 4, size, seed, seed * 2), lastData.data(),
                                flags);
  }
  // The record that such a frame makes.
  static Record record(std::uint32_t size = 100, unsigned seed = 0) {
    return {seed, seed * 2, size + 4, bytesOf(frameData(size, seed))};
  }
  // What is in a capture file, by its name in the directory.
  static std::vector<Record> records(const std::string& name) {
    return parsePcap(readFile(kCaptureDir + name)).value_or(std::vector<Record>{{9, 9, 9, "torn"}});
  }

  // The names in the directory, without those of the info templates.
  static std::vector<std::string> entries() {
    std::vector<std::string> names = test::entries();
    std::erase_if(names, [](const std::string& name) { return name.starts_with(kTemplate); });
    return names;
  }
  // The final names in the directory, without the info files beside them.
  static std::vector<std::string> captures() {
    std::vector<std::string> names = entries();
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".pcap"); });
    return names;
  }
  // The texts of the log, without the lines of the file writer and the info file.
  static std::vector<std::string> steps() {
    std::vector<std::string> texts;
    for (const LogLine& line : logLines()) {
      const auto begins = [&](const char* word) { return line.text.starts_with(word); };
      if (!std::ranges::any_of(kWriterOperations, begins)) {
        texts.push_back(line.text);
      }
    }
    return texts;
  }

  CaptureManager manager;
  std::vector<std::uint8_t> lastData;

 private:
  inline static const std::string kTemplate = "template.";
  static constexpr const char* kWriterOperations[] = {
      "Debug: Open:",  "Debug: WritePCAPHeader:", "Debug: Write:", "Debug: Update:",
      "Debug: Close:", "Debug: Finalize:",        "Debug: init:",  "Debug: fini:"};
};

}  // namespace tarnik::test
