// What the capture thread does after each read: frames, failures, counters.
#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using test::calls;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kRefused[] = "Error: processFrames: Failed to capture frame (0xabc)";

class ThreadFramesTest : public test::ThreadTest {
 protected:
  static void makeFiles(int count) {
    for (int file = 0; file < count; ++file) {
      test::writeFile(kCaptureDir + std::to_string(file) + ".pcap", "x");
    }
  }
  static CaptureManager& instance() { return CaptureManager::instance(); }
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

// Counted as read, consumed, counted by its result, freed, measured.
TEST_F(ThreadFramesTest, StepsOfAFrame) {
  announce(1, 70000);
  std::vector<std::vector<std::uint64_t>> atConsume;
  std::vector<std::vector<std::uint64_t>> atFree;
  test::onTime([&] {  // the manager reads the clock before anything else
    if (calls().size() > 3 && atConsume.size() == atFree.size()) {
      atConsume.push_back(counters());
    }
  });
  run({.reads = {read(1, 100, 1), read(1, 200, 2, kPktLastFrame), read(2, 0)},
       .onCall = [&](const std::string& call) {
         if (call.starts_with("Free")) {
           atFree.push_back(counters());
           makeFiles(static_cast<int>(atFree.size()) * 10);
         }
       }});
  test::onTime({});
  const std::uint64_t bytes = instance().diskUsed();
  ASSERT_THAT(atFree, SizeIs(3));
  EXPECT_THAT(atConsume.at(0), ElementsAre(0, 0, 1, 0, 0, 0));
  EXPECT_THAT(atFree[0], ElementsAre(0, 0, 1, 1, 0, 0));
  EXPECT_THAT(atConsume.at(1), ElementsAre(10, atFree[1][1], 2, 1, 0, 0));
  EXPECT_THAT(atFree[1], ElementsAre(10, testing::Gt(0), 2, 2, 0, 0));
  EXPECT_THAT(atConsume.at(2), ElementsAre(10 + 21, atFree[2][1], 3, 2, 0, 0));
  EXPECT_THAT(atFree[2], ElementsAre(10 + 21, testing::Gt(atFree[1][1]), 3, 2, 1, 0));
  EXPECT_THAT(counters(), ElementsAre(10 + 21 + 31, atFree[2][1] + bytes, 3, 2, 1, 0));
  EXPECT_THAT(callsOf("Free"), ElementsAre("Free(1)", "Free(2)", "Free(3)"));
  EXPECT_THAT(records("20240305-070809.ips.web.1.pcap"),
              ElementsAre(record(100, 1), record(200, 2)));
}

// Another process may add to a counter, too. Nothing it added is lost.
TEST_F(ThreadFramesTest, CountersOnlyIncrease) {
  const auto addThousand = [] {
    std::vector<std::uint64_t> values = counters();
    for (std::uint64_t& value : values) {
      value += 1000;
    }
    std::fstream area(ORLO_STATS_DIR "/tarnik", std::ios::in | std::ios::out | std::ios::binary);
    area.seekp(sizeof(OrloStatsHeader));
    area.write(reinterpret_cast<const char*>(values.data()), 48);
  };
  test::Read none = read(1);
  none.frame = nullptr;
  run({.reads = {read(1), with(addThousand, read(1, 0)), with(addThousand, none),
                 with(addThousand, failure(EAGAIN))}});
  EXPECT_THAT(counters(), ElementsAre(3000, testing::Gt(3000), 3002, 3001, 3001, 3001));
}

TEST_F(ThreadFramesTest, LimitsUseTheMeasurementAfterThePreviousFrame) {
  initInstance({.fileCount = 10, .eventInterval = 100, .eventThreshold = 100});
  announce(1, 70000);
  run({.reads = {read(1, 100, 1), read(1, 100, 2), with([] { makeFiles(11); }, read(1, 100, 3)),
                 read(1, 100, 4), read(1, 100, 5),
                 with([] { std::filesystem::remove(std::string(kCaptureDir) + "0.pcap"); },
                      read(1, 100, 6)),
                 read(1, 100, 7)}});
  EXPECT_THAT(records("20240305-070809.ips.web.1.pcap"),
              ElementsAre(record(100, 1), record(100, 2), record(100, 3), record(100, 7)));
  EXPECT_THAT(frameCounters(), ElementsAre(7, 4, 3, 0));
  EXPECT_THAT(callsOf("Free"), SizeIs(7));
}

// Each frame is refused for another reason. All are counted, freed, and followed by a measurement;
// only the directory's limits are no error.
TEST_F(ThreadFramesTest, RefusedFrames) {
  std::filesystem::create_directory(std::string(kCaptureDir) + "abc");
  makeFiles(3);
  const struct {
    Settings settings;
    test::Read frame;
    std::string line;
  } cases[] = {
      {{.diskSpace = 1}, read(0xabc), "Debug: processFrames: Failed to capture frame (0xabc)"},
      {{.fileCount = 1}, read(0xabc), "Debug: processFrames: Failed to capture frame (0xabc)"},
      {{.maxFileSize = 50}, read(0xabcd), "Error: processFrames: Failed to capture frame (0xabcd)"},
      {{}, read(0xabc), kRefused},
      {{}, read(0xabcd, 0), "Error: processFrames: Failed to capture frame (0xabcd)"},
  };
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;
  for (const auto& refused : cases) {
    for (const unsigned level : {0U, 1U}) {
      initInstance(refused.settings);
      setDebugLevel(level);
      instance().UpdateUsageCounters();
      test::clearLog();
      run({.reads = {refused.frame}});
      ++count;
      bytes += instance().diskUsed();
      const bool written = level == 1 || refused.line.starts_with("Error");
      EXPECT_THAT(threadSteps(), Contains(refused.line).Times(written ? 1 : 0));
      EXPECT_THAT(callsOf("Free"), SizeIs(1));
      EXPECT_THAT(counters(), ElementsAre(count * 3, bytes, count, 0, count, 0));
    }
  }
}

TEST_F(ThreadFramesTest, AReadWithoutAFrameCountsAsInvalid) {
  makeFiles(1);
  test::Read none = read(1);
  none.frame = nullptr;
  run({.reads = {none, none}});
  EXPECT_THAT(test::logTexts(), ElementsAre("Error: processFrames: Invalid frame",
                                            "Error: processFrames: Invalid frame"));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 2));
  EXPECT_THAT(callsOf("Free"), IsEmpty());
}

TEST_F(ThreadFramesTest, OnlyATimeoutExpiresIdleWriters) {
  announce(1, 5);
  test::Read none = read(2);
  none.frame = nullptr;
  for (const test::Read& later : {failure(EINTR), failure(EIO), read(2), none, failure(EAGAIN)}) {
    wait(0);
    Texts seen;
    run({.reads = {read(1), with([] { wait(121); }, later),
                   with([&] { seen = entries(); }, failure(EINTR))}});
    EXPECT_THAT(seen, Contains("1").Times(later.error == EAGAIN ? 0 : 1));
  }
}

TEST_F(ThreadFramesTest, FailedReadsAreLoggedByTheirKind) {
  const test::Script reads{.reads = {failure(EINTR), failure(EAGAIN), failure(EIO), failure(0)}};
  const std::string io = "Error: processFrames: ReadPkt rc=-1): errno=5";
  const std::string none = "Error: processFrames: ReadPkt rc=-1): errno=0";
  for (const unsigned level : {0U, 3U}) {
    useDebugLevel(level);
    run(reads);
    EXPECT_THAT(threadSteps(), SizeIs(level == 0 ? 2 : 4)) << "the errors; stop and shutdown";
    EXPECT_THAT(test::logTextsAboveDebug(), ElementsAre(io, none));
  }
  useDebugLevel(4);
  run(reads);
  const Texts steps = threadSteps();
  EXPECT_THAT(std::vector(steps.begin() + 1, steps.begin() + 9),
              ElementsAre("Debug: processFrames: rv=-1 (errno=4) (nil) (nil)",
                          "Debug: processFrames: Interrupted",
                          "Debug: processFrames: rv=-5 (errno=11) (nil) (nil)",
                          "Debug: processFrames: Timeout", "Debug: ExpireWriters: Expiring writers",
                          "Debug: processFrames: rv=-1 (errno=5) (nil) (nil)", io,
                          "Debug: processFrames: rv=-1 (errno=0) (nil) (nil)"));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(ThreadFramesTest, TheFrameOfAFailedReadIsFreed) {
  std::vector<test::Read> reads;
  for (const int error : {ENXIO, EAGAIN, EINTR, ESHUTDOWN}) {
    reads.push_back(read(1));
    reads.back().result = kQFailed;
    reads.back().error = error;
    reads.back().data = nullptr;
  }
  reads.push_back(read(1));
  runToEnd({.reads = reads});
  EXPECT_THAT(test::logTexts(), ElementsAre("Error: processFrames: ReadPkt rc=-1): errno=6"));
  EXPECT_THAT(callsOf("Free"), ElementsAre("Free(1)", "Free(2)", "Free(3)", "Free(4)"));
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0, 0));
}

// The producer sets the lengths. Memory after the payload is never accessed.
TEST_F(ThreadFramesTest, ALengthBeyondThePayloadIsRefused) {
  announce(0xabc, 70000);
  std::vector<test::Read> reads;
  for (const std::uint32_t length : {test::kRoom, test::kRoom + 1, 0xffffffffu}) {
    reads.push_back(read(0xabc, test::kRoom, 1));
    reads.back().frame->cap_len = length;
  }
  run({.reads = reads});
  EXPECT_THAT(frameCounters(), ElementsAre(3, 1, 2, 0));
  EXPECT_THAT(callsOf("Free"), SizeIs(3));
  EXPECT_THAT(threadSteps(), ElementsAre(kRefused, kRefused));
  ASSERT_THAT(captures(), SizeIs(1));
  EXPECT_THAT(records(captures()[0]), SizeIs(1));
}

// A process that shares the descriptor may change it after its length was checked.
TEST_F(ThreadFramesTest, ADescriptorIsReadOnce) {
  announce(1, 70000);
  const test::Read first = read(1, 100, 1);
  const test::Read second = read(1, 200, 2);
  test::onTime([&] {  // the manager reads the clock before it writes
    for (zorvik_frm_desc* const descriptor : {first.frame, second.frame}) {
      writeFrameHeader(*descriptor, test::frame(7, 0xffffffff, 7, 7));
    }
  });
  run({.reads = {first, with([&] { writeFrameHeader(*second.frame, test::frame(204, 200, 2, 4)); },
                             second)}});
  test::onTime({});
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1), record(200, 2)));
}

}  // namespace
}  // namespace tarnik
