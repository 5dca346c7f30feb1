// The PCAP writer when no call fails.
#include "capture/pcap_writer.h"

#include <pcap/pcap.h>

#include "base/testing/counted_memory.h"
#include "capture/testing/writer.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::MatchesRegex;

using PcapWriterTest = WriterTest;

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

TEST_F(PcapWriterTest, OpensOnceAndWritesTheHeaderAtOnce) {
  writeFile(kWorking, "the file of an earlier capture, longer than the header of a new one");
  fixedTime = 1700000000;
  const auto writer = opened();
  fixedTime = 1700000005;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(readFile(kWorking), kPcapHeader);
    EXPECT_EQ(writer->info().startTime, 1700000000);
    EXPECT_EQ(writer->lastWriteTime(), 1700000000);
    EXPECT_EQ(writer->bytesWritten(), 0U);
    EXPECT_TRUE(writer->Open());
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterTest, RecordsHaveTheTimesAndLengthsOfTheirFrames) {
  const auto writer = opened();
  const auto first = frameData(60);
  const auto second = frameData(2000, 1);  // longer than the header's snaplen
  ASSERT_TRUE(writer->Write(frame(0x11223344, 60, 0x55667788, 0x99aabbcc), first.data()));
  ASSERT_TRUE(writer->Write(frame(9000, 2000, 2, 3), second.data()));
  EXPECT_EQ(writer->bytesWritten(), 60U + 16 + 2000 + 16);
  writer->Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer->Close());
  const Bytes header("\x88\x77\x66\x55\xcc\xbb\xaa\x99\x3c\0\0\0\x44\x33\x22\x11", 16);
  const Bytes next("\x02\0\0\0\x03\0\0\0\xd0\x07\0\0\x28\x23\0\0", 16);
  EXPECT_EQ(readFile(kFinal), kPcapHeader + header + bytesOf(first) + next + bytesOf(second));
}

TEST_F(PcapWriterTest, LibpcapReadsTheFile) {
  const auto writer = started();
  const auto data = frameData(200, 1);
  ASSERT_TRUE(writer->Write(frame(542, 200, 1700000002, 999999), data.data()));
  ASSERT_TRUE(writer->Close());
  char error[PCAP_ERRBUF_SIZE];
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> file(pcap_open_offline(kFinal, error),
                                                            &pcap_close);
  ASSERT_NE(file, nullptr) << error;
  EXPECT_EQ(pcap_datalink(file.get()), DLT_EN10MB);
  EXPECT_EQ(pcap_snapshot(file.get()), 1500);
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  ASSERT_EQ(pcap_next_ex(file.get(), &header, &bytes), 1);
  ASSERT_EQ(pcap_next_ex(file.get(), &header, &bytes), 1);
  EXPECT_EQ(header->ts.tv_sec, 1700000002);
  EXPECT_EQ(header->ts.tv_usec, 999999);
  EXPECT_EQ(header->len, 542U);
  EXPECT_EQ(Bytes(bytes, bytes + header->caplen), bytesOf(data));
  EXPECT_EQ(pcap_next_ex(file.get(), &header, &bytes), PCAP_ERROR_BREAK);
}

TEST_F(PcapWriterTest, AFrameAllocatesNothing) {
  const auto writer = opened();
  const auto data = frameData(3000);
  const FrameHeader frames[] = {frame(60, 60), frame(1500, 1500), frame(3000, 3000)};
  const std::uint64_t before = allocations();
  for (int i = 0; i < 1000; ++i) {
    for (const FrameHeader& one : frames) {
      ASSERT_TRUE(writer->Write(one, data.data()));
    }
  }
  EXPECT_EQ(allocations() - before, 0U);
}

TEST_F(PcapWriterTest, RecordsWaitInTheBuffer) {
  for (const std::size_t buffer : {std::size_t{4096}, std::size_t{10000}, kLargestBuffer}) {
    const auto writer = opened(kNoLimit, buffer);
    for (unsigned i = 0; i < 3 * kLargestBuffer / 116; ++i) {
      ASSERT_TRUE(write(*writer, 100));
      const std::size_t waiting = kPcapHeader.size() + writer->bytesWritten() - sizeOf(kWorking);
      ASSERT_LE(waiting, buffer);
      if (writer->bytesWritten() + 116 < buffer) {
        ASSERT_EQ(waiting, writer->bytesWritten());
      }
    }
  }
}

TEST_F(PcapWriterTest, ALowerLimitOfTheBufferWritesWhatWaits) {
  const auto writer = opened();
  const auto waiting = [&] {
    return kPcapHeader.size() + writer->bytesWritten() - sizeOf(kWorking);
  };
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(write(*writer, 84));
  }
  writer->limitBuffer(1000);
  EXPECT_EQ(waiting(), 1000U);
  writer->limitBuffer(999);
  EXPECT_EQ(waiting(), 0U);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(write(*writer, 84));
    ASSERT_LE(waiting(), 999U);
  }
  writer->limitBuffer(2000);
  while (waiting() < 1500) {
    ASSERT_TRUE(write(*writer, 84));
  }
  writer->Update(kFinal, 7, "uuid", 12);
  ASSERT_TRUE(writer->Close());
  EXPECT_EQ(recordsIn(kFinal) * 100, writer->bytesWritten());
}

TEST_F(PcapWriterTest, OnlyAnAcceptedFrameChangesTheTime) {
  fixedTime = 1700000000;
  const auto writer = opened(200);
  fixedTime = 1700000007;
  ASSERT_TRUE(write(*writer, 100));
  EXPECT_EQ(writer->lastWriteTime(), 1700000007);
  fixedTime = 1700000009;
  EXPECT_FALSE(write(*writer, 100));
  EXPECT_EQ(writer->lastWriteTime(), 1700000007);
}

TEST_F(PcapWriterTest, RefusesInvalidFrames) {
  const auto data = frameData(60);
  PcapWriter closed(kWorking, kNoLimit);
  EXPECT_FALSE(closed.Write(frame(60, 60), data.data()));
  const auto writer = opened();
  EXPECT_FALSE(writer->Write(frame(60, 60), nullptr));
  EXPECT_FALSE(writer->Write(frame(60, 0), data.data()));
  const auto refused = [](const std::string& values) {
    return testing::AllOf(Field(&LogLine::priority, LOG_ERR),
                          Field(&LogLine::text, MatchesRegex("Error: Write: " + values)));
  };
  EXPECT_THAT(logLines(),
              ElementsAre(refused("frameData=0x[0-9a-f]+, fileStream=\\(nil\\) size=60"),
                          refused("frameData=\\(nil\\), fileStream=0x[0-9a-f]+ size=60"),
                          refused("frameData=0x[0-9a-f]+, fileStream=0x[0-9a-f]+ size=0")));
  EXPECT_EQ(writer->status(), 0);
  EXPECT_EQ(writer->bytesWritten(), 0U);
  writer->Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer->Close());
  EXPECT_EQ(readFile(kFinal), kPcapHeader);
}

// The data pointer of an invalid frame is checked before its size.
TEST_F(PcapWriterTest, AFrameWithoutDataIsNotTooLarge) {
  const auto writer = opened(10);
  EXPECT_FALSE(writer->Write(frame(60, 60), nullptr));
  EXPECT_EQ(writer->status(), 0);
}

TEST_F(PcapWriterTest, TheSizeLimitCountsRecordsOnly) {
  const auto writer = opened(1000);
  EXPECT_FALSE(write(*writer, 985));
  EXPECT_EQ(writer->status(), 11);
  EXPECT_EQ(writer->bytesWritten(), 0U);
  ASSERT_TRUE(write(*writer, 100));  // a smaller frame is still accepted
  EXPECT_FALSE(write(*writer, 869));
  ASSERT_TRUE(write(*writer, 868));
  EXPECT_FALSE(write(*writer, 1));
  EXPECT_EQ(writer->bytesWritten(), 1000U);
  EXPECT_THAT(logLines(), IsEmpty());
  writer->Update(kFinal, 70000, "X_Y", 1);
  ASSERT_TRUE(writer->Close());
  EXPECT_EQ(sizeOf(kFinal), 1024U);
}

// The length comes from shared memory. The sum of the sizes must not overflow.
TEST_F(PcapWriterTest, RefusesTheLargestLength) {
  const auto writer = opened(std::uint64_t{0xffffffff} + 15);
  const std::uint8_t byte = 1;
  EXPECT_FALSE(writer->Write(frame(60, 0xffffffff), &byte));
  EXPECT_EQ(writer->status(), 11);
}

TEST_F(PcapWriterTest, TheLastUpdateCounts) {
  PcapWriter writer(kWorking, kNoLimit);
  writer.Update("/var/support/tarnik/b.naprule-7.0.pcap", 7, "uuid-7", -5);
  EXPECT_TRUE(writer.named());
  writer.Update(kFinal, 70000, "X_Y", 12);
  EXPECT_EQ(writer.finalPath(), kFinal);
  EXPECT_EQ(writer.info().capturePath, kFinal);
  EXPECT_EQ(writer.info().infoPath, "/var/support/tarnik/a.info");
  EXPECT_EQ(writer.info().policyId, 70000U);
  EXPECT_EQ(writer.info().policyName, "X_Y");
  EXPECT_EQ(writer.info().flowId, 12);
}

TEST_F(PcapWriterTest, CloseMovesTheFileAndWritesItsInfo) {
  fixedTime = 1700000000;
  const auto writer = started();
  writer->Update(kFinal, 70000, "X_Y", 12);
  fixedTime = 1700000042;
  ASSERT_TRUE(writer->Close());
  EXPECT_THAT(entries(), ElementsAre("a.info", "a.pcap"));
  EXPECT_EQ(readFile("/var/support/tarnik/a.info"),
            "time.start=1700000000\ntime.end=1700000042\ntime.format=utc\nips.issue.id=70000\n"
            "ips.issue.name=X_Y\nips.flow.id=12\nfile.size=140");
  EXPECT_EQ(recordsIn(kFinal), 1U);
  EXPECT_THAT(logLines(), IsEmpty());

  writeFile(kWorking, "the file of another capture");
  EXPECT_TRUE(writer->Close()) << "the second time it does nothing";
  EXPECT_THAT(entries(), ElementsAre("1f", "a.info", "a.pcap"));
}

TEST_F(PcapWriterTest, DestructionCloses) {
  started()->Update("/var/support/tarnik/without-extension", 65535, "uuid", 12);
  EXPECT_THAT(entries(), ElementsAre("without-extension", "without-extension.info"));
  EXPECT_THAT(readFile("/var/support/tarnik/without-extension.info"),
              testing::Optional(testing::HasSubstr("nap.priority=65535\nnap.uuid=uuid\n")));
}

TEST_F(PcapWriterTest, CloseRemovesACaptureWithoutName) {
  const auto writer = opened();
  ASSERT_TRUE(write(*writer, 100));
  EXPECT_TRUE(writer->Close());
  EXPECT_THAT(entries(), IsEmpty());
  expectLog({{LOG_WARNING,
              "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/1f]"}});
}

// Each operation, the debug level that it needs, and what it then logs.
TEST_F(PcapWriterTest, DebugLines) {
  const auto data = frameData(60);
  char written[128];
  std::snprintf(written, sizeof written,
                "Debug: Write: Writing [/var/support/tarnik/1f] [%p] size=[-1,60]",
                static_cast<const void*>(data.data()));
  const struct {
    unsigned level;
    std::function<bool(PcapWriter&)> operation;
    std::vector<std::string> lines;
  } kSteps[] = {
      {4,
       [](PcapWriter& writer) { return writer.Close(); },
       {"Debug: Close: Closing [/var/support/tarnik/1f]"}},
      {4,
       [](PcapWriter& writer) { return writer.Open(); },
       {"Debug: Open: Opening [/var/support/tarnik/1f]",
        "Debug: WritePCAPHeader: [/var/support/tarnik/1f]"}},
      {4,
       [](PcapWriter& writer) { return writer.Open(); },
       {"Debug: Open: Opening [/var/support/tarnik/1f]"}},
      {1,
       [&](PcapWriter& writer) { return writer.Write(frame(0xffffffff, 60), data.data()); },
       {written}},
      {4,
       [](PcapWriter& writer) {
         writer.Update(kFinal, 7, "uuid", 12);
         return true;
       },
       {"Debug: Update: [/var/support/tarnik/a.pcap]"}},
      {4,
       [](PcapWriter& writer) { return writer.Close(); },
       {"Debug: Close: Closing [/var/support/tarnik/1f]",
        "Debug: Finalize: Finalizing [/var/support/tarnik/1f] to [/var/support/tarnik/a.pcap]",
        "Debug: Finalize: Finalized [/var/support/tarnik/a.pcap]"}},
  };
  for (const unsigned below : {1U, 0U}) {
    emptyCaptureDir();
    PcapWriter writer(kWorking, kNoLimit);
    for (const auto& [level, operation, lines] : kSteps) {
      useDebugLevel(level - below);
      EXPECT_TRUE(operation(writer));
      std::vector<LogLine> logged = logLines();
      std::erase_if(logged, [](const auto& line) { return line.text.starts_with("Debug: fini:"); });
      std::vector<LogLine> expected;
      for (const std::string& text : lines) {
        expected.push_back({LOG_DEBUG, text});
      }
      EXPECT_EQ(logged, below == 0 ? expected : std::vector<LogLine>());
    }
  }
}

}  // namespace
}  // namespace tarnik::test
