// ConsumeFrame: which steps it takes, in which order, with which result.
#include <sys/resource.h>

#include <cinttypes>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::Event;
using test::LogLine;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class FramesTest : public test::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(init({}), 0);
  }
  bool inTable(std::uint64_t captureId) {
    CaptureManager::Writer writer;
    CaptureManager::WriterTable::iterator position;
    return manager.LookupConnWriter(captureId, writer, position);
  }
};

TEST_F(FramesTest, OneFileHoldsAllFramesOfACapture) {
  announce(1, 70000);
  announce(2, 70001);
  for (unsigned seed = 0; seed < 5; ++seed) {
    ASSERT_EQ(consume(1, 60 + seed, seed), 0);
    ASSERT_EQ(consume(2, 1600, seed + 100), 0);
  }
  manager.CloseWriters();
  EXPECT_THAT(captures(),
              ElementsAre("20240305-070809.ips.X_Y.2.pcap", "20240305-070809.ips.web.1.pcap"));
  EXPECT_THAT(records(captures().at(1)), ElementsAre(record(60, 0), record(61, 1), record(62, 2),
                                                     record(63, 3), record(64, 4)));
  EXPECT_THAT(records(captures().at(0)), SizeIs(5));
}

TEST_F(FramesTest, TheWorkingNameIsTheCaptureInHexadecimal) {
  ASSERT_EQ(consume(0), 0);
  ASSERT_EQ(consume(0xdeadbeef), 0);
  ASSERT_EQ(consume(0xfffffffffffffffe), 0);
  EXPECT_THAT(entries(), ElementsAre("0", "deadbeef", "fffffffffffffffe"));
}

TEST_F(FramesTest, ASingleLastFrameLeavesAFileAndNoWriter) {
  announce(1, 70000);
  EXPECT_EQ(consume(1, 100, 3, kPktLastFrame), 0);
  EXPECT_FALSE(inTable(1));
  EXPECT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 3)));
}

TEST_F(FramesTest, OnlyTheLastFrameFlagEndsACapture) {
  announce(1, 70000);
  announce(2, 70000);
  for (const std::uint32_t flags : {0u, 1u, 2u, 8u, 0xfffffffbu}) {
    EXPECT_EQ(consume(1, 100, 0, flags), 0);
    EXPECT_TRUE(inTable(1));
  }
  EXPECT_EQ(consume(1, 100, 0, 5), 0);
  EXPECT_FALSE(inTable(1));
  EXPECT_EQ(consume(2, 100, 0, 0xffffffff), 0);
  EXPECT_FALSE(inTable(2));
}

TEST_F(FramesTest, AFileThatCannotBeOpened) {
  std::filesystem::create_directory(std::string(kCaptureDir) + "abc");
  EXPECT_EQ(consume(0xabc), 5);
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR,
                                  "Error: Open: Failed to open /var/support/tarnik/abc: Is "
                                  "a directory"},
                          LogLine{LOG_ERR, "Error: ConsumeFrame: Open [abc] failed"}));
  EXPECT_FALSE(inTable(0xabc));
  EXPECT_THAT(test::events(), IsEmpty());
}

TEST_F(FramesTest, AFirstFrameThatCannotBeWritten) {
  announce(0xabc, 70000);
  EXPECT_EQ(consume(0xabc, 0), 6);
  EXPECT_THAT(test::logLinesAboveDebug().at(1),
              (LogLine{LOG_ERR, "Error: ConsumeFrame: Failed write to 0xabc"}));
  EXPECT_THAT(test::logLinesAboveDebug(), SizeIs(3)) << "the writer's error, ours, the removal";
  EXPECT_FALSE(inTable(0xabc));
  EXPECT_THAT(entries(), IsEmpty()) << "it never had a name";
}

TEST_F(FramesTest, ALaterFrameThatCannotBeWrittenEndsTheCapture) {
  announce(0xabc, 70000);
  ASSERT_EQ(consume(0xabc, 100, 1), 0);
  useDebugLevel(4);
  EXPECT_EQ(consume(0xabc, 0), 6);
  EXPECT_THAT(steps(), Contains("Error: ConsumeFrame: Failed write to 0xabc"));
  EXPECT_EQ(steps().back(), "Debug: EraseConnWriter: captureId=0xabc") << "nothing refreshed";
  EXPECT_FALSE(inTable(0xabc));
  EXPECT_THAT(test::events(), IsEmpty());
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1)));
}

TEST_F(FramesTest, AFirstFrameOverTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  EXPECT_EQ(consume(0xabc, 985), 11);
  const std::vector<LogLine> lines = test::logLines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], (LogLine{LOG_ERR, "Error: ConsumeFrame: Failed write to 0xabc"}));
  EXPECT_EQ(lines[1], (LogLine{LOG_ERR, "Error: ConsumeFrame: File size limit reached for 0xabc"}));
  EXPECT_EQ(lines[2].priority, LOG_WARNING) << "the nameless file is removed afterwards";
  EXPECT_THAT(test::events(), ElementsAre(Event{"VRKPC0003I", "VRK_events", "MaxFileSize=1000 "}));
  EXPECT_FALSE(inTable(0xabc));
  EXPECT_THAT(entries(), IsEmpty());
}

// The frame that does not fit is lost; the next one begins a file of its own.
TEST_F(FramesTest, ACaptureGoesOnAfterTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  announce(0xabc, 70000);
  ASSERT_EQ(consume(0xabc, 484, 1), 0);
  ASSERT_EQ(consume(0xabc, 484, 2), 0) << "exactly full";
  useDebugLevel(4);
  EXPECT_EQ(consume(0xabc, 1, 3), 11);
  const std::vector<std::string> taken = steps();
  EXPECT_THAT(std::vector(taken.end() - 3, taken.end()),
              ElementsAre("Error: ConsumeFrame: Failed write to 0xabc",
                          "Error: ConsumeFrame: File size limit reached for 0xabc",
                          "Debug: EraseConnWriter: captureId=0xabc"));
  EXPECT_THAT(test::events(), ElementsAre(Event{"VRKPC0003I", "VRK_events", "MaxFileSize=1000 "}));
  EXPECT_FALSE(inTable(0xabc));
  useDebugLevel(0);
  ASSERT_EQ(consume(0xabc, 484, 4), 0);
  manager.CloseWriters();
  ASSERT_THAT(captures(),
              ElementsAre("20240305-070809.ips.web.1.pcap", "20240305-070809.ips.web.2.pcap"));
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(484, 1), record(484, 2)));
  EXPECT_THAT(records(captures().at(1)), ElementsAre(record(484, 4)));
}

TEST_F(FramesTest, AnEventIsRaisedForEveryFrameOverTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 20, .eventInterval = 1000, .eventThreshold = 1000}), 0);
  for (int frame = 0; frame < 3; ++frame) {
    EXPECT_EQ(consume(1), 11);
  }
  EXPECT_THAT(test::events(), SizeIs(3));
}

TEST_F(FramesTest, PushReplacesAWriterAndClosesTheFormerOne) {
  ASSERT_EQ(consume(1), 0);
  const auto other = std::make_shared<PcapWriter>(std::string(kCaptureDir) + "other", 1000);
  useDebugLevel(4);
  manager.PushConnWriter(1, other);
  EXPECT_THAT(steps(), ElementsAre("Debug: PushConnWriter: captureId=0x1",
                                   "Warning: Finalize: Failed to determine capture name for "
                                   "[/var/support/tarnik/1]"));
  CaptureManager::Writer found;
  CaptureManager::WriterTable::iterator position;
  EXPECT_TRUE(manager.LookupConnWriter(1, found, position));
  EXPECT_EQ(found, other);
  EXPECT_EQ(position->first, 1u);
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(FramesTest, ErasingTheEndChangesNothing) {
  ASSERT_EQ(consume(1), 0);
  CaptureManager::Writer writer;
  CaptureManager::WriterTable::iterator end;
  ASSERT_FALSE(manager.LookupConnWriter(2, writer, end));
  EXPECT_EQ(writer, nullptr);
  useDebugLevel(4);
  manager.EraseConnWriter(end);
  EXPECT_THAT(test::logLines(), IsEmpty());
  EXPECT_TRUE(inTable(1));

  CaptureManager::WriterTable::iterator position;
  ASSERT_TRUE(manager.LookupConnWriter(1, writer, position));
  manager.EraseConnWriter(position);
  EXPECT_EQ(position, end);
  EXPECT_THAT(entries(), ElementsAre("1")) << "we still hold the writer";
  writer.reset();
  EXPECT_THAT(entries(), IsEmpty());
}

// Holds the number of open files down for as long as it lives.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t limit) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{limit, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

TEST_F(FramesTest, WithoutDescriptorsOnlyNewCapturesFail) {
  for (std::uint64_t captureId = 1; captureId <= 64; ++captureId) {
    announce(captureId, 70000);
  }
  manager.UpdateUsageCounters();
  const FewDescriptors few(64);
  std::uint64_t refused = 1;
  int result = consume(refused, 100, 1);
  while (result == 0) {
    result = consume(++refused, 100, 1);
  }
  EXPECT_EQ(result, 5);
  ASSERT_GT(refused, 10u);
  char name[17];
  std::snprintf(name, sizeof name, "%" PRIx64, refused);
  EXPECT_THAT(test::logLinesAboveDebug(),
              ElementsAre(LogLine{LOG_ERR, "Error: Open: Failed to open /var/support/tarnik/" +
                                               std::string(name) + ": Too many open files"},
                          LogLine{LOG_ERR,
                                  "Error: ConsumeFrame: Open [" + std::string(name) + "] failed"}));
  for (std::uint64_t captureId = 1; captureId < refused; ++captureId) {
    EXPECT_EQ(consume(captureId, 100, 2), 0);
  }
  EXPECT_EQ(reload({}), 0) << "which opens files";
  ASSERT_EQ(consume(3, 100, 3, kPktLastFrame), 0);
  EXPECT_THAT(entries(), testing::Contains(testing::EndsWith(".info")));
  EXPECT_EQ(consume(refused, 100, 1), 0) << "the capture that ended gave its descriptor back";
  manager.CloseWriters();
  EXPECT_THAT(captures(), SizeIs(refused));
}

}  // namespace
}  // namespace tarnik
