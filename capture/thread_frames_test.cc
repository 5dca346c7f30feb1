// What the capture thread does with what it reads: frames, failures, counters.
#include <unistd.h>

#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using test::calls;
using test::LogLine;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class ThreadFramesTest : public test::ThreadTest {
 protected:
  static void makeFiles(int count) {
    for (int file = 0; file < count; ++file) {
      test::writeFile(kCaptureDir + std::to_string(file) + ".pcap", "x");
    }
  }
};

TEST_F(ThreadFramesTest, TheStatisticsAreaHasSixCountersFromZero) {
  run({});
  const test::Bytes area = test::readFile(ORLO_STATS_DIR "/tarnik").value_or("");
  OrloStatsHeader header{};
  ASSERT_EQ(area.size(), sizeof header + 48);
  std::memcpy(&header, area.data(), sizeof header);
  EXPECT_EQ(header.size, 48u);
  EXPECT_STREQ(header.name, "tarnik");
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(ThreadFramesTest, FramesAreConsumedThenFreedThenMeasured) {
  announce(1, 70000);
  makeFiles(2);
  std::vector<std::vector<std::uint64_t>> atFree;
  run({.reads = {read(1, 100, 1), read(1, 200, 2, kPktLastFrame)},
       .onCall = [&](const std::string& call) {
         if (call.starts_with("Free")) {
           atFree.push_back(counters());
         }
       }});
  ASSERT_THAT(atFree, SizeIs(2));
  EXPECT_THAT(atFree[0], ElementsAre(0, 0, 1, 1, 0, 0)) << "consumed, not measured yet";
  EXPECT_THAT(std::vector(atFree[1].begin() + 2, atFree[1].end()), ElementsAre(2, 2, 0, 0));
  EXPECT_EQ(atFree[1][0], 2u) << "the two files; the capture has no final name yet";
  EXPECT_THAT(calls(), AllOf(Contains("Free(1)").Times(1), Contains("Free(2)").Times(1)));
  EXPECT_EQ(counters()[0], 2u + 3u) << "with the second frame it has";
  EXPECT_THAT(records("20240305-070809.ips.web.1.pcap"),
              ElementsAre(record(100, 1), record(200, 2)));
}

// The gauges are added up, frame by frame.
TEST_F(ThreadFramesTest, EveryFrameAddsTheWholeMeasurement) {
  makeFiles(3);
  std::vector<test::Read> reads;
  for (unsigned seed = 0; seed < 10; ++seed) {
    reads.push_back(read(1, 100, seed));
  }
  std::uint64_t expected = 0;
  int frees = 0;
  run({.reads = reads, .onCall = [&](const std::string& call) {
         if (call.starts_with("Free")) {
           // The measurement of the frame before this one is in the counters by now.
           expected += frees++ == 0 ? 0 : CaptureManager::instance().diskUsed();
           EXPECT_EQ(counters()[1], expected);
         }
       }});
  EXPECT_EQ(counters()[0], 30u);
  EXPECT_EQ(counters()[1], expected + CaptureManager::instance().diskUsed());
  EXPECT_GT(CaptureManager::instance().diskUsed(), 0u);
}

TEST_F(ThreadFramesTest, LimitsActOnTheMeasurementAfterTheFrameBefore) {
  initInstance({.fileCount = 10, .eventInterval = 100, .eventThreshold = 100});
  announce(1, 70000);
  test::Read second = read(1, 100, 2);
  test::Read third = read(1, 100, 3);
  third.before = [] { makeFiles(11); };
  test::Read sixth = read(1, 100, 6);
  sixth.before = [] { std::filesystem::remove(std::string(kCaptureDir) + "0.pcap"); };
  run({.reads = {read(1, 100, 1), second, third, read(1, 100, 4), read(1, 100, 5), sixth,
                 read(1, 100, 7)}});
  EXPECT_THAT(records("20240305-070809.ips.web.1.pcap"),
              ElementsAre(record(100, 1), record(100, 2), record(100, 3), record(100, 7)));
  EXPECT_THAT(frameCounters(), ElementsAre(7, 4, 3, 0));
  EXPECT_THAT(calls(), Contains(testing::StartsWith("Free")).Times(7));
}

TEST_F(ThreadFramesTest, FramesRefusedByALimitAreADebugMatter) {
  for (const Settings& settings : {Settings{.diskSpace = 1}, Settings{.fileCount = 1}}) {
    initInstance(settings);
    makeFiles(3);
    setDebugLevel(0);
    CaptureManager::instance().UpdateUsageCounters();
    run({.reads = {read(0xabc)}});
    EXPECT_THAT(threadLines(), IsEmpty());
    setDebugLevel(1);
    CaptureManager::instance().UpdateUsageCounters();
    run({.reads = {read(0xabc)}});
    EXPECT_THAT(threadLines(), Contains(LogLine{LOG_DEBUG,
                                                "Debug: processFrames: Failed to capture frame "
                                                "(0xabc)"}));
    EXPECT_THAT(frameCounters(), testing::AnyOf(ElementsAre(2, 0, 2, 0), ElementsAre(4, 0, 4, 0)));
  }
}

TEST_F(ThreadFramesTest, AfterARefusedFrameTheDirectoryIsMeasuredToo) {
  makeFiles(3);
  std::uint64_t bytes = 0;
  const auto refuse = [&](const Settings& settings, const test::Read& frame) {
    initInstance(settings);
    CaptureManager::instance().UpdateUsageCounters();
    run({.reads = {frame}});
    bytes += CaptureManager::instance().diskUsed();
  };
  refuse({.diskSpace = 1}, read(1));
  refuse({.fileCount = 1}, read(1));
  refuse({.maxFileSize = 50}, read(1));
  refuse({}, read(1, 0));
  EXPECT_THAT(counters(), ElementsAre(4 * 3, bytes, 4, 0, 4, 0));
}

// A frame goes back to the driver before the measurement, which may take its time.
TEST_F(ThreadFramesTest, AFrameIsFreedBeforeTheDirectoryIsMeasured) {
  run({.reads = {read(1)}, .onCall = [](const std::string& call) {
         if (call.starts_with("Free")) {
           makeFiles(7);
         }
       }});
  EXPECT_EQ(counters()[0], 7u);
}

TEST_F(ThreadFramesTest, FramesRefusedOtherwiseAreErrors) {
  const LogLine error{LOG_ERR, "Error: processFrames: Failed to capture frame (0xabc)"};
  std::filesystem::create_directory(std::string(kCaptureDir) + "abc");
  run({.reads = {read(0xabc)}});
  EXPECT_THAT(threadLines(), ElementsAre(error)) << "not opened";
  std::filesystem::remove(std::string(kCaptureDir) + "abc");
  test::clearLog();
  run({.reads = {read(0xabc, 0)}});
  EXPECT_THAT(threadLines(), ElementsAre(error)) << "not written";
  test::clearLog();
  initInstance({.maxFileSize = 50});
  run({.reads = {read(0xabc)}});
  EXPECT_THAT(threadLines(), ElementsAre(error)) << "too large";
  EXPECT_THAT(frameCounters(), ElementsAre(3, 0, 3, 0));
  EXPECT_THAT(calls(), Contains("Free(3)"));
}

TEST_F(ThreadFramesTest, AReadWithoutAFrameCountsAsInvalid) {
  makeFiles(1);
  test::Read none = read(1);
  none.frame = nullptr;
  run({.reads = {none, none}});
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR, "Error: processFrames: Invalid frame"},
                          LogLine{LOG_ERR, "Error: processFrames: Invalid frame"}));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 2));
  EXPECT_THAT(calls(), Not(Contains(testing::StartsWith("Free"))));
}

TEST_F(ThreadFramesTest, OnlyATimeoutExpiresIdleWriters) {
  announce(1, 70000);
  const auto later = [](test::Read read) {
    read.before = [] { test::setTime(test::kNow + 121); };
    return read;
  };
  std::vector<std::string> seen;
  const auto look = [&] { seen = entries(); };
  for (const int error : {EINTR, EIO, EAGAIN}) {
    test::setTime(test::kNow);
    test::Read next = failure(EINTR);
    next.before = look;
    run({.reads = {read(1), later(failure(error)), next}});
    EXPECT_EQ(seen.size(), error == EAGAIN ? 6u : error == EIO ? 3u : 1u) << error;
  }
}

TEST_F(ThreadFramesTest, NoReadThatSucceedsExpiresIdleWriters) {
  announce(1, 70000);
  test::Read none = read(2);
  none.frame = nullptr;
  for (test::Read later : {read(2), none}) {
    test::setTime(test::kNow);
    later.before = [] { test::setTime(test::kNow + 121); };
    std::vector<std::string> seen;
    test::Read next = failure(EINTR);
    next.before = [&] { seen = entries(); };
    run({.reads = {read(1), later, next}});
    EXPECT_THAT(seen, Contains("1")) << "still open under its working name";
  }
}

TEST_F(ThreadFramesTest, FailedReadsAreToldByTheirKind) {
  const test::Script reads{.reads = {failure(EINTR), failure(EAGAIN), failure(EIO), failure(0)}};
  run(reads);
  const LogLine io{LOG_ERR, "Error: processFrames: ReadPkt rc=-1): errno=5"};
  const LogLine none{LOG_ERR, "Error: processFrames: ReadPkt rc=-1): errno=0"};
  EXPECT_THAT(test::logLines(), ElementsAre(io, none));
  useDebugLevel(3);
  run(reads);
  EXPECT_THAT(threadLines(), SizeIs(4)) << "these, stop and shutdown";
  useDebugLevel(4);
  run(reads);
  const std::vector<LogLine> lines = threadLines();
  EXPECT_THAT(
      std::vector(lines.begin() + 1, lines.begin() + 9),
      ElementsAre(LogLine{LOG_DEBUG, "Debug: processFrames: rv=-1 (errno=4) (nil) (nil)"},
                  LogLine{LOG_DEBUG, "Debug: processFrames: Interrupted"},
                  LogLine{LOG_DEBUG, "Debug: processFrames: rv=-5 (errno=11) (nil) (nil)"},
                  LogLine{LOG_DEBUG, "Debug: processFrames: Timeout"},
                  LogLine{LOG_DEBUG, "Debug: ExpireWriters: Expiring writers"},
                  LogLine{LOG_DEBUG, "Debug: processFrames: rv=-1 (errno=5) (nil) (nil)"}, io,
                  LogLine{LOG_DEBUG, "Debug: processFrames: rv=-1 (errno=0) (nil) (nil)"}));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(ThreadFramesTest, AFrameOfAFailedReadIsFreedWhateverTheFailure) {
  std::vector<test::Read> reads;
  for (const int error : {ENXIO, EAGAIN, EINTR, ESHUTDOWN}) {
    reads.push_back(read(1));
    reads.back().result = kQFailed;
    reads.back().error = error;
    reads.back().data = nullptr;
  }
  reads.push_back(read(1));
  test::play({.reads = reads});
  thread.start(1000);
  thread.join();
  EXPECT_THAT(test::logLines(),
              ElementsAre(LogLine{LOG_ERR, "Error: processFrames: ReadPkt rc=-1): errno=6"}));
  std::vector<std::string> frees = calls();
  std::erase_if(frees, [](const std::string& call) { return !call.starts_with("Free"); });
  EXPECT_THAT(frees, ElementsAre("Free(1)", "Free(2)", "Free(3)", "Free(4)"));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 0));
}

// The lengths are the producer's word: what lies behind the payload memory is never touched.
TEST_F(ThreadFramesTest, ALengthBeyondThePayloadIsRefused) {
  announce(1, 70000);
  std::vector<test::Read> reads;
  for (const std::uint32_t length : {test::kRoom, test::kRoom + 1, 0xffffffffu}) {
    reads.push_back(read(1, test::kRoom, 1));
    reads.back().frame->cap_len = length;
  }
  run({.reads = reads});
  EXPECT_THAT(frameCounters(), ElementsAre(3, 1, 2, 0));
  EXPECT_THAT(calls(), Contains(testing::StartsWith("Free")).Times(3));
  EXPECT_THAT(
      test::logLines(),
      Contains(LogLine{LOG_ERR, "Error: processFrames: Failed to capture frame (0x1)"}).Times(2));
  ASSERT_THAT(captures(), SizeIs(1));
  EXPECT_THAT(records(captures()[0]), SizeIs(1));
}

// Whoever shares the descriptor changes it once its length has been checked.
TEST_F(ThreadFramesTest, ADescriptorThatChangesIsTakenAsItWasRead) {
  announce(1, 70000);
  const test::Read first = read(1, 100, 1);
  const test::Read second = read(1, 200, 2);
  test::onTime([&] {  // the manager asks for the time before it writes
    for (zorvik_frm_desc* const descriptor : {first.frame, second.frame}) {
      writeFrameHeader(*descriptor, test::frame(7, 0xffffffff, 7, 7));
    }
  });
  test::Read restored = second;
  restored.before = [&] { writeFrameHeader(*second.frame, test::frame(204, 200, 2, 4)); };
  run({.reads = {first, restored}});
  test::onTime({});
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1), record(200, 2)));
}

}  // namespace
}  // namespace tarnik
