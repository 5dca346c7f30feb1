// What the tests of the capture manager share: a manager with real policy files, a clock, an event
// journal and a capture directory of the test's own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/testing/captured_log.h"
#include "capture/capture_manager.h"
#include "capture/meta_cache.h"
#include "capture/testing/files.h"
#include "capture/testing/platform.h"
#include "frameq/tarnik_if.h"

namespace tarnik::test {

inline constexpr char kIssuesPath[] = "/etc/issues.csv";
inline constexpr std::time_t kNow = 1'709'622'489;  // 2024-03-05 07:08:09 UTC

// A log line and the debug level from which it is written.
struct Step {
  unsigned level;
  std::string text;
};

class ManagerTest : public testing::Test {
 protected:
  using Texts = std::vector<std::string>;
  struct Settings {
    std::int64_t maxTimeout = 120;
    std::uint64_t diskSpace = 1'000'000'000;
    std::uint64_t fileCount = 1000;
    std::int64_t maxFileSize = 1'000'000;
    std::int64_t eventInterval = 10;
    std::uint32_t eventThreshold = 3;
  };

  void SetUp() override {
    begin();
    ASSERT_EQ(init({}), 0);
  }
  void TearDown() override {
    onEvent({});
    onTime({});
    useDebugLevel(0);
    forgetMetadata();
    useSystemTime();
  }

  static void useDebugLevel(unsigned level) {
    setDebugLevel(level);
    clearLog();
  }
  // Sets the clock to this number of seconds after the start of the test.
  static void wait(std::time_t seconds) { setTime(kNow + seconds); }

  static int configure(decltype(&CaptureManager::Init) operation, CaptureManager& target,
                       const Settings& s) {
    return (target.*operation)(kIssuesPath, s.maxTimeout, s.diskSpace, s.fileCount, s.maxFileSize,
                               s.eventInterval, s.eventThreshold);
  }
  int init(const Settings& settings) { return configure(&CaptureManager::Init, manager, settings); }
  int reload(const Settings& settings) {
    clearLog();
    clearEvents();
    return configure(&CaptureManager::Reload, manager, settings);
  }

  static void announce(std::uint64_t captureId, std::uint32_t triggerId,
                       std::uint64_t flowId = 0xf10) {
    TarnikMetaCache::instance().add(captureId, flowId, triggerId);
  }
  static bool announced(std::uint64_t captureId) {
    std::uint64_t flowId = 0;
    std::uint32_t triggerId = 0;
    return TarnikMetaCache::instance().lookup(captureId, flowId, triggerId);
  }

  // Gives the manager a frame of `size` bytes. `seed` determines its content and time.
  int consume(std::uint64_t captureId, std::uint32_t size = 100, unsigned seed = 0,
              std::uint32_t flags = 0) {
    const std::vector<std::uint8_t> data = frameData(size, seed);
    return manager.ConsumeFrame(captureId, frame(size + 4, size, seed, seed * 2), data.data(),
                                flags);
  }
  int consumeLast(std::uint64_t captureId, unsigned seed = 0) {
    return consume(captureId, 100, seed, kPktLastFrame);
  }
  // The record of such a frame.
  static Record record(std::uint32_t size = 100, unsigned seed = 0) {
    return {seed, seed * 2, size + 4, bytesOf(frameData(size, seed))};
  }
  // The records of a file in the capture directory.
  static std::vector<Record> records(const std::string& name) {
    return parsePcap(readFile(kCaptureDir + name)).value_or(std::vector<Record>{{9, 9, 9, "torn"}});
  }
  // The open writer of a capture, or null.
  CaptureManager::Writer writerOf(std::uint64_t captureId) {
    CaptureManager::Writer writer;
    CaptureManager::WriterTable::iterator position;
    const bool found = manager.LookupConnWriter(captureId, writer, position);
    EXPECT_EQ(found, writer != nullptr);
    return writer;
  }

  // The names in the directory, without the info templates.
  static Texts entries() {
    Texts names = test::entries();
    std::erase_if(names, [](const std::string& name) { return name.starts_with("template."); });
    return names;
  }
  // The final names of captures.
  static Texts captures() {
    Texts names = entries();
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".pcap"); });
    return names;
  }
  // The log without the debug lines of the writer and the info file.
  static Texts steps() {
    Texts texts = logTexts();
    std::erase_if(texts, [](const std::string& text) {
      return std::ranges::any_of(kWriterOperations, [&](const char* operation) {
        return text.starts_with("Debug: " + std::string(operation) + ":");
      });
    });
    return texts;
  }
  // Runs `prepare` and `action` at each debug level, each time with a new manager state, and checks
  // the log of `action`.
  void expectSteps(const std::function<void()>& prepare, const std::function<void()>& action,
                   const std::vector<Step>& expected) {
    for (unsigned level = 0; level <= 4; ++level) {
      manager.CloseWriters();
      TearDown();
      SetUp();
      prepare();
      useDebugLevel(level);
      action();
      Texts texts;
      for (const Step& step : expected) {
        if (step.level <= level) {
          texts.push_back(step.text);
        }
      }
      EXPECT_EQ(steps(), texts) << "at debug level " << level;
    }
  }

  CaptureManager manager;

 private:
  static constexpr const char* kWriterOperations[] = {"Open",  "WritePCAPHeader", "Write", "Update",
                                                      "Close", "Finalize",        "init",  "fini"};

  static void forgetMetadata() {
    setTime(kNow * 1000);
    TarnikMetaCache::instance().expire();
    TarnikMetaCache::instance().config(1800);
  }
  static void begin() {
    emptyCaptureDir();
    writeFile(kNapPolicyPath,
              "acl.rule.priority._uuid-five = 5\nacl.rule.priority.uuid-top = 65534\n");
    writeFile(kIssuesPath, "70000,web\n70001,X_Y\n65536,first\n4294967295,last\n");
    for (const char* policy : {"ips", "nap.uuid-five", "nap.uuid-top"}) {
      writeFile(kCaptureDir + std::string("template.") + policy, "");
    }
    useDebugLevel(0);
    forgetMetadata();
    setTime(kNow);
  }
};

}  // namespace tarnik::test
