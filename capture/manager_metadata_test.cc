// Metadata that arrives early, late, never, again or changed; idle captures; the end of all
// captures.
#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class MetadataTest : public test::ManagerTest {};

TEST_F(MetadataTest, MetadataNamesTheCaptureWhenItArrives) {
  announce(1, 70000);
  ASSERT_EQ(consume(1, 100, 1), 0);
  ASSERT_EQ(consume(2, 100, 1), 0);
  ASSERT_EQ(consume(2, 100, 2), 0);
  announce(2, 5);
  wait(60);
  for (const std::uint64_t captureId : {1U, 2U}) {
    ASSERT_EQ(consume(captureId, 100, 3), 0);
  }
  wait(70);
  ASSERT_EQ(consumeLast(2, 4), 0);
  EXPECT_THAT(captures(), ElementsAre("20240305-070909.naprule-5.0.pcap"));
  EXPECT_THAT(records(captures().at(0)),
              ElementsAre(record(100, 1), record(100, 2), record(100, 3), record(100, 4)));
  manager.CloseWriters();
  EXPECT_EQ(captures().at(0), "20240305-070809.ips.web.1.pcap");
}

TEST_F(MetadataTest, ACaptureWithoutMetadataIsRemovedInTheEnd) {
  ASSERT_EQ(consume(0xabc), 0);
  ASSERT_EQ(consume(0xabc), 0);
  EXPECT_THAT(entries(), ElementsAre("abc"));
  EXPECT_THAT(test::logTexts(), IsEmpty());
  manager.CloseWriters();
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(MetadataTest, ANamedWriterNeedsNoLookup) {
  expectSteps(
      [&] {
        announce(0xabc, 70000);
        ASSERT_EQ(consume(0xabc), 0);
        TarnikMetaCache::instance().erase(0xabc);
      },
      [&] { EXPECT_TRUE(manager.ProcessMetaData(*writerOf(0xabc), 0xabc)); },
      {{4, "Debug: LookupConnWriter: captureId=0xabc"},
       {4, "Debug: LookupConnWriter: Found captureId=0xabc"},
       {4, "Debug: ProcessMetaData: captureId=0xabc"}});
}

TEST_F(MetadataTest, MetadataMayChangeUntilTheCaptureIsNamed) {
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
  for (const std::uint32_t flags : {0U, kPktLastFrame}) {
    test::clearLog();
    ASSERT_EQ(consume(0xabc, 100, 1, flags), 0) << "the frame is written nevertheless";
    EXPECT_THAT(test::logTexts(),
                ElementsAre("Error: UpdateWriter: Failed issue name lookup: 0x13880",
                            "Error: ProcessMetaData: Failed to update writer: 0xabc"));
  }
  EXPECT_THAT(entries(), ElementsAre("abc")) << "a capture without a name does not end";
  test::writeFile(test::kIssuesPath, "80000,new\n");
  ASSERT_EQ(reload({}), 0);
  ASSERT_EQ(consumeLast(0xabc, 3), 0);
  ASSERT_THAT(captures(), ElementsAre("20240305-070809.ips.new.3.pcap"))
      << "each failure used a number";
  EXPECT_THAT(records(captures()[0]), SizeIs(3));
}

TEST_F(MetadataTest, ALastFrameBeforeTheMetadataDoesNotEndTheCapture) {
  ASSERT_EQ(consumeLast(1), 0);
  ASSERT_EQ(consumeLast(2), 0);
  announce(1, 70000);
  announce(2, 70000);
  ASSERT_EQ(consume(1), 0);
  EXPECT_THAT(entries(), ElementsAre("1", "2"));
  wait(121);
  manager.ExpireWriters();
  EXPECT_THAT(captures(), SizeIs(2));
}

TEST_F(MetadataTest, EveryWrittenFrameRefreshesTheMetadata) {
  TarnikMetaCache::instance().config(10);
  announce(1, 70000);
  for (std::time_t second = 8; second < 40; second += 8) {
    wait(second);
    ASSERT_EQ(consume(1), 0);
    TarnikMetaCache::instance().expire();
    ASSERT_TRUE(announced(1)) << second;
  }
  wait(42);
  EXPECT_EQ(consume(1, 0), 6) << "not written, so not refreshed";
  wait(43);
  TarnikMetaCache::instance().expire();
  EXPECT_FALSE(announced(1));
}

TEST_F(MetadataTest, AFirstFrameThatIsNotWrittenRefreshesNothing) {
  TarnikMetaCache::instance().config(10);
  std::filesystem::create_directory(std::string(kCaptureDir) + "1");
  for (const std::uint64_t captureId : {1U, 2U, 3U}) {
    announce(captureId, 70000);
  }
  wait(8);
  EXPECT_EQ(consume(1), 5);
  EXPECT_EQ(consume(2, 0), 6);
  EXPECT_EQ(consume(3, 1'000'000), 11);
  wait(11);
  TarnikMetaCache::instance().expire();
  for (const std::uint64_t captureId : {1U, 2U, 3U}) {
    EXPECT_FALSE(announced(captureId)) << captureId;
  }
}

TEST_F(MetadataTest, AWriterExpiresWhenItWasIdleForLongerThanAllowed) {
  announce(1, 70000);
  announce(2, 70000);
  ASSERT_EQ(consume(1), 0);
  wait(1);
  for (const std::uint64_t captureId : {2U, 3U, 4U}) {
    ASSERT_EQ(consume(captureId), 0);
  }
  wait(120);
  ASSERT_EQ(consume(4), 0);
  const std::vector<std::pair<std::time_t, unsigned>> cases = {
      {-100'000, 0}, {120, 0}, {121, 1}, {122, 2}, {240, 2}};
  for (const auto& [second, closed] : cases) {
    wait(second);
    manager.ExpireWriters();
    EXPECT_THAT(captures(), SizeIs(closed)) << second;
  }
  EXPECT_THAT(entries(), SizeIs(5)) << "two captures, their info files, and 4, which got a frame";
}

// Expiry and the end of all captures close each capture in the same steps.
class ClosingTest : public MetadataTest, public testing::WithParamInterface<const char*> {
 protected:
  void close() {
    GetParam() == std::string("CloseWriters") ? manager.CloseWriters() : manager.ExpireWriters();
  }
  test::Step first() const {
    return {4, GetParam() == std::string("CloseWriters")
                   ? "Debug: CloseWriters: Closing writers"
                   : "Debug: ExpireWriters: Expiring writers"};
  }
};

TEST_P(ClosingTest, StepsWithoutMetadata) {
  expectSteps(
      [&] {
        ASSERT_EQ(consume(0xa), 0);
        wait(121);
      },
      [&] { close(); },
      {first(),
       {4, "Debug: ProcessMetaData: captureId=0xa"},
       {4, "Debug: lookup: Lookup metadata for 0xa"},
       {4, "Debug: ProcessMetaData: No metadata: 0x0"},
       {1, "Debug: " + std::string(GetParam()) + ": No metadata for flow 0xa"},
       {4, "Debug: EraseConnWriter: captureId=0xa"},
       {0, "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/a]"}});
}

TEST_P(ClosingTest, StepsOfANamedCapture) {
  expectSteps(
      [&] {
        announce(0xa, 70000);
        ASSERT_EQ(consume(0xa), 0);
        wait(121);
      },
      [&] { close(); },
      {first(),
       {4, "Debug: ProcessMetaData: captureId=0xa"},
       {4, "Debug: EraseConnWriter: captureId=0xa"}});
}

TEST_P(ClosingTest, LateMetadataStillNamesTheCapture) {
  ASSERT_EQ(consume(1), 0);
  announce(1, 65535);
  wait(121);
  close();
  EXPECT_THAT(captures(), ElementsAre("20240305-071010.unknown.0.pcap"));
  close();
  EXPECT_THAT(captures(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(, ClosingTest, testing::Values("ExpireWriters", "CloseWriters"));

}  // namespace
}  // namespace tarnik
