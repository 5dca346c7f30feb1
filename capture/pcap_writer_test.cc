// The PCAP writer while nothing fails but what its caller asks for.
#include "capture/pcap_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/testing/call_faults.h"
#include "capture/testing/files.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kWorking[] = "/var/support/tarnik/1f";
constexpr char kFinal[] = "/var/support/tarnik/a.ips.X_Y.1.pcap";
constexpr char kInfo[] = "/var/support/tarnik/a.ips.X_Y.1.info";
constexpr std::uint64_t kNoLimit = 1U << 30U;

class PcapWriterTest : public testing::Test {
 protected:
  PcapWriterTest() {
    emptyCaptureDir();
    clearFaults();
    clearLog();
    setDebugLevel(0);
  }
  ~PcapWriterTest() override {
    clearFaults();
    setDebugLevel(0);
  }
};

bool write(PcapWriter& writer, std::uint32_t size, unsigned seed = 0) {
  const auto data = frameData(size, seed);
  return writer.Write(frame(size, size, seed, 0), data.data());
}

TEST_F(PcapWriterTest, StartsEmpty) {
  const PcapWriter writer(kWorking, 4711);
  EXPECT_EQ(writer.workingPath(), kWorking);
  EXPECT_EQ(writer.finalPath(), "");
  EXPECT_EQ(writer.bytesWritten(), 0U);
  EXPECT_EQ(writer.lastWriteTime(), 0);
  EXPECT_FALSE(writer.named());
  EXPECT_EQ(writer.status(), 0);
  EXPECT_EQ(writer.maxFileSize(), 4711U);
  EXPECT_EQ(writer.info().timeFormat, "utc");
  EXPECT_EQ(writer.info().startTime, 0);
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(PcapWriterTest, OpenPutsTheHeaderOnDisk) {
  writeFile(kWorking, "what an earlier capture of this identifier left, longer than the header");
  fixedTime = 1700000000;
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  EXPECT_EQ(readFile(kWorking), kPcapHeader);
  EXPECT_EQ(writer.info().startTime, 1700000000);
  EXPECT_EQ(writer.lastWriteTime(), 1700000000);
  EXPECT_EQ(writer.bytesWritten(), 0U);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterTest, OpenAgainDoesNothing) {
  PcapWriter writer(kWorking, kNoLimit);
  fixedTime = 1700000000;
  ASSERT_TRUE(writer.Open());
  fixedTime = 1700000005;
  setDebugLevel(4);
  ASSERT_TRUE(writer.Open());
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_DEBUG,
                                              "Debug: Open: Opening "
                                              "[/var/support/tarnik/1f]"}));
  EXPECT_EQ(writer.info().startTime, 1700000000);
  EXPECT_EQ(writer.lastWriteTime(), 1700000000);
  EXPECT_EQ(readFile(kWorking), kPcapHeader);
}

TEST_F(PcapWriterTest, OpenTellsAboveLevelThree) {
  PcapWriter quiet(kWorking, kNoLimit);
  setDebugLevel(3);
  ASSERT_TRUE(quiet.Open());
  EXPECT_THAT(logLines(), IsEmpty());

  PcapWriter loud("/var/support/tarnik/2f", kNoLimit);
  setDebugLevel(4);
  ASSERT_TRUE(loud.Open());
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: Open: Opening [/var/support/tarnik/2f]"},
                          LogLine{LOG_DEBUG, "Debug: WritePCAPHeader: [/var/support/tarnik/2f]"}));
}

TEST_F(PcapWriterTest, RecordsCarryTheFramesOwnTimeAndLengths) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  const auto first = frameData(60);
  const auto second = frameData(2000, 1);  // longer than the header's snaplen: written in full
  ASSERT_TRUE(writer.Write(frame(0x11223344, 60, 0x55667788, 0x99aabbcc), first.data()));
  ASSERT_TRUE(writer.Write(frame(9000, 2000, 2, 3), second.data()));
  EXPECT_EQ(writer.bytesWritten(), 60U + 16 + 2000 + 16);
  writer.Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer.Close());
  const Bytes header("\x88\x77\x66\x55\xcc\xbb\xaa\x99\x3c\0\0\0\x44\x33\x22\x11", 16);
  const Bytes next("\x02\0\0\0\x03\0\0\0\xd0\x07\0\0\x28\x23\0\0", 16);
  EXPECT_EQ(readFile(kFinal), kPcapHeader + header + bytesOf(first) + next + bytesOf(second));
}

TEST_F(PcapWriterTest, RecordsWaitInTheBuffer) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(write(writer, 100));
  EXPECT_EQ(readFile(kWorking), kPcapHeader);
  for (unsigned i = 0; i < 10000 && readFile(kWorking).size() == kPcapHeader.size(); ++i) {
    ASSERT_TRUE(write(writer, 100));
  }
  EXPECT_GT(readFile(kWorking).size(), kPcapHeader.size());
}

TEST_F(PcapWriterTest, WriteKeepsTheTime) {
  PcapWriter writer(kWorking, 200);
  fixedTime = 1700000000;
  ASSERT_TRUE(writer.Open());
  fixedTime = 1700000007;
  ASSERT_TRUE(write(writer, 100));
  EXPECT_EQ(writer.lastWriteTime(), 1700000007);
  fixedTime = 1700000009;
  EXPECT_FALSE(write(writer, 100));
  EXPECT_EQ(writer.lastWriteTime(), 1700000007);
}

TEST_F(PcapWriterTest, WriteTellsAboveLevelZero) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  const auto data = frameData(60);
  ASSERT_TRUE(writer.Write(frame(0xffffffff, 60), data.data()));
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(1);
  ASSERT_TRUE(writer.Write(frame(0xffffffff, 60), data.data()));
  char expected[128];
  std::snprintf(expected, sizeof expected,
                "Debug: Write: Writing [/var/support/tarnik/1f] [%p] size=[-1,60]",
                static_cast<const void*>(data.data()));
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_DEBUG, expected}));
}

TEST_F(PcapWriterTest, RefusesWhatIsNoFrame) {
  const auto data = frameData(60);
  const void* const address = data.data();
  char expected[128];

  PcapWriter closed(kWorking, kNoLimit);
  EXPECT_FALSE(closed.Write(frame(60, 60), data.data()));
  std::snprintf(expected, sizeof expected, "Error: Write: frameData=%p, fileStream=(nil) size=60",
                address);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_ERR, expected}));

  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  clearLog();
  EXPECT_FALSE(writer.Write(frame(60, 60), nullptr));
  EXPECT_FALSE(writer.Write(frame(60, 0), data.data()));
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          testing::Field(&LogLine::text,
                         testing::MatchesRegex(
                             "Error: Write: frameData=\\(nil\\), fileStream=0x[0-9a-f]+ size=60")),
          testing::Field(
              &LogLine::text,
              testing::MatchesRegex(
                  "Error: Write: frameData=0x[0-9a-f]+, fileStream=0x[0-9a-f]+ size=0"))));
  for (const LogLine& line : logLines()) {
    EXPECT_EQ(line.priority, LOG_ERR);
  }
  EXPECT_EQ(writer.status(), 0);
  EXPECT_EQ(writer.bytesWritten(), 0U);
  writer.Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(readFile(kFinal), kPcapHeader);
}

TEST_F(PcapWriterTest, TheLimitCountsRecordsOnly) {
  PcapWriter writer(kWorking, 1000);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(write(writer, 984));
  EXPECT_EQ(writer.status(), 0);
  EXPECT_EQ(writer.bytesWritten(), 1000U);
  clearLog();
  EXPECT_FALSE(write(writer, 1));
  EXPECT_EQ(writer.status(), 11);
  EXPECT_EQ(writer.bytesWritten(), 1000U);
  EXPECT_THAT(logLines(), IsEmpty());
  writer.Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(readFile(kFinal).size(), 1024U);
}

TEST_F(PcapWriterTest, OneByteMoreThanTheLimitIsRefused) {
  PcapWriter writer(kWorking, 1000);
  ASSERT_TRUE(writer.Open());
  EXPECT_FALSE(write(writer, 985));
  EXPECT_EQ(writer.status(), 11);
  ASSERT_TRUE(write(writer, 100));  // what fits is still taken
  EXPECT_FALSE(write(writer, 869));
  ASSERT_TRUE(write(writer, 868));
  EXPECT_EQ(writer.bytesWritten(), 1000U);
}

// The length comes out of shared memory: nothing of the data is looked at before it is bounded.
TEST_F(PcapWriterTest, TheGreatestLengthIsBounded) {
  PcapWriter writer(kWorking, std::uint64_t{0xffffffff} + 15);
  ASSERT_TRUE(writer.Open());
  const std::uint8_t byte = 1;
  EXPECT_FALSE(writer.Write(frame(60, 0xffffffff), &byte));
  EXPECT_EQ(writer.status(), 11);
}

TEST_F(PcapWriterTest, UpdateNamesTheCapture) {
  PcapWriter writer(kWorking, kNoLimit);
  writer.Update("/var/support/tarnik/b.naprule-7.0.pcap", 7, "uuid-7", -5);
  EXPECT_TRUE(writer.named());
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(3);
  writer.Update("/var/support/tarnik/b.naprule-7.0.pcap", 7, "uuid-7", -5);
  EXPECT_THAT(logLines(), IsEmpty());
  setDebugLevel(4);
  writer.Update(kFinal, 70000, "X_Y", 12);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{
                              LOG_DEBUG, "Debug: Update: [/var/support/tarnik/a.ips.X_Y.1.pcap]"}));
  EXPECT_EQ(writer.finalPath(), kFinal);
  EXPECT_EQ(writer.info().capturePath, kFinal);
  EXPECT_EQ(writer.info().infoPath, kInfo);
  EXPECT_EQ(writer.info().policyId, 70000U);
  EXPECT_EQ(writer.info().policyName, "X_Y");
  EXPECT_EQ(writer.info().flowId, 12);
}

TEST_F(PcapWriterTest, CloseMovesAndDescribes) {
  fixedTime = 1700000000;
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(write(writer, 100));
  writer.Update(kFinal, 70000, "X_Y", 12);
  fixedTime = 1700000042;
  ASSERT_TRUE(writer.Close());
  EXPECT_THAT(entries(), ElementsAre("a.ips.X_Y.1.info", "a.ips.X_Y.1.pcap"));
  EXPECT_EQ(readFile(kInfo),
            "time.start=1700000000\ntime.end=1700000042\ntime.format=utc\nips.issue.id=70000\n"
            "ips.issue.name=X_Y\nips.flow.id=12\nfile.size=140");
  ASSERT_EQ(parsePcap(readFile(kFinal)).value().size(), 1U);
  EXPECT_THAT(logLines(), IsEmpty());

  writeFile(kWorking, "somebody else's");
  EXPECT_TRUE(writer.Close());  // again: nothing is left to do
  EXPECT_THAT(entries(), ElementsAre("1f", "a.ips.X_Y.1.info", "a.ips.X_Y.1.pcap"));
}

TEST_F(PcapWriterTest, CloseTellsAboveLevelThree) {
  for (const unsigned level : {3U, 4U}) {
    PcapWriter writer(kWorking, kNoLimit);
    ASSERT_TRUE(writer.Open());
    writer.Update(kFinal, 7, "uuid", 12);
    clearLog();
    setDebugLevel(level);
    ASSERT_TRUE(writer.Close());
    setDebugLevel(0);
  }
  const std::vector<LogLine> lines = logLines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], (LogLine{LOG_DEBUG, "Debug: Close: Closing [/var/support/tarnik/1f]"}));
  EXPECT_EQ(lines[1], (LogLine{LOG_DEBUG,
                               "Debug: Finalize: Finalizing [/var/support/tarnik/1f] to "
                               "[/var/support/tarnik/a.ips.X_Y.1.pcap]"}));
  EXPECT_EQ(
      lines.back(),
      (LogLine{LOG_DEBUG, "Debug: Finalize: Finalized [/var/support/tarnik/a.ips.X_Y.1.pcap]"}));
}

TEST_F(PcapWriterTest, AtLevelThreeCloseKeepsItsOwnLinesBack) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  writer.Update(kFinal, 7, "uuid", 12);
  setDebugLevel(3);
  ASSERT_TRUE(writer.Close());
  for (const LogLine& line : logLines()) {
    EXPECT_THAT(line.text, testing::StartsWith("Debug: fini: Executing ["));
  }
}

TEST_F(PcapWriterTest, AClosedWriterTellsOnlyThat) {
  setDebugLevel(4);
  PcapWriter writer(kWorking, kNoLimit);
  EXPECT_TRUE(writer.Close());
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: Close: Closing [/var/support/tarnik/1f]"}));
}

TEST_F(PcapWriterTest, ACaptureWithoutNameIsDropped) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  ASSERT_TRUE(write(writer, 100));
  EXPECT_TRUE(writer.Close());
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_WARNING,
                                  "Warning: Finalize: Failed to determine capture name for "
                                  "[/var/support/tarnik/1f]"}));
}

TEST_F(PcapWriterTest, DestructionCloses) {
  {
    PcapWriter writer(kWorking, kNoLimit);
    ASSERT_TRUE(writer.Open());
    ASSERT_TRUE(write(writer, 100));
    writer.Update(kFinal, 65535, "uuid", 12);
  }
  EXPECT_THAT(entries(), ElementsAre("a.ips.X_Y.1.info", "a.ips.X_Y.1.pcap"));
  EXPECT_THAT(readFile(kInfo), testing::HasSubstr("nap.priority=65535\nnap.uuid=uuid\n"));
}

TEST_F(PcapWriterTest, AFinalPathWithoutExtensionGetsOneForItsInfo) {
  PcapWriter writer(kWorking, kNoLimit);
  ASSERT_TRUE(writer.Open());
  writer.Update("/var/support/tarnik/cut-name", 7, "uuid", 12);
  EXPECT_EQ(writer.info().infoPath, "/var/support/tarnik/cut-name.info");
  ASSERT_TRUE(writer.Close());
  EXPECT_THAT(entries(), ElementsAre("cut-name", "cut-name.info"));
}

}  // namespace
}  // namespace tarnik::test
