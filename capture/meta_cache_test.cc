#include "capture/meta_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <limits>
#include <thread>
#include <vector>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/testing/platform.h"

namespace tarnik {
namespace {

using test::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::time_t kNow = 1'000'000;

class MetaCacheTest : public testing::Test {
 protected:
  void SetUp() override {
    test::setTime(kNow);
    setDebugLevel(0);
    test::clearLog();
  }
  void TearDown() override {
    test::onTime({});
    test::useSystemTime();
    setDebugLevel(0);
  }

  // "FLOW/TRIGGER" of a capture, in hexadecimal, or "none" with what the outputs were set to.
  std::string found(std::uint64_t captureId) {
    std::uint64_t flowId = 99;
    std::uint32_t triggerId = 99;
    const bool known = cache.lookup(captureId, flowId, triggerId);
    char text[64];
    std::snprintf(text, sizeof text, "%s%lx/%x", known ? "" : "none ", flowId, triggerId);
    return text;
  }

  TarnikMetaCache cache;
};

TEST_F(MetaCacheTest, ThereIsOneInstance) {
  EXPECT_EQ(&TarnikMetaCache::instance(), &TarnikMetaCache::instance());
}

TEST_F(MetaCacheTest, FindsWhatWasAdded) {
  cache.add(1, 0xabcdef0123456789, 0xfffffffe);
  cache.add(0xffffffffffffffff, 2, 3);
  EXPECT_EQ(found(1), "abcdef0123456789/fffffffe");
  EXPECT_EQ(found(0xffffffffffffffff), "2/3");
}

TEST_F(MetaCacheTest, AnUnknownCaptureHasZeroes) {
  cache.add(1, 2, 3);
  EXPECT_EQ(found(2), "none 0/0");
}

TEST_F(MetaCacheTest, TheSecondAddReplacesTheFirstAndRestartsItsLife) {
  cache.config(10);
  cache.add(1, 2, 3);
  test::setTime(kNow + 10);
  cache.add(1, 4, 5);
  EXPECT_EQ(found(1), "4/5");
  test::setTime(kNow + 20);
  cache.expire();
  EXPECT_EQ(found(1), "4/5");
  test::setTime(kNow + 21);
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, AnEntryLivesThroughItsLastSecond) {
  cache.config(10);
  cache.add(1, 2, 3);
  test::setTime(kNow + 10);
  cache.expire();
  EXPECT_EQ(found(1), "2/3");
  test::setTime(kNow + 11);
  EXPECT_EQ(found(1), "2/3") << "past its time, but not expired yet";
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, TheTimeoutIsZeroAtFirst) {
  cache.add(1, 2, 3);
  cache.expire();
  EXPECT_EQ(found(1), "2/3");
  test::setTime(kNow + 1);
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, ANewTimeoutIsForLaterEntries) {
  cache.config(10);
  cache.add(1, 2, 3);
  cache.config(20);
  cache.add(4, 5, 6);
  test::setTime(kNow + 11);
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
  EXPECT_EQ(found(4), "5/6");
}

TEST_F(MetaCacheTest, ANegativeTimeoutCountsAsUnsigned) {
  cache.config(-1);
  cache.add(1, 2, 3);
  test::setTime(kNow + std::time_t{std::numeric_limits<std::uint32_t>::max()});
  cache.expire();
  EXPECT_EQ(found(1), "2/3");
  test::setTime(kNow + std::time_t{std::numeric_limits<std::uint32_t>::max()} + 1);
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, UpdateRestartsALifeAndKeepsTheData) {
  cache.config(10);
  cache.add(1, 2, 3);
  test::setTime(kNow + 30);
  cache.update(1);
  test::setTime(kNow + 40);
  cache.expire();
  EXPECT_EQ(found(1), "2/3");
  test::setTime(kNow + 41);
  cache.expire();
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, UpdateOfAnUnknownCaptureAddsNothing) {
  cache.update(1);
  EXPECT_EQ(found(1), "none 0/0");
}

TEST_F(MetaCacheTest, EraseRemovesOneEntry) {
  cache.add(1, 2, 3);
  cache.add(4, 5, 6);
  cache.erase(1);
  cache.erase(7);
  EXPECT_EQ(found(1), "none 0/0");
  EXPECT_EQ(found(4), "5/6");
}

TEST_F(MetaCacheTest, ExpireRemovesAllThatAreDueAndOnlyThose) {
  cache.config(10);
  for (std::uint64_t captureId = 1; captureId <= 6; ++captureId) {
    test::setTime(kNow + static_cast<std::time_t>(captureId % 2));
    cache.add(captureId, captureId, 1);
  }
  test::setTime(kNow + 11);
  setDebugLevel(4);
  cache.expire();
  setDebugLevel(0);
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_DEBUG, "Debug: expire: entry"},
                  LogLine{LOG_DEBUG, "Debug: expire: Expiring 0x2 (flowId=0x2, triggerId=0x1)"},
                  LogLine{LOG_DEBUG, "Debug: expire: Expiring 0x4 (flowId=0x4, triggerId=0x1)"},
                  LogLine{LOG_DEBUG, "Debug: expire: Expiring 0x6 (flowId=0x6, triggerId=0x1)"}));
  EXPECT_EQ(found(2), "none 0/0");
  EXPECT_EQ(found(5), "5/1");
}

TEST_F(MetaCacheTest, ExpireOfAnEmptyCacheIsSilent) {
  setDebugLevel(9);
  cache.expire();
  EXPECT_THAT(test::logLines(), IsEmpty());
  cache.add(1, 2, 3);
  cache.erase(1);
  test::clearLog();
  cache.expire();
  EXPECT_THAT(test::logLines(), IsEmpty());
}

TEST_F(MetaCacheTest, ExpireReadsTheClockOnce) {
  cache.add(1, 2, 3);
  cache.add(4, 5, 6);
  int reads = 0;
  test::onTime([&] { ++reads; });
  cache.expire();
  EXPECT_EQ(reads, 1);
}

TEST_F(MetaCacheTest, DumpListsManyEntriesInOrder) {
  std::vector<LogLine> expected = {{LOG_INFO, "dump: TarnikMetaCache"}};
  for (std::uint64_t i = 0; i < 101; ++i) {
    cache.add(1 + i * 37 % 101, 1, 2);  // 101 is prime: each identifier once
    char line[32];
    std::snprintf(line, sizeof line, "0x%lx: 0x1 0x2", i + 1);
    expected.push_back({LOG_INFO, line});
  }
  cache.dump();
  EXPECT_EQ(test::logLines(), expected);
}

TEST_F(MetaCacheTest, DumpListsTheEntriesInOrder) {
  cache.add(0xb0b, 0xf10, 70000);
  cache.add(0xa, 0xffffffffffffffff, 0xffffffff);
  cache.dump();
  EXPECT_THAT(test::logLines(), ElementsAre(LogLine{LOG_INFO, "dump: TarnikMetaCache"},
                                            LogLine{LOG_INFO, "0xa: 0xffffffffffffffff 0xffffffff"},
                                            LogLine{LOG_INFO, "0xb0b: 0xf10 0x11170"}));
}

TEST_F(MetaCacheTest, OperationsTellAtDebugLevelFour) {
  const auto callAll = [this] {
    cache.config(-5);
    cache.add(0xa1, 2, 3);
    (void)found(0xa2);
    cache.update(0xa3);
    cache.erase(0xa4);
  };
  setDebugLevel(3);
  callAll();
  EXPECT_THAT(test::logLines(), IsEmpty());
  setDebugLevel(4);
  callAll();
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: config: timeout=-5"},
                          LogLine{LOG_DEBUG, "Debug: add: Add metatdata for 0xa1"},
                          LogLine{LOG_DEBUG, "Debug: lookup: Lookup metadata for 0xa2"},
                          LogLine{LOG_DEBUG, "Debug: update: Update expireTime for 0xa3"},
                          LogLine{LOG_DEBUG, "Debug: erase: Remove metadata for 0xa4"}));
}

// Whether another thread can look something up while the clock is being read.
TEST_F(MetaCacheTest, AddReadsTheClockBeforeItLocksAndUpdateAfterwards) {
  cache.add(1, 2, 3);
  std::future<std::string> other;
  std::chrono::milliseconds patience = std::chrono::seconds(30);
  bool blocked = false;
  test::onTime([&] {
    other = std::async(std::launch::async, [this] { return found(1); });
    blocked = other.wait_for(patience) == std::future_status::timeout;
  });
  cache.add(1, 4, 5);
  EXPECT_FALSE(blocked);
  EXPECT_EQ(other.get(), "2/3");
  patience = std::chrono::milliseconds(200);
  cache.update(1);
  EXPECT_TRUE(blocked);
  EXPECT_EQ(other.get(), "4/5");
}

// The main thread changes everything while others look up and refresh; what they find is always
// one whole entry.
TEST_F(MetaCacheTest, ReadersMeetOnlyWholeEntries) {
  constexpr std::uint64_t kCaptures = 64;
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> hits{0};
  std::atomic<std::uint64_t> torn{0};
  const auto read = [&] {
    for (std::uint64_t captureId = 0; !done; captureId = (captureId + 7) % kCaptures) {
      std::uint64_t flowId = 0;
      std::uint32_t triggerId = 0;
      if (cache.lookup(captureId, flowId, triggerId)) {
        ++hits;
        torn += flowId % kCaptures != captureId || triggerId != flowId * 3;
      } else {
        torn += flowId != 0 || triggerId != 0;
      }
      cache.update(captureId);
    }
  };
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 3; ++reader) {
    readers.emplace_back(read);
  }
  for (std::uint64_t round = 0; round < 3000 || hits < 1000; ++round) {
    const std::uint64_t captureId = round * 5 % kCaptures;
    const std::uint64_t flowId = captureId + round % 100 * kCaptures;
    cache.config(static_cast<int>(round % 3));
    cache.add(captureId, flowId, static_cast<std::uint32_t>(flowId * 3));
    test::setTime(kNow + static_cast<std::time_t>(round / 50));
    cache.expire();
    if (round % 16 == 0) {
      cache.erase(round % kCaptures);
    }
    if (round % 500 == 0) {
      cache.dump();
    }
  }
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(torn, 0u);
}

}  // namespace
}  // namespace tarnik
