// Metadata that comes early, late, never, again or changed; idle captures; the end of all.
#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::LogLine;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class MetadataTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(init({}), 0);
  }
  static bool cached(std::uint64_t captureId) {
    std::uint64_t flowId = 0;
    std::uint32_t triggerId = 0;
    return TarnikMetaCache::instance().lookup(captureId, flowId, triggerId);
  }
};

TEST_F(MetadataTest, EarlyMetadataNamesTheFirstFrame) {
  announce(1, 70000);
  ASSERT_EQ(consume(1, 100, 1), 0);
  test::setTime(test::kNow + 60);
  ASSERT_EQ(consume(1, 100, 2), 0);
  manager.CloseWriters();
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
}

TEST_F(MetadataTest, LateMetadataNamesTheCaptureWhenItComes) {
  ASSERT_EQ(consume(1, 100, 1), 0);
  ASSERT_EQ(consume(1, 100, 2), 0);
  announce(1, 5);
  test::setTime(test::kNow + 60);
  ASSERT_EQ(consume(1, 100, 3), 0);
  test::setTime(test::kNow + 70);
  ASSERT_EQ(consume(1, 100, 4, kPktLastFrame), 0);
  EXPECT_THAT(captures(), ElementsAre("20240305-070909.naprule-5.0.pcap"));
  EXPECT_THAT(records(captures().at(0)),
              ElementsAre(record(100, 1), record(100, 2), record(100, 3), record(100, 4)));
}

TEST_F(MetadataTest, ACaptureWithoutMetadataIsRemovedInTheEnd) {
  ASSERT_EQ(consume(0xabc), 0);
  ASSERT_EQ(consume(0xabc), 0);
  EXPECT_THAT(entries(), ElementsAre("abc"));
  EXPECT_THAT(test::logLines(), IsEmpty());
  manager.CloseWriters();
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_WARNING,
                                  "Warning: Finalize: Failed to determine capture name "
                                  "for [/var/support/tarnik/abc]"}));
}

TEST_F(MetadataTest, AbsentMetadataIsToldWithTheFlowThatIsNotKnown) {
  ASSERT_EQ(consume(0xabc), 0);
  CaptureManager::Writer writer;
  CaptureManager::WriterTable::iterator position;
  ASSERT_TRUE(manager.LookupConnWriter(0xabc, writer, position));
  useDebugLevel(4);
  EXPECT_FALSE(manager.ProcessMetaData(*writer, 0xabc));
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: ProcessMetaData: captureId=0xabc"},
                          LogLine{LOG_DEBUG, "Debug: lookup: Lookup metadata for 0xabc"},
                          LogLine{LOG_DEBUG, "Debug: ProcessMetaData: No metadata: 0x0"}));
}

TEST_F(MetadataTest, ANamedWriterLooksNothingUp) {
  announce(0xabc, 70000);
  ASSERT_EQ(consume(0xabc), 0);
  CaptureManager::Writer writer;
  CaptureManager::WriterTable::iterator position;
  ASSERT_TRUE(manager.LookupConnWriter(0xabc, writer, position));
  TarnikMetaCache::instance().erase(0xabc);
  useDebugLevel(4);
  EXPECT_TRUE(manager.ProcessMetaData(*writer, 0xabc));
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: ProcessMetaData: captureId=0xabc"}));
}

TEST_F(MetadataTest, RepeatedMetadataChangesNothing) {
  announce(1, 70000);
  ASSERT_EQ(consume(1), 0);
  announce(1, 70000);
  ASSERT_EQ(consume(1), 0);
  manager.CloseWriters();
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
}

TEST_F(MetadataTest, ChangedMetadataCountsUntilTheCaptureIsNamed) {
  announce(1, 70000);
  announce(1, 70001);
  ASSERT_EQ(consume(1), 0);
  announce(1, 5);
  ASSERT_EQ(consume(1), 0);
  manager.CloseWriters();
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.X_Y.1.pcap"));
}

TEST_F(MetadataTest, AnUnknownTriggerIsTriedAgain) {
  announce(0xabc, 80000);
  ASSERT_EQ(consume(0xabc, 100, 1), 0) << "the frame is written all the same";
  const std::vector<LogLine> failure{
      {LOG_ERR, "Error: UpdateWriter: Failed issue name lookup: 0x13880"},
      {LOG_ERR, "Error: ProcessMetaData: Failed to update writer: 0xabc"}};
  EXPECT_EQ(test::logLines(), failure);
  test::clearLog();
  ASSERT_EQ(consume(0xabc, 100, 2, kPktLastFrame), 0);
  EXPECT_EQ(test::logLines(), failure);
  EXPECT_THAT(entries(), ElementsAre("abc")) << "not named, so not ended";
  test::writeFile(test::kIssuesPath, "80000,new\n");
  ASSERT_EQ(reload({}), 0);
  ASSERT_EQ(consume(0xabc, 100, 3, kPktLastFrame), 0);
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.new.3.pcap"))
      << "the two failures used up a number each";
  EXPECT_THAT(records(captures().at(0)), SizeIs(3));
}

TEST_F(MetadataTest, AnEndBeforeTheMetadataWaits) {
  ASSERT_EQ(consume(1, 100, 1, kPktLastFrame), 0);
  ASSERT_EQ(consume(2, 100, 1, kPktLastFrame), 0);
  announce(1, 70000);
  announce(2, 70000);
  EXPECT_THAT(entries(), ElementsAre("1", "2"));
  ASSERT_EQ(consume(1, 100, 2), 0) << "a frame behind the last one";
  EXPECT_THAT(entries(), ElementsAre("1", "2")) << "that flag is forgotten";
  test::setTime(test::kNow + 121);
  manager.ExpireWriters();
  EXPECT_THAT(captures(), SizeIs(2));
}

TEST_F(MetadataTest, EveryWrittenFrameRefreshesTheMetadata) {
  TarnikMetaCache::instance().config(10);
  announce(1, 70000);
  for (std::time_t second = 8; second < 40; second += 8) {
    test::setTime(test::kNow + second);
    ASSERT_EQ(consume(1), 0);
    TarnikMetaCache::instance().expire();
    ASSERT_TRUE(cached(1)) << second;
  }
  test::setTime(test::kNow + 42);
  EXPECT_EQ(consume(1, 0), 6) << "not written, not refreshed";
  test::setTime(test::kNow + 43);
  TarnikMetaCache::instance().expire();
  EXPECT_FALSE(cached(1));
}

TEST_F(MetadataTest, AFirstFrameThatIsNotWrittenRefreshesNothing) {
  TarnikMetaCache::instance().config(10);
  for (const std::uint64_t captureId : {1U, 2U, 3U}) {
    announce(captureId, 70000);
  }
  std::filesystem::create_directory(std::string(kCaptureDir) + "1");
  test::setTime(test::kNow + 8);
  EXPECT_EQ(consume(1), 5);
  EXPECT_EQ(consume(2, 0), 6);
  EXPECT_EQ(consume(3, 1'000'000), 11);
  test::setTime(test::kNow + 11);
  TarnikMetaCache::instance().expire();
  for (const std::uint64_t captureId : {1U, 2U, 3U}) {
    EXPECT_FALSE(cached(captureId)) << captureId;
  }
}

TEST_F(MetadataTest, WritersExpireWhenTheyHaveBeenIdleForLonger) {
  announce(1, 70000);
  announce(2, 70000);
  ASSERT_EQ(consume(1), 0);
  test::setTime(test::kNow + 1);
  ASSERT_EQ(consume(2), 0);
  ASSERT_EQ(consume(3), 0);
  test::setTime(test::kNow + 120);
  manager.ExpireWriters();
  EXPECT_THAT(captures(), IsEmpty()) << "idle for just as long as allowed";
  test::setTime(test::kNow + 121);
  manager.ExpireWriters();
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
  test::setTime(test::kNow + 122);
  manager.ExpireWriters();
  EXPECT_THAT(captures(), SizeIs(2));
  EXPECT_THAT(entries(), SizeIs(4)) << "two captures with their infos; 3 had no metadata";
}

TEST_F(MetadataTest, AFrameMakesAWriterBusyAgain) {
  ASSERT_EQ(consume(1), 0);
  test::setTime(test::kNow + 120);
  ASSERT_EQ(consume(1), 0);
  test::setTime(test::kNow + 240);
  manager.ExpireWriters();
  EXPECT_THAT(entries(), ElementsAre("1"));
}

TEST_F(MetadataTest, AClockSetBackExpiresNothing) {
  ASSERT_EQ(consume(1), 0);
  test::setTime(1000);
  manager.ExpireWriters();
  EXPECT_THAT(entries(), ElementsAre("1"));
}

TEST_F(MetadataTest, ExpiryTellsItsSteps) {
  ASSERT_EQ(consume(0xa), 0);
  test::setTime(test::kNow + 121);
  ASSERT_EQ(consume(0xb), 0);
  useDebugLevel(4);
  manager.ExpireWriters();
  EXPECT_THAT(steps(), ElementsAre("Debug: ExpireWriters: Expiring writers",
                                   "Debug: ProcessMetaData: captureId=0xa",
                                   "Debug: lookup: Lookup metadata for 0xa",
                                   "Debug: ProcessMetaData: No metadata: 0x0",
                                   "Debug: ExpireWriters: No metadata for flow 0xa",
                                   "Debug: EraseConnWriter: captureId=0xa",
                                   "Warning: Finalize: Failed to determine capture name for "
                                   "[/var/support/tarnik/a]"));
  test::setTime(test::kNow + 242);
  useDebugLevel(1);
  manager.ExpireWriters();
  EXPECT_THAT(steps(), ElementsAre("Debug: ExpireWriters: No metadata for flow 0xb",
                                   "Warning: Finalize: Failed to determine capture name for "
                                   "[/var/support/tarnik/b]"));
}

TEST_F(MetadataTest, TheEndOfACaptureIsNotToldBelowItsLevels) {
  for (const unsigned level : {0u, 3u}) {
    ASSERT_EQ(consume(0xa), 0);
    announce(0xb, 70000);
    ASSERT_EQ(consume(0xb), 0);
    test::setTime(test::kNow + 121);
    ASSERT_EQ(consume(0xc), 0);
    announce(0xd, 70000);
    ASSERT_EQ(consume(0xd), 0);
    useDebugLevel(level);
    manager.ExpireWriters();
    manager.CloseWriters();
    std::vector<std::string> told = steps();
    std::erase_if(told, [](const std::string& text) { return text.starts_with("Warning: "); });
    if (level == 0) {
      EXPECT_THAT(told, IsEmpty());
    } else {
      EXPECT_THAT(told, ElementsAre("Debug: ExpireWriters: No metadata for flow 0xa",
                                    "Debug: CloseWriters: No metadata for flow 0xc"));
    }
    useDebugLevel(0);
    test::setTime(test::kNow);
  }
}

TEST_F(MetadataTest, ANamedCaptureGoesWithoutARemark) {
  for (const bool idle : {true, false}) {
    announce(0xa, 70000);
    ASSERT_EQ(consume(0xa), 0);
    test::setTime(test::kNow + 121);
    useDebugLevel(4);
    idle ? manager.ExpireWriters() : manager.CloseWriters();
    EXPECT_THAT(steps(), ElementsAre(idle ? "Debug: ExpireWriters: Expiring writers"
                                          : "Debug: CloseWriters: Closing writers",
                                     "Debug: ProcessMetaData: captureId=0xa",
                                     "Debug: EraseConnWriter: captureId=0xa"));
    useDebugLevel(0);
  }
}

TEST_F(MetadataTest, ClosingTellsItsSteps) {
  ASSERT_EQ(consume(0xa), 0);
  useDebugLevel(4);
  manager.CloseWriters();
  EXPECT_THAT(steps(), ElementsAre("Debug: CloseWriters: Closing writers",
                                   "Debug: ProcessMetaData: captureId=0xa",
                                   "Debug: lookup: Lookup metadata for 0xa",
                                   "Debug: ProcessMetaData: No metadata: 0x0",
                                   "Debug: CloseWriters: No metadata for flow 0xa",
                                   "Debug: EraseConnWriter: captureId=0xa",
                                   "Warning: Finalize: Failed to determine capture name for "
                                   "[/var/support/tarnik/a]"));
  ASSERT_EQ(consume(0xb), 0);
  useDebugLevel(1);
  manager.CloseWriters();
  EXPECT_EQ(steps().at(0), "Debug: CloseWriters: No metadata for flow 0xb");
}

TEST_F(MetadataTest, ClosingGivesLateMetadataItsLastChance) {
  ASSERT_EQ(consume(1), 0);
  announce(1, 65535);
  manager.CloseWriters();
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.unknown.1.pcap"));
  manager.CloseWriters();
  EXPECT_THAT(captures(), SizeIs(1));
}

}  // namespace
}  // namespace tarnik
