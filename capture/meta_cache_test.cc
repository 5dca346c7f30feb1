#include "capture/meta_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <limits>
#include <thread>
#include <vector>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/testing/platform.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::time_t kNow = 1'000'000;
constexpr char kNone[] = "none 0/0";

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

  // "FLOW/TRIGGER" of a capture in hexadecimal, after "none " if it has no entry.
  std::string found(std::uint64_t captureId) {
    std::uint64_t flowId = 99;
    std::uint32_t triggerId = 99;
    const bool known = cache.lookup(captureId, flowId, triggerId);
    char text[64];
    std::snprintf(text, sizeof text, "%s%lx/%x", known ? "" : "none ", flowId, triggerId);
    return text;
  }
  // The same after an expire at the given second after the start of the test.
  std::string foundAfterExpire(std::uint64_t captureId, std::time_t second) {
    test::setTime(kNow + second);
    cache.expire();
    return found(captureId);
  }

  TarnikMetaCache cache;
};

TEST_F(MetaCacheTest, ThereIsOneInstance) {
  EXPECT_EQ(&TarnikMetaCache::instance(), &TarnikMetaCache::instance());
}

TEST_F(MetaCacheTest, LookupFindsOnlyWhatWasAdded) {
  cache.add(1, 0xabcdef0123456789, 0xfffffffe);
  cache.add(0xffffffff00000001, 2, 3);
  EXPECT_EQ(found(1), "abcdef0123456789/fffffffe");
  EXPECT_EQ(found(0xffffffff00000001), "2/3");
  EXPECT_EQ(found(2), kNone);
}

TEST_F(MetaCacheTest, AnEntryLivesThroughTheLastSecondOfTheTimeout) {
  const struct {
    int timeout;
    std::time_t life;
  } cases[] = {{0, 0}, {10, 10}, {-1, std::numeric_limits<std::uint32_t>::max()}};
  EXPECT_EQ(foundAfterExpire(1, 0), kNone);
  for (const auto& [timeout, life] : cases) {
    test::setTime(kNow);
    if (timeout != 0) {  // which is the timeout at the start
      cache.config(timeout);
    }
    cache.add(1, 2, 3);
    EXPECT_EQ(foundAfterExpire(1, life), "2/3");
    test::setTime(kNow + life + 1);
    EXPECT_EQ(found(1), "2/3") << "past its time, but not expired yet";
    EXPECT_EQ(foundAfterExpire(1, life + 1), kNone);
  }
}

TEST_F(MetaCacheTest, ASecondAddReplacesTheEntryAndRestartsItsLife) {
  cache.config(10);
  cache.add(1, 2, 3);
  test::setTime(kNow + 10);
  cache.add(1, 4, 5);
  EXPECT_EQ(foundAfterExpire(1, 20), "4/5");
  EXPECT_EQ(foundAfterExpire(1, 21), kNone);
}

TEST_F(MetaCacheTest, UpdateRestartsTheLifeAndKeepsTheData) {
  cache.config(10);
  cache.add(1, 2, 3);
  test::setTime(kNow + 30);
  cache.update(1);
  cache.update(2);
  EXPECT_EQ(foundAfterExpire(1, 40), "2/3");
  EXPECT_EQ(foundAfterExpire(1, 41), kNone);
  EXPECT_EQ(found(2), kNone) << "update adds nothing";
}

TEST_F(MetaCacheTest, ANewTimeoutAppliesToLaterEntries) {
  cache.config(10);
  cache.add(1, 2, 3);
  cache.config(20);
  cache.add(4, 5, 6);
  EXPECT_EQ(foundAfterExpire(1, 11), kNone);
  EXPECT_EQ(found(4), "5/6");
}

TEST_F(MetaCacheTest, EraseRemovesOneEntry) {
  cache.add(1, 2, 3);
  cache.add(4, 5, 6);
  cache.erase(1);
  cache.erase(7);
  EXPECT_EQ(found(1), kNone);
  EXPECT_EQ(found(4), "5/6");
}

TEST_F(MetaCacheTest, ExpireRemovesTheDueEntriesInOrder) {
  cache.config(10);
  for (std::uint64_t captureId = 1; captureId <= 6; ++captureId) {
    test::setTime(kNow + static_cast<std::time_t>(captureId % 2));
    cache.add(captureId, captureId, 1);
  }
  test::setTime(kNow + 11);
  int clockReads = 0;
  test::onTime([&] { ++clockReads; });
  setDebugLevel(4);
  cache.expire();
  setDebugLevel(0);
  EXPECT_EQ(clockReads, 1);
  EXPECT_THAT(
      test::logTexts(),
      ElementsAre("Debug: expire: entry", "Debug: expire: Expiring 0x2 (flowId=0x2, triggerId=0x1)",
                  "Debug: expire: Expiring 0x4 (flowId=0x4, triggerId=0x1)",
                  "Debug: expire: Expiring 0x6 (flowId=0x6, triggerId=0x1)"));
  EXPECT_EQ(found(2), kNone);
  EXPECT_EQ(found(5), "5/1");
}

TEST_F(MetaCacheTest, ExpireOfAnEmptyCacheIsSilent) {
  cache.add(1, 2, 3);
  cache.erase(1);
  setDebugLevel(9);
  cache.expire();
  EXPECT_THAT(test::logTexts(), IsEmpty());
}

TEST_F(MetaCacheTest, DumpListsTheEntriesInOrder) {
  std::vector<std::string> expected = {"dump: TarnikMetaCache"};
  for (std::uint64_t i = 0; i < 101; ++i) {
    cache.add(1 + i * 37 % 101, 0xf10, 70000);  // 101 is prime: each identifier once
    char line[32];
    std::snprintf(line, sizeof line, "0x%lx: 0xf10 0x11170", i + 1);
    expected.emplace_back(line);
  }
  cache.add(0xffffffffffffffff, 0xffffffffffffffff, 0xffffffff);
  expected.emplace_back("0xffffffffffffffff: 0xffffffffffffffff 0xffffffff");
  cache.dump();
  EXPECT_EQ(test::logTexts(), expected);
}

TEST_F(MetaCacheTest, OperationsAreLoggedFromDebugLevelFour) {
  for (const unsigned level : {3U, 4U}) {
    setDebugLevel(level);
    EXPECT_THAT(test::logTexts(), IsEmpty());
    cache.config(-5);
    cache.add(0xa1, 2, 3);
    (void)found(0xa2);
    cache.update(0xa3);
    cache.erase(0xa4);
  }
  EXPECT_THAT(test::logTexts(),
              ElementsAre("Debug: config: timeout=-5", "Debug: add: Add metatdata for 0xa1",
                          "Debug: lookup: Lookup metadata for 0xa2",
                          "Debug: update: Update expireTime for 0xa3",
                          "Debug: erase: Remove metadata for 0xa4"));
}

// The main thread changes everything while others look up and refresh. They always find whole
// entries.
TEST_F(MetaCacheTest, ReadersFindOnlyWholeEntries) {
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
