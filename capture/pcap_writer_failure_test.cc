// The PCAP writer against every call that fails: result, message, and what is on disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "base/log.h"
#include "base/testing/captured_log.h"
#include "capture/pcap_writer.h"
#include "capture/testing/call_faults.h"
#include "capture/testing/files.h"

namespace tarnik::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kWorking[] = "/var/support/tarnik/1f";
constexpr char kFinal[] = "/var/support/tarnik/a.pcap";
constexpr std::uint64_t kNoLimit = 1U << 30U;

class PcapWriterFailureTest : public testing::Test {
 protected:
  PcapWriterFailureTest() {
    emptyCaptureDir();
    clearFaults();
    clearLog();
    setDebugLevel(0);
  }
  ~PcapWriterFailureTest() override {
    clearFaults();
    setDebugLevel(0);
  }

  // A named writer with one record of 100 bytes.
  static std::unique_ptr<PcapWriter> started() {
    auto writer = std::make_unique<PcapWriter>(kWorking, kNoLimit);
    EXPECT_TRUE(writer->Open());
    EXPECT_TRUE(write(*writer, 100));
    writer->Update(kFinal, 7, "uuid", 12);
    return writer;
  }

  static bool write(PcapWriter& writer, std::uint32_t size, unsigned seed = 0) {
    const auto data = frameData(size, seed);
    return writer.Write(frame(size, size, seed, 0), data.data());
  }

  static std::size_t recordsIn(const char* path) {
    const auto records = parsePcap(readFile(path));
    EXPECT_TRUE(records) << "torn: " << path;
    return records ? records->size() : 0;
  }

  static void expectLog(int priority, const std::string& text) {
    EXPECT_THAT(logLines(), ElementsAre(LogLine{priority, text}));
  }
};

TEST_F(PcapWriterFailureTest, OpenWithoutDirectory) {
  PcapWriter writer("/var/support/tarnik/none/1f", kNoLimit);
  EXPECT_FALSE(writer.Open());
  expectLog(LOG_ERR,
            "Error: Open: Failed to open /var/support/tarnik/none/1f: No such file or directory");
  EXPECT_EQ(writer.lastWriteTime(), 0);
  EXPECT_EQ(writer.info().startTime, 0);
}

TEST_F(PcapWriterFailureTest, OpenWithoutDescriptors) {
  PcapWriter writer(kWorking, kNoLimit);
  faults["fopen"] = {.error = EMFILE};
  EXPECT_FALSE(writer.Open());
  expectLog(LOG_ERR, "Error: Open: Failed to open /var/support/tarnik/1f: Too many open files");
  clearLog();
  EXPECT_TRUE(writer.Close());
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, TheHeaderIsCutShort) {
  {
    PcapWriter writer(kWorking, kNoLimit);
    faults["fwrite"] = {.error = ENOSPC, .bytes = 23};
    EXPECT_FALSE(writer.Open());
    expectLog(LOG_ERR,
              "Error: WritePCAPHeader: Failed to write PCAP header: No space left on device");
    EXPECT_EQ(writer.lastWriteTime(), 0);
    EXPECT_NE(writer.info().startTime, 0);
    EXPECT_THAT(entries(), ElementsAre("1f"));  // the stream stays open
    clearLog();
  }
  expectLog(LOG_WARNING,
            "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/1f]");
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, ALostFlushOfTheHeaderIsMadeUpFor) {
  PcapWriter writer(kWorking, kNoLimit);
  faults["fflush"] = {.error = ENOSPC};
  EXPECT_TRUE(writer.Open());
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_NE(writer.lastWriteTime(), 0);
  EXPECT_TRUE(write(writer, 100));
  writer.Update(kFinal, 7, "uuid", 12);
  EXPECT_TRUE(writer.Close());
  EXPECT_EQ(recordsIn(kFinal), 1U);
}

TEST_F(PcapWriterFailureTest, TheRecordHeaderFails) {
  for (const std::size_t reached : {std::size_t{0}, std::size_t{1}, std::size_t{15}}) {
    const auto writer = started();
    faults["fwrite"] = {.error = ENOSPC, .bytes = reached};
    EXPECT_FALSE(write(*writer, 100, 1));
    expectLog(LOG_ERR, "Error: Write: Failed to write packet header: No space left on device");
    EXPECT_EQ(writer->status(), 0);
    EXPECT_EQ(writer->bytesWritten(), 116U);
    EXPECT_EQ(recordsIn(kWorking), 1U);
    clearLog();
    EXPECT_TRUE(writer->Close());
    EXPECT_THAT(logLines(), IsEmpty());
    EXPECT_EQ(recordsIn(kFinal), 1U);
  }
}

TEST_F(PcapWriterFailureTest, TheDataFail) {
  for (const std::size_t reached : {std::size_t{0}, std::size_t{1}, std::size_t{99}}) {
    const auto writer = started();
    faults["fwrite"] = {.error = EIO, .after = 1, .bytes = reached};
    EXPECT_FALSE(write(*writer, 100, 1));
    expectLog(LOG_ERR, "Error: Write: Failed to write packet: Input/output error");
    EXPECT_EQ(writer->status(), 0);
    EXPECT_EQ(recordsIn(kWorking), 1U);
    clearLog();
    EXPECT_TRUE(writer->Close());
    EXPECT_EQ(recordsIn(kFinal), 1U);
  }
}

TEST_F(PcapWriterFailureTest, AFailedWriteDoesNotChangeTheTime) {
  fixedTime = 1700000000;
  const auto writer = started();
  fixedTime = 1700000001;
  faults["fwrite"] = {.error = EIO};
  EXPECT_FALSE(write(*writer, 100, 1));
  EXPECT_EQ(writer->lastWriteTime(), 1700000000);
}

TEST_F(PcapWriterFailureTest, WritingGoesOnBehindTheLastWholeRecord) {
  const auto writer = started();
  faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
  EXPECT_FALSE(write(*writer, 100, 1));
  EXPECT_TRUE(write(*writer, 200, 2));
  EXPECT_EQ(writer->bytesWritten(), 116U + 216);
  EXPECT_TRUE(writer->Close());
  const auto records = parsePcap(readFile(kFinal));
  ASSERT_TRUE(records);
  ASSERT_EQ(records->size(), 2U);
  EXPECT_EQ((*records)[0].data, bytesOf(frameData(100)));
  EXPECT_EQ((*records)[1].data, bytesOf(frameData(200, 2)));
}

// Half a record that cannot be cut off is tried again, and in the end not published.
TEST_F(PcapWriterFailureTest, HalfARecordThatStays) {
  const auto writer = started();
  faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
  faults["ftruncate"] = {.error = EROFS, .times = 100};
  EXPECT_FALSE(write(*writer, 100, 1));
  clearLog();
  EXPECT_FALSE(write(*writer, 100, 2));
  expectLog(LOG_ERR, "Error: Write: Failed to write packet header: Read-only file system");
  clearLog();
  EXPECT_FALSE(writer->Close());
  expectLog(LOG_ERR,
            "Error: Finalize: Failed to finalize [/var/support/tarnik/a.pcap]: Read-only file "
            "system");
  EXPECT_THAT(entries(), ElementsAre("1f"));
}

TEST_F(PcapWriterFailureTest, HalfARecordIsCutOffWhenThatWorksAgain) {
  for (const bool goesOn : {false, true}) {
    const auto writer = started();
    faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
    faults["ftruncate"] = {.error = EROFS};
    EXPECT_FALSE(write(*writer, 100, 1));
    if (goesOn) {
      EXPECT_TRUE(write(*writer, 100, 2));
    }
    EXPECT_TRUE(writer->Close());
    EXPECT_EQ(recordsIn(kFinal), goesOn ? 2U : 1U);
  }
}

// Then what stays is what is known to be on disk: all but the last buffer.
TEST_F(PcapWriterFailureTest, TheFileCannotBeReadBack) {
  constexpr char kMoved[] = "/var/support/tarnik/moved";
  const auto writer = started();
  for (unsigned i = 1; i < 1000; ++i) {
    ASSERT_TRUE(write(*writer, 100, i));
  }
  const std::size_t before = readFile(kWorking).size();
  faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
  std::filesystem::rename(kWorking, kMoved);
  EXPECT_FALSE(write(*writer, 100, 1000));
  EXPECT_GT(recordsIn(kMoved), 100U);
  EXPECT_LE(readFile(kMoved).size(), before);
  EXPECT_EQ(kPcapHeader.size() + writer->bytesWritten(), readFile(kMoved).size());
}

TEST_F(PcapWriterFailureTest, FlushAtCloseFails) {
  const auto writer = started();
  faults["fflush"] = {.error = ENOSPC};
  EXPECT_TRUE(writer->Close());
  expectLog(LOG_ERR,
            "Error: Close: Failed to close [/var/support/tarnik/1f]: No space left on device");
  EXPECT_EQ(readFile(kFinal), kPcapHeader);  // nothing else had reached the file
}

TEST_F(PcapWriterFailureTest, CloseFails) {
  auto writer = started();
  faults["fclose"] = {.error = EDQUOT};
  EXPECT_FALSE(writer->Close());
  expectLog(LOG_ERR, "Error: Close: Failed to close [/var/support/tarnik/1f]: Disk quota exceeded");
  EXPECT_THAT(entries(), ElementsAre("1f"));
  EXPECT_EQ(recordsIn(kWorking), 1U);

  // The stream is gone whatever fclose said: it is neither written to nor closed again.
  clearLog();
  EXPECT_FALSE(write(*writer, 100));
  EXPECT_THAT(logLines()[0].text, testing::HasSubstr("fileStream=(nil) size=100"));
  clearLog();
  EXPECT_TRUE(writer->Close());
  writer.reset();
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_THAT(entries(), ElementsAre("1f"));
}

TEST_F(PcapWriterFailureTest, RenameFails) {
  auto writer = started();
  writer->Update("/var/support/tarnik/none/a.pcap", 7, "uuid", 12);
  EXPECT_FALSE(writer->Close());
  expectLog(LOG_ERR,
            "Error: Finalize: Failed to finalize [/var/support/tarnik/none/a.pcap]: No such file "
            "or directory");
  EXPECT_THAT(entries(), ElementsAre("1f"));
  EXPECT_EQ(recordsIn(kWorking), 1U);
  clearLog();
  EXPECT_TRUE(writer->Close());
  writer.reset();
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, RemovingANamelessCaptureFails) {
  for (const unsigned level : {0U, 1U}) {
    PcapWriter writer(kWorking, kNoLimit);
    ASSERT_TRUE(writer.Open());
    std::filesystem::remove(kWorking);
    clearLog();
    setDebugLevel(level);
    EXPECT_TRUE(writer.Close());
    setDebugLevel(0);
  }
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          LogLine{
              LOG_WARNING,
              "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/1f]"},
          LogLine{LOG_DEBUG,
                  "Debug: Finalize: Failed to remove [/var/support/tarnik/1f]: No such file or "
                  "directory"}));
}

TEST_F(PcapWriterFailureTest, WithoutInfoTheCaptureIsDeleted) {
  auto writer = started();
  std::filesystem::create_directory("/var/support/tarnik/a.info");
  EXPECT_TRUE(writer->Close());
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_ERR,
                                  "Error: fini: Failed to open: /var/support/tarnik/a.info, "
                                  "errno=21"},
                          LogLine{LOG_WARNING,
                                  "Warning: Finalize: Failed to generate info for "
                                  "[/var/support/tarnik/a.pcap]"}));
  EXPECT_THAT(entries(), ElementsAre("a.info"));
}

TEST_F(PcapWriterFailureTest, ACaptureDeletedForItsInfoIsFinalizedAllTheSame) {
  auto writer = started();
  std::filesystem::create_directory("/var/support/tarnik/a.info");
  setDebugLevel(4);
  clearLog();
  EXPECT_TRUE(writer->Close());
  EXPECT_EQ(logLines().back(),
            (LogLine{LOG_DEBUG, "Debug: Finalize: Finalized [/var/support/tarnik/a.pcap]"}));
}

TEST_F(PcapWriterFailureTest, DeletingTheCaptureWithoutInfoFails) {
  std::filesystem::create_directory("/var/support/tarnik/a.info");
  for (const unsigned level : {0U, 1U}) {
    auto writer = started();
    faults["remove"] = {.error = EPERM};
    clearLog();
    setDebugLevel(level);
    EXPECT_TRUE(writer->Close());
    setDebugLevel(0);
    EXPECT_THAT(entries(), ElementsAre("a.info", "a.pcap"));
    EXPECT_EQ(
        testing::Value(
            logLines(),
            testing::Contains(LogLine{
                LOG_DEBUG,
                "Debug: Finalize: Failed to remove [/var/support/tarnik/a.pcap]: Operation not "
                "permitted"})),
        level > 0);
  }
}

}  // namespace
}  // namespace tarnik::test
