// ConsumeFrame: its steps, their order and its results.
#include <sys/resource.h>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::Event;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kFirstLine[] = "Debug: ConsumeFrame: captureId=0xabc, flags=0x";
constexpr char kUsage[] = ", 0/1000 0/1000000000";
constexpr char kRemoved[] =
    "Warning: Finalize: Failed to determine capture name for [/var/support/tarnik/abc]";

class FramesTest : public test::ManagerTest {};

TEST_F(FramesTest, OneFileHoldsAllFramesOfACapture) {
  constexpr std::uint64_t kHigh = 0x100000001;  // differs from 1 only in its high half
  announce(1, 70000);
  announce(kHigh, 70001);
  for (unsigned seed = 0; seed < 5; ++seed) {
    ASSERT_EQ(consume(1, 60 + seed, seed), 0);
    ASSERT_EQ(consume(kHigh, 1600, seed + 100), 0);
  }
  EXPECT_THAT(entries(), ElementsAre("1", "100000001"));
  manager.CloseWriters();
  ASSERT_THAT(captures(),
              ElementsAre("20240305-070809.ips.X_Y.2.pcap", "20240305-070809.ips.web.1.pcap"));
  EXPECT_THAT(records(captures()[1]), ElementsAre(record(60, 0), record(61, 1), record(62, 2),
                                                  record(63, 3), record(64, 4)));
  EXPECT_THAT(records(captures()[0]), SizeIs(5));
}

TEST_F(FramesTest, TheWorkingNameIsTheCaptureInHexadecimal) {
  for (const std::uint64_t captureId : {0UL, 0xdeadbeefUL, 0xfffffffffffffffeUL}) {
    ASSERT_EQ(consume(captureId), 0);
  }
  EXPECT_THAT(entries(), ElementsAre("0", "deadbeef", "fffffffffffffffe"));
}

TEST_F(FramesTest, ASingleLastFrameLeavesAFileAndNoWriter) {
  announce(1, 70000);
  EXPECT_EQ(consumeLast(1, 3), 0);
  EXPECT_EQ(writerOf(1), nullptr);
  ASSERT_THAT(captures(), ElementsAre("20240305-070809.ips.web.1.pcap"));
  EXPECT_THAT(records(captures()[0]), ElementsAre(record(100, 3)));
}

TEST_F(FramesTest, OnlyTheLastFrameFlagEndsACapture) {
  announce(1, 70000);
  for (const std::uint32_t flags : {0u, 1u, 2u, 8u, 0xfffffffbu}) {
    EXPECT_EQ(consume(1, 100, 0, flags), 0);
    EXPECT_NE(writerOf(1), nullptr) << flags;
  }
  for (const std::uint32_t flags : {5u, 0xffffffffu}) {
    EXPECT_EQ(consume(1, 100, 0, flags), 0);
    EXPECT_EQ(writerOf(1), nullptr) << flags;
  }
}

TEST_F(FramesTest, AFileThatCannotBeOpened) {
  std::filesystem::create_directory(std::string(kCaptureDir) + "abc");
  EXPECT_EQ(consume(0xabc), 5);
  EXPECT_THAT(test::logTexts(),
              ElementsAre("Error: Open: Failed to open /var/support/tarnik/abc: Is a directory",
                          "Error: ConsumeFrame: Open [abc] failed"));
  EXPECT_EQ(writerOf(0xabc), nullptr);
  EXPECT_THAT(test::events(), IsEmpty());
}

TEST_F(FramesTest, AFirstFrameThatCannotBeWritten) {
  announce(0xabc, 70000);
  EXPECT_EQ(consume(0xabc, 0), 6);
  EXPECT_THAT(test::logTexts(), ElementsAre(StartsWith("Error: Write: frameData="),
                                            "Error: ConsumeFrame: Failed write to 0xabc", kRemoved))
      << "no name was looked for";
  EXPECT_EQ(writerOf(0xabc), nullptr);
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(FramesTest, ALaterFrameThatCannotBeWrittenEndsTheCapture) {
  announce(0xabc, 70000);
  ASSERT_EQ(consume(0xabc, 100, 1), 0);
  useDebugLevel(4);
  EXPECT_EQ(consume(0xabc, 0), 6);
  const Texts taken = steps();
  EXPECT_THAT(std::vector(taken.end() - 2, taken.end()),
              ElementsAre("Error: ConsumeFrame: Failed write to 0xabc",
                          "Debug: EraseConnWriter: captureId=0xabc"))
      << "no metadata was refreshed";
  EXPECT_EQ(writerOf(0xabc), nullptr);
  EXPECT_THAT(test::events(), IsEmpty());
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1)));
}

TEST_F(FramesTest, AFrameWithoutDataIsNoMatterOfSize) {
  ASSERT_EQ(reload({.maxFileSize = 50}), 0);
  EXPECT_EQ(manager.ConsumeFrame(1, test::frame(100, 100), nullptr, 0), 6);
  EXPECT_THAT(test::events(), IsEmpty());
}

TEST_F(FramesTest, AFirstFrameOverTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  EXPECT_EQ(consume(0xabc, 985), 11);
  EXPECT_THAT(test::logTexts(),
              ElementsAre("Error: ConsumeFrame: Failed write to 0xabc",
                          "Error: ConsumeFrame: File size limit reached for 0xabc", kRemoved));
  EXPECT_THAT(test::events(), ElementsAre(Event{"VRKPC0003I", "VRK_events", "MaxFileSize=1000 "}));
  EXPECT_EQ(writerOf(0xabc), nullptr);
  EXPECT_THAT(entries(), IsEmpty());
}

// The frame that does not fit is lost. The next frame begins another file.
TEST_F(FramesTest, ACaptureContinuesAfterTheSizeLimit) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  announce(0xabc, 70000);
  ASSERT_EQ(consume(0xabc, 484, 1), 0);
  ASSERT_EQ(consume(0xabc, 484, 2), 0) << "exactly full";
  useDebugLevel(4);
  EXPECT_EQ(consume(0xabc, 1, 3), 11);
  const Texts taken = steps();
  EXPECT_THAT(std::vector(taken.end() - 3, taken.end()),
              ElementsAre("Error: ConsumeFrame: Failed write to 0xabc",
                          "Error: ConsumeFrame: File size limit reached for 0xabc",
                          "Debug: EraseConnWriter: captureId=0xabc"));
  EXPECT_EQ(writerOf(0xabc), nullptr);
  useDebugLevel(0);
  ASSERT_EQ(consume(0xabc, 484, 4), 0);
  manager.CloseWriters();
  ASSERT_THAT(captures(),
              ElementsAre("20240305-070809.ips.web.1.pcap", "20240305-070809.ips.web.2.pcap"));
  EXPECT_THAT(records(captures()[0]), ElementsAre(record(484, 1), record(484, 2)));
  EXPECT_THAT(records(captures()[1]), ElementsAre(record(484, 4)));
}

TEST_F(FramesTest, EveryFrameOverTheSizeLimitRaisesAnEvent) {
  ASSERT_EQ(reload({.maxFileSize = 20, .eventInterval = 1000, .eventThreshold = 1000}), 0);
  for (std::size_t frames = 1; frames <= 3; ++frames) {
    EXPECT_EQ(consume(1), 11);
    EXPECT_THAT(test::events(), SizeIs(frames));
  }
}

// The event follows the log line. An open capture has left the table by then.
TEST_F(FramesTest, TheEventOfTheSizeLimitComesLast) {
  ASSERT_EQ(reload({.maxFileSize = 1000}), 0);
  announce(2, 70000);
  ASSERT_EQ(consume(2, 984), 0);
  Texts files;
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

TEST_F(FramesTest, StepsOfANewCapture) {
  expectSteps([] { announce(0xabc, 70001, 0x77); },
              [&] { EXPECT_EQ(consume(0xabc, 100, 0, 1), 0); },
              {{2, std::string(kFirstLine) + "1" + kUsage},
               {4, "Debug: LookupConnWriter: captureId=0xabc"},
               {4, "Debug: LookupConnWriter: Not found captureId=0xabc"},
               {4, "Debug: ConsumeFrame: New writer: 0xabc"},
               {4, "Debug: update: Update expireTime for 0xabc"},
               {4, "Debug: ProcessMetaData: captureId=0xabc"},
               {4, "Debug: lookup: Lookup metadata for 0xabc"},
               {4, "Debug: ProcessMetaData: Found metadata: 0x77"},
               {4, "Debug: UpdateWriter: triggerId=70001"},
               {4, "Debug: LookupIssueName: issueId=0x11171"},
               {1, "Debug: LookupIssueName: 70001=X_Y "},
               {1, "Debug: UpdateWriter: /var/support/tarnik/20240305-070809.ips.X_Y.1.pcap"},
               {4, "Debug: PushConnWriter: captureId=0xabc"}});
  EXPECT_EQ(manager.diskUsed(), 0u) << "a frame does not measure the directory";
}

TEST_F(FramesTest, StepsOfTheLastFrame) {
  expectSteps(
      [&] {
        announce(0xabc, 70001);
        EXPECT_EQ(consume(0xabc), 0);
      },
      [&] { EXPECT_EQ(consumeLast(0xabc), 0); },
      {{2, std::string(kFirstLine) + "4" + kUsage},
       {4, "Debug: LookupConnWriter: captureId=0xabc"},
       {4, "Debug: LookupConnWriter: Found captureId=0xabc"},
       {4, "Debug: ConsumeFrame: Cached writer: 0xabc"},
       {4, "Debug: update: Update expireTime for 0xabc"},
       {4, "Debug: ProcessMetaData: captureId=0xabc"},
       {4, "Debug: EraseConnWriter: captureId=0xabc"}});
}

TEST_F(FramesTest, StepsWithoutMetadata) {
  expectSteps([&] { EXPECT_EQ(consume(0xabc), 0); },
              [&] { EXPECT_FALSE(manager.ProcessMetaData(*writerOf(0xabc), 0xabc)); },
              {{4, "Debug: LookupConnWriter: captureId=0xabc"},
               {4, "Debug: LookupConnWriter: Found captureId=0xabc"},
               {4, "Debug: ProcessMetaData: captureId=0xabc"},
               {4, "Debug: lookup: Lookup metadata for 0xabc"},
               {4, "Debug: ProcessMetaData: No metadata: 0x0"}});  // the flow, which is unknown
}

TEST_F(FramesTest, PushReplacesAWriterAndClosesTheOldOne) {
  ASSERT_EQ(consume(0xabc), 0);
  const auto other = std::make_shared<PcapWriter>(std::string(kCaptureDir) + "other", 1000);
  useDebugLevel(4);
  manager.PushConnWriter(0xabc, other);
  EXPECT_THAT(steps(), ElementsAre("Debug: PushConnWriter: captureId=0xabc", kRemoved));
  EXPECT_EQ(writerOf(0xabc), other);
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(FramesTest, EraseClosesAWriterWithItsLastHandleAndIgnoresTheEnd) {
  ASSERT_EQ(consume(1), 0);
  CaptureManager::Writer writer;
  CaptureManager::WriterTable::iterator end;
  ASSERT_FALSE(manager.LookupConnWriter(2, writer, end));
  useDebugLevel(4);
  manager.EraseConnWriter(end);
  EXPECT_THAT(test::logTexts(), IsEmpty());

  CaptureManager::WriterTable::iterator position;
  ASSERT_TRUE(manager.LookupConnWriter(1, writer, position));
  EXPECT_EQ(position->first, 1u);
  manager.EraseConnWriter(position);
  EXPECT_EQ(position, end);
  EXPECT_THAT(entries(), ElementsAre("1")) << "this test holds the writer";
  writer.reset();
  EXPECT_THAT(entries(), IsEmpty());
}

// Lowers the limit on open files for its lifetime.
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
    announce(captureId, 5);
  }
  manager.UpdateUsageCounters();
  const FewDescriptors few(64);
  std::uint64_t refused = 1;
  while (consume(refused, 100, 1) == 0) {
    ++refused;
  }
  ASSERT_GT(refused, 10u);
  EXPECT_EQ(consume(refused, 100, 1), 5);
  for (std::uint64_t captureId = 1; captureId < refused; ++captureId) {
    EXPECT_EQ(consume(captureId, 100, 2), 0);
  }
  EXPECT_EQ(reload({}), 0) << "a reload opens files";
  ASSERT_EQ(consumeLast(3), 0);
  EXPECT_THAT(entries(), testing::Contains(testing::EndsWith(".info")));
  EXPECT_EQ(consume(refused, 100, 1), 0) << "the end of a capture frees its descriptor";
  manager.CloseWriters();
  EXPECT_THAT(captures(), SizeIs(refused));
}

}  // namespace
}  // namespace tarnik
