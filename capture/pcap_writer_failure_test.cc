// The PCAP writer when calls fail: results, log lines and files.
#include <sys/resource.h>
#include <unistd.h>

#include "capture/testing/writer.h"

namespace tarnik::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using PcapWriterFailureTest = WriterTest;

TEST_F(PcapWriterFailureTest, OpenFails) {
  PcapWriter writer("/var/support/tarnik/none/1f", kNoLimit);
  EXPECT_FALSE(writer.Open());
  expectLog({{LOG_ERR,
              "Error: Open: Failed to open /var/support/tarnik/none/1f: No such file or "
              "directory"}});
  EXPECT_EQ(writer.lastWriteTime(), 0);
  EXPECT_EQ(writer.info().startTime, 0);
  faults["fopen"] = {.error = EMFILE};
  EXPECT_FALSE(PcapWriter(kWorking, kNoLimit).Open());
  expectLog({{LOG_ERR, "Error: Open: Failed to open /var/support/tarnik/1f: Too many open files"}});
  EXPECT_TRUE(writer.Close());
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, OpenWritesOnlyAPartOfTheHeader) {
  {
    PcapWriter writer(kWorking, kNoLimit);
    faults["fwrite"] = {.error = ENOSPC, .bytes = 23};
    EXPECT_FALSE(writer.Open());
    expectLog({{LOG_ERR,
                "Error: WritePCAPHeader: Failed to write PCAP header: No space left on device"}});
    EXPECT_EQ(writer.lastWriteTime(), 0);
    EXPECT_NE(writer.info().startTime, 0);
    EXPECT_THAT(entries(), ElementsAre("1f"));  // the stream is open until destruction
  }
  expectLog({{LOG_WARNING,
              "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/1f]"}});
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, AHeaderThatWasNotFlushedIsWrittenLater) {
  for (const rlim_t reached : {rlim_t{0}, rlim_t{1}, rlim_t{23}}) {
    emptyCaptureDir();
    PcapWriter writer(kWorking, kNoLimit);
    {
      const LimitedSize limited(reached);
      EXPECT_TRUE(writer.Open());
    }
    EXPECT_THAT(logLines(), IsEmpty());
    EXPECT_NE(writer.lastWriteTime(), 0);
    EXPECT_TRUE(write(writer, 100));
    writer.Update(kFinal, 7, "uuid", 12);
    EXPECT_TRUE(writer.Close());
    EXPECT_EQ(recordsIn(kFinal), 1U);
  }
}

TEST_F(PcapWriterFailureTest, OpenLeavesDescriptorsForOtherFiles) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const auto open = [&](rlim_t spare) {
    const int lowestFree = ::dup(0);
    ::close(lowestFree);
    const rlimit limit{static_cast<rlim_t>(lowestFree) + spare, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const bool opened = PcapWriter(kWorking, kNoLimit).Open();
    ::setrlimit(RLIMIT_NOFILE, &before);
    return opened;
  };
  std::vector<OwnedFd> others;
  const auto use = [&others](std::size_t count) {
    while (others.size() < count) {
      others.emplace_back(::dup(0));
    }
  };
  use(20);
  EXPECT_TRUE(open(10)) << "of few descriptors a quarter is left";
  use(100);
  EXPECT_TRUE(open(17));
  clearLog();
  EXPECT_FALSE(open(16));
  expectLog({{LOG_ERR, "Error: Open: Failed to open /var/support/tarnik/1f: Too many open files"}});
}

// A write that fails after some bytes of the record header or the data.
TEST_F(PcapWriterFailureTest, AFailedWriteLeavesWholeRecords) {
  const struct {
    int call;           // 0: the record header, 1: the data
    std::size_t bytes;  // that still reach the file
    bool writesAgain;
  } kFaults[] = {{0, 0, false}, {0, 1, false},  {0, 15, true}, {1, 0, false},
                 {1, 1, true},  {1, 99, false}, {1, 50, true}};
  for (const auto& [call, bytes, writesAgain] : kFaults) {
    SCOPED_TRACE(testing::Message() << "call " << call << ", bytes " << bytes);
    emptyCaptureDir();
    fixedTime = 1700000000;
    const auto writer = started();
    fixedTime = 1700000001;
    faults["fwrite"] = {.error = ENOSPC, .after = call, .bytes = bytes};
    EXPECT_FALSE(write(*writer, 100, 1));
    expectLog({{LOG_ERR, std::string("Error: Write: Failed to write packet") +
                             (call == 0 ? " header" : "") + ": No space left on device"}});
    EXPECT_EQ(writer->status(), 0);
    EXPECT_EQ(writer->lastWriteTime(), 1700000000);
    EXPECT_EQ(writer->bytesWritten(), 116U);
    EXPECT_EQ(recordsIn(kWorking), 1U);
    std::vector<Record> expected = {{0, 0, 100, bytesOf(frameData(100))}};
    if (writesAgain) {
      EXPECT_TRUE(write(*writer, 200, 2));
      EXPECT_EQ(writer->bytesWritten(), 116U + 216);
      expected.push_back({2, 0, 200, bytesOf(frameData(200, 2))});
    }
    EXPECT_TRUE(writer->Close());
    EXPECT_EQ(parsePcap(readFile(kFinal)), expected);
    EXPECT_THAT(logLines(), IsEmpty());
  }
}

// A partial record that cannot be truncated: the next write and Close try again.
TEST_F(PcapWriterFailureTest, TruncationFails) {
  for (const int times : {1, 2, 3, 100}) {
    SCOPED_TRACE(times);
    emptyCaptureDir();
    const auto writer = started();
    faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
    faults["ftruncate"] = {.error = EROFS, .times = times};
    EXPECT_FALSE(write(*writer, 100, 1));
    clearLog();
    EXPECT_EQ(write(*writer, 100, 2), times == 1);
    if (times > 1) {
      expectLog({{LOG_ERR, "Error: Write: Failed to write packet header: Read-only file system"}});
    }
    EXPECT_EQ(writer->Close(), times < 100);
    if (times < 100) {
      EXPECT_EQ(recordsIn(kFinal), times == 1 ? 2U : 1U);
      EXPECT_THAT(logLines(), IsEmpty());
    } else {
      expectLog({{LOG_ERR,
                  "Error: Finalize: Failed to finalize [/var/support/tarnik/a.pcap]: Read-only "
                  "file system"}});
      EXPECT_THAT(entries(), ElementsAre("1f")) << "a partial record is not published";
    }
  }
}

// Then only the records before the last buffer are known to be whole.
TEST_F(PcapWriterFailureTest, TheFileCannotBeReadForTruncation) {
  constexpr char kMoved[] = "/var/support/tarnik/moved";
  const auto writer = started();
  for (unsigned i = 1; i < 1000; ++i) {
    ASSERT_TRUE(write(*writer, 100, i));
  }
  const auto before = sizeOf(kWorking);
  faults["fwrite"] = {.error = ENOSPC, .after = 1, .bytes = 50};
  std::filesystem::rename(kWorking, kMoved);
  EXPECT_FALSE(write(*writer, 100, 1000));
  EXPECT_GT(recordsIn(kMoved), 100U);
  EXPECT_LE(sizeOf(kMoved), before);
  EXPECT_EQ(kPcapHeader.size() + writer->bytesWritten(), sizeOf(kMoved));
}

TEST_F(PcapWriterFailureTest, FlushAtCloseFails) {
  const auto writer = started();
  faults["fflush"] = {.error = ENOSPC};
  EXPECT_TRUE(writer->Close());
  expectLog({{LOG_ERR, "Error: Close: Lost 1 record(s) of [/var/support/tarnik/1f]"},
             {LOG_ERR,
              "Error: Close: Failed to close [/var/support/tarnik/1f]: No space left on device"}});
  EXPECT_EQ(readFile(kFinal), kPcapHeader) << "the record was still in the buffer";
}

// The buffer is lost twice, once with the header of the file.
TEST_F(PcapWriterFailureTest, ALostRecordIsCountedOnce) {
  const LogLine lost{LOG_ERR, "Error: Write: Lost 1 record(s) of [/var/support/tarnik/1f]"};
  const auto writer = std::make_unique<PcapWriter>(kWorking, kNoLimit);
  {
    const LimitedSize limited(0);
    EXPECT_TRUE(writer->Open());
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(write(*writer, 100));
      writer->limitBuffer(100);
      expectLog({{LOG_ERR, "Error: Write: Failed to write packet: File too large"}, lost});
      EXPECT_EQ(writer->bytesWritten(), 0U);
      writer->limitBuffer(kLargestBuffer);
    }
  }
  EXPECT_TRUE(write(*writer, 100));
  writer->Update(kFinal, 7, "uuid", 12);
  EXPECT_TRUE(writer->Close());
  EXPECT_EQ(recordsIn(kFinal), 1U);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, CloseFailsAndFreesTheStream) {
  auto writer = started();
  faults["fclose"] = {.error = EDQUOT};
  EXPECT_FALSE(writer->Close());
  expectLog(
      {{LOG_ERR, "Error: Close: Failed to close [/var/support/tarnik/1f]: Disk quota exceeded"}});
  EXPECT_THAT(entries(), ElementsAre("1f"));
  EXPECT_EQ(recordsIn(kWorking), 1U);

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
  expectLog({{LOG_ERR,
              "Error: Finalize: Failed to finalize [/var/support/tarnik/none/a.pcap]: No such file "
              "or directory"}});
  EXPECT_THAT(entries(), ElementsAre("1f"));
  EXPECT_EQ(recordsIn(kWorking), 1U);
  EXPECT_TRUE(writer->Close());
  writer.reset();
  EXPECT_THAT(logLines(), IsEmpty());
}

// Neither its file nor its info file.
TEST_F(PcapWriterFailureTest, NeverReplacesAnotherCapture) {
  for (const int unsupported : {0, EINVAL, ENOSYS}) {
    SCOPED_TRACE(unsupported);
    emptyCaptureDir();
    writeFile(kFinal, "another");
    auto writer = started();
    if (unsupported != 0) {
      faults["renameat2"] = {.error = unsupported};
    }
    EXPECT_FALSE(writer->Close());
    writer.reset();
    expectLog({{LOG_ERR,
                "Error: Finalize: Failed to finalize [/var/support/tarnik/a.pcap]: File exists"}});
    EXPECT_THAT(entries(), ElementsAre("1f", "a.pcap"));
    EXPECT_EQ(readFile(kFinal), "another");
    EXPECT_EQ(recordsIn(kWorking), 1U);
    clearFaults();
  }
}

// As after an earlier capture whose file was removed, or one whose issue name contains ".pcap".
TEST_F(PcapWriterFailureTest, ReplacesTheInfoFileOfAnEarlierCapture) {
  emptyCaptureDir();
  writeFile(kCaptureDir + std::string("a.info"), "another");
  EXPECT_TRUE(started()->Close());
  EXPECT_THAT(entries(), ElementsAre("a.info", "a.pcap"));
  EXPECT_NE(readFile(kCaptureDir + std::string("a.info")), "another");
}

// On a file system that cannot rename without replacing.
TEST_F(PcapWriterFailureTest, MovesTheFileByALinkWhereNecessary) {
  for (const int unsupported : {EINVAL, ENOSYS}) {
    emptyCaptureDir();
    faults["renameat2"] = {.error = unsupported};
    EXPECT_TRUE(started()->Close());
    EXPECT_THAT(entries(), ElementsAre("a.info", "a.pcap"));
    EXPECT_EQ(recordsIn(kFinal), 1U);
  }
  const struct {
    std::map<std::string, Fault> faults;
    std::string error;
  } kFailures[] = {
      {{{"renameat2", {.error = EACCES}}}, "Permission denied"},
      {{{"renameat2", {.error = EINVAL}}, {"link", {.error = EMLINK}}}, "Too many links"},
      {{{"renameat2", {.error = EINVAL}}, {"unlink", {.error = EIO}}}, "Input/output error"},
  };
  for (const auto& failure : kFailures) {
    emptyCaptureDir();
    const auto writer = started();
    faults = failure.faults;
    EXPECT_FALSE(writer->Close());
    expectLog({{LOG_ERR, "Error: Finalize: Failed to finalize [/var/support/tarnik/a.pcap]: " +
                             failure.error}});
    EXPECT_THAT(entries(), ElementsAre("1f"));
  }
}

TEST_F(PcapWriterFailureTest, OpenFailsWithoutMemoryForTheBuffer) {
  if (!kReplacesNew) {
    GTEST_SKIP() << "operator new cannot be made to fail";
  }
  {
    PcapWriter writer(kWorking, kNoLimit);
    faults["new"] = {};
    EXPECT_FALSE(writer.Open());
    clearFaults();
  }
  expectLog(
      {{LOG_ERR, "Error: Open: Failed to open /var/support/tarnik/1f: Cannot allocate memory"}});
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(PcapWriterFailureTest, WithoutMemoryForTheInfoTheCaptureIsRemoved) {
  if (!kReplacesNew) {
    GTEST_SKIP() << "operator new cannot be made to fail";
  }
  const auto writer = started();
  faults["new"] = {};
  const bool closed = writer->Close();
  clearFaults();
  EXPECT_TRUE(closed);
  EXPECT_EQ(logLines().back(), (LogLine{LOG_WARNING,
                                        "Warning: Finalize: Failed to generate info for "
                                        "[/var/support/tarnik/a.pcap]"}));
  EXPECT_THAT(entries(), testing::Not(Contains("a.pcap")));
}

TEST_F(PcapWriterFailureTest, RemovingACaptureWithoutNameFails) {
  const LogLine warning{
      LOG_WARNING,
      "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/1f]"};
  const LogLine failure{LOG_DEBUG,
                        "Debug: Finalize: Failed to remove [/var/support/tarnik/1f]: No such file "
                        "or directory"};
  for (const unsigned level : {0U, 1U}) {
    const auto writer = opened();
    std::filesystem::remove(kWorking);
    useDebugLevel(level);
    EXPECT_TRUE(writer->Close());
    expectLog(level == 0 ? std::vector{warning} : std::vector{warning, failure});
  }
}

TEST_F(PcapWriterFailureTest, ACaptureWithoutInfoIsRemoved) {
  std::filesystem::create_directory("/var/support/tarnik/a.info");
  const LogLine error{LOG_ERR, "Error: fini: Failed to open: /var/support/tarnik/a.info, errno=21"};
  const LogLine warning{
      LOG_WARNING, "Warning: Finalize: Failed to generate info for [/var/support/tarnik/a.pcap]"};
  const LogLine failure{LOG_DEBUG,
                        "Debug: Finalize: Failed to remove [/var/support/tarnik/a.pcap]: Operation "
                        "not permitted"};
  const LogLine done{LOG_DEBUG, "Debug: Finalize: Finalized [/var/support/tarnik/a.pcap]"};
  const auto close = [](unsigned level) {
    const auto writer = started();
    useDebugLevel(level);
    EXPECT_TRUE(writer->Close());
    std::vector<LogLine> lines = logLines();
    std::erase_if(lines, [](const auto& line) { return line.text.starts_with("Debug: fini:"); });
    return lines;
  };
  EXPECT_EQ(close(0), (std::vector{error, warning}));
  EXPECT_THAT(entries(), ElementsAre("a.info"));
  EXPECT_EQ(close(4).back(), done);
  for (const unsigned level : {0U, 1U}) {
    std::filesystem::remove(kFinal);
    faults["remove"] = {.error = EPERM};
    std::vector expected = {error, warning};
    if (level > 0) {
      expected.push_back(failure);
    }
    EXPECT_EQ(close(level), expected);
    EXPECT_THAT(entries(), ElementsAre("a.info", "a.pcap"));
  }
}

}  // namespace
}  // namespace tarnik::test
