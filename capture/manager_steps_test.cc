// ConsumeFrame: the steps it takes, as the log and the event journal tell them.
#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::LogLine;
using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

class StepsTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(init({}), 0);
  }
  void TearDown() override {
    test::onEvent({});
    ManagerTest::TearDown();
  }
};

TEST_F(StepsTest, OfANewCapture) {
  manager.UpdateUsageCounters();
  const std::string used = std::to_string(manager.diskUsed());
  announce(0xabc, 70001, 0x77);
  useDebugLevel(4);
  ASSERT_EQ(consume(0xabc, 100, 0, 1), 0);
  EXPECT_THAT(
      steps(),
      ElementsAre(
          "Debug: ConsumeFrame: captureId=0xabc, flags=0x1, 0/1000 " + used + "/1000000000",
          "Debug: LookupConnWriter: captureId=0xabc",
          "Debug: LookupConnWriter: Not found captureId=0xabc",
          "Debug: ConsumeFrame: New writer: 0xabc", "Debug: update: Update expireTime for 0xabc",
          "Debug: ProcessMetaData: captureId=0xabc", "Debug: lookup: Lookup metadata for 0xabc",
          "Debug: ProcessMetaData: Found metadata: 0x77", "Debug: UpdateWriter: triggerId=70001",
          "Debug: LookupIssueName: issueId=0x11171", "Debug: LookupIssueName: 70001=X_Y ",
          "Debug: UpdateWriter: /var/support/tarnik/20240305-070809.ips.X_Y.1.pcap",
          "Debug: PushConnWriter: captureId=0xabc"));
  EXPECT_EQ(manager.diskUsed(), std::stoul(used)) << "a frame does not measure";
}

TEST_F(StepsTest, OfAnOpenCaptureUntilItsEnd) {
  announce(0xabc, 70001);
  ASSERT_EQ(consume(0xabc), 0);
  useDebugLevel(4);
  ASSERT_EQ(consume(0xabc, 100, 0, kPktLastFrame), 0);
  const std::vector<std::string> taken = steps();
  ASSERT_THAT(taken, SizeIs(7));
  EXPECT_TRUE(taken[0].starts_with("Debug: ConsumeFrame: captureId=0xabc, flags=0x4, "));
  EXPECT_THAT(std::vector(taken.begin() + 1, taken.end()),
              ElementsAre("Debug: LookupConnWriter: captureId=0xabc",
                          "Debug: LookupConnWriter: Found captureId=0xabc",
                          "Debug: ConsumeFrame: Cached writer: 0xabc",
                          "Debug: update: Update expireTime for 0xabc",
                          "Debug: ProcessMetaData: captureId=0xabc",
                          "Debug: EraseConnWriter: captureId=0xabc"));
}

TEST_F(StepsTest, TheyAreToldFromTheirLevelsOn) {
  announce(1, 70000);
  useDebugLevel(1);
  ASSERT_EQ(consume(1), 0);
  EXPECT_THAT(steps(), ElementsAre("Debug: LookupIssueName: 70000=web ",
                                   "Debug: UpdateWriter: "
                                   "/var/support/tarnik/20240305-070809.ips.web.1.pcap"));
  useDebugLevel(2);
  ASSERT_EQ(consume(1), 0);
  EXPECT_THAT(steps(), ElementsAre("Debug: ConsumeFrame: captureId=0x1, flags=0x0, 0/1000 "
                                   "0/1000000000"));
  useDebugLevel(3);
  ASSERT_EQ(consume(1), 0);
  EXPECT_THAT(steps(), SizeIs(1));
  for (const LogLine& line : test::logLines()) {
    EXPECT_EQ(line.priority, LOG_DEBUG);
  }
}

// A capture's whole life, named by an issue, by a rule and not at all.
TEST_F(StepsTest, AtLevelThreeTheFinerStepsAreNotTold) {
  announce(1, 70000);
  announce(2, 5);
  useDebugLevel(3);
  for (const std::uint64_t captureId : {1U, 2U, 3U}) {
    ASSERT_EQ(consume(captureId), 0);
    ASSERT_EQ(consume(captureId, 100, 0, kPktLastFrame), 0);
  }
  EXPECT_EQ(consume(3, 0), 6);
  EXPECT_THAT(
      steps(),
      ElementsAre("Debug: ConsumeFrame: captureId=0x1, flags=0x0, 0/1000 0/1000000000",
                  "Debug: LookupIssueName: 70000=web ",
                  "Debug: UpdateWriter: /var/support/tarnik/20240305-070809.ips.web.1.pcap",
                  "Debug: ConsumeFrame: captureId=0x1, flags=0x4, 0/1000 0/1000000000",
                  "Debug: ConsumeFrame: captureId=0x2, flags=0x0, 0/1000 0/1000000000",
                  "Debug: LookupNapUuid: 5=uuid-five ",
                  "Debug: UpdateWriter: /var/support/tarnik/20240305-070809.naprule-5.2.pcap",
                  "Debug: ConsumeFrame: captureId=0x2, flags=0x4, 0/1000 0/1000000000",
                  "Debug: ConsumeFrame: captureId=0x3, flags=0x0, 0/1000 0/1000000000",
                  "Debug: ConsumeFrame: captureId=0x3, flags=0x4, 0/1000 0/1000000000",
                  "Debug: ConsumeFrame: captureId=0x3, flags=0x0, 0/1000 0/1000000000",
                  StartsWith("Error: Write: frameData="),
                  "Error: ConsumeFrame: Failed write to 0x3",
                  "Warning: Finalize: Failed to determine capture name for "
                  "[/var/support/tarnik/3]"));
}

// An open capture is gone from the table when the event is raised, its file is closed on return.
TEST_F(StepsTest, TheEventOfTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  announce(2, 70000);
  ASSERT_EQ(consume(2, 984), 0);
  std::vector<std::string> files;
  std::string last;
  test::onEvent([&] {
    files = entries();
    last = steps().back();
  });
  useDebugLevel(4);
  EXPECT_EQ(consume(1, 985), 11);
  EXPECT_EQ(last, "Error: ConsumeFrame: File size limit reached for 0x1");
  EXPECT_THAT(files, ElementsAre("1", "2"));
  EXPECT_EQ(consume(2, 1), 11);
  EXPECT_EQ(last, "Debug: EraseConnWriter: captureId=0x2");
  EXPECT_THAT(files, ElementsAre("2"));
}

TEST_F(StepsTest, TheEventsOfTheDirectorysLimitsFollowTheirLines) {
  std::string last;
  test::onEvent([&] { last = steps().back(); });
  ASSERT_EQ(reload({.diskSpace = 1}), 0);
  manager.UpdateUsageCounters();
  EXPECT_EQ(consume(1), 9);
  EXPECT_THAT(last, StartsWith("Warning: ConsumeFrame: Disk space limit exceeded="));
  test::writeFile(std::string(kCaptureDir) + "a.pcap", "");
  ASSERT_EQ(reload({.fileCount = 0}), 0);
  manager.UpdateUsageCounters();
  EXPECT_EQ(consume(1), 10) << "arms the event";
  EXPECT_EQ(consume(1), 10);
  EXPECT_THAT(last, StartsWith("Warning: ConsumeFrame: Files limit exceeded="));
}

}  // namespace
}  // namespace tarnik
