// The limits on disk space and number of files: which frame is refused, and which refusal raises
// an event.
#include <unistd.h>

#include <limits>
#include <tuple>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::Event;
using test::LogLine;
using testing::Combine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;

enum class Limit { kDiskSpace, kFileCount };

class LimitsTest : public test::ManagerTest {
 protected:
  // Puts the directory over a limit of 10 files or the given disk space, or within it, and has it
  // measured.
  void exceed(Limit limit, bool exceeded) {
    if (limit == Limit::kDiskSpace) {
      const std::string path = std::string(kCaptureDir) + "huge";
      test::writeFile(path, "");
      ASSERT_EQ(::truncate(path.c_str(), exceeded ? 4'000'000'000 : 0), 0);
    } else {
      for (int file = 0; file < 12; ++file) {
        const std::string path = kCaptureDir + std::to_string(file) + ".pcap";
        exceeded ? test::writeFile(path, "") : void(std::filesystem::remove(path));
      }
    }
    manager.UpdateUsageCounters();
  }
  // What became of a frame: '.' written, 'E' refused with an event, 'q' refused quietly.
  char outcome() {
    forget();
    const int result = consume(1);
    EXPECT_EQ(test::events().size(), test::logLinesAboveDebug().size());
    if (result == CaptureManager::kOk) {
      EXPECT_THAT(test::events(), IsEmpty());
      return '.';
    }
    EXPECT_THAT(result, testing::AnyOf(9, 10));
    if (test::events().empty()) {
      return 'q';
    }
    EXPECT_EQ(test::events().size(), 1u);
    EXPECT_EQ(test::events()[0].id, result == 9 ? "VRKPC0001I" : "VRKPC0002I");
    return 'E';
  }
};

// One frame a column: when it comes (seconds after the first), whether the limit is exceeded, and
// what becomes of it under each limit. After Init the event of the disk space is armed; that of
// the number of files is armed by the first frame.
struct RateCase {
  const char* what;
  std::uint32_t threshold;
  std::int64_t interval;
  std::vector<int> times;
  std::string exceeded;  // 'x' where the limit is exceeded
  std::string disk;
  std::string files;
};

std::ostream& operator<<(std::ostream& out, const RateCase& rate) {
  return out << rate.what;
}

const RateCase kRateCases[] = {
    {"threshold 0", 0, 100, {0, 0, 0, 0, 0, 0}, "xxxxxx", "EqEqEq", "qEqEqE"},
    {"threshold 1", 1, 100, {0, 0, 0, 0, 0, 0, 0}, "xxxxxxx", "EqqEqqE", "qEqqEqq"},
    {"threshold 3", 3, 100, {0, 0, 0, 0, 0, 0, 0}, "xxxxxxx", "EqqqqEq", "qEqqqqE"},
    {"interval 0", 1000, 0, {0, 0, 0, 1, 1, 2, 2}, "xxxxxxx", "EqqqEqE", "qEqqEqE"},
    {"interval 1", 1000, 1, {0, 0, 1, 2, 2, 3}, "xxxxxx", "EqqqEq", "qEqqEq"},
    {"interval 10", 1000, 10, {0, 0, 1, 10, 10, 11, 11}, "xxxxxxx", "EqqqqqE", "qEqqqqE"},
    {"interval of a week",
     100000,
     604800,
     {0, 0, 604800, 604801, 604801},
     "xxxxx",
     "EqqqE",
     "qEqqE"},
    {"largest threshold", 4294967295, 5, {0, 0, 5, 6, 6}, "xxxxx", "EqqqE", "qEqqE"},
    {"re-armed long past is still quiet once", 1000, 10, {0, 0, 999, 999}, "xxxx", "EqqE", "qEqE"},
    {"whichever comes first", 2, 2, {0, 0, 3, 3, 3, 3, 3, 3}, "xxxxxxxx", "EqqEqqqE", "qEqEqqqE"},
    {"frames within the limit count", 2, 100, {0, 0, 0, 0, 0, 0}, "xx...x", "Eq...E", "qE...E"},
    {"one too few of them", 3, 100, {0, 0, 0, 0, 0, 0}, "xx...x", "Eq...E", "qE...q"},
    {"frames within the limit see the time", 100, 5, {0, 0, 6, 6}, "xx.x", "Eq.E", "qE.E"},
    {"within the limit first", 100, 100, {0, 0, 0}, ".xx", ".Eq", ".Eq"},
    {"armed stays armed", 0, 1, {0, 0, 0, 0, 0}, "x...x", "E...E", "q...E"},
};

class EventRateTest : public LimitsTest,
                      public testing::WithParamInterface<std::tuple<Limit, RateCase>> {};

TEST_P(EventRateTest, RaisesAndKeepsQuiet) {
  const auto& [limit, rate] = GetParam();
  ASSERT_EQ(rate.times.size(), rate.exceeded.size());
  ASSERT_EQ(
      init({.fileCount = 10, .eventInterval = rate.interval, .eventThreshold = rate.threshold}), 0);
  std::string outcomes;
  for (std::size_t i = 0; i < rate.times.size(); ++i) {
    exceed(limit, rate.exceeded[i] == 'x');
    test::setTime(test::kNow + rate.times[i]);
    outcomes += outcome();
  }
  EXPECT_EQ(outcomes, limit == Limit::kDiskSpace ? rate.disk : rate.files);
}

INSTANTIATE_TEST_SUITE_P(Rates, EventRateTest,
                         Combine(Values(Limit::kDiskSpace, Limit::kFileCount),
                                 ValuesIn(kRateCases)));

TEST_F(LimitsTest, TheDiskSpaceRefusalSaysHowMuchIsUsed) {
  ASSERT_EQ(init({.diskSpace = 77}), 0);
  test::writeFile(std::string(kCaptureDir) + "some", std::string(1234, 'x'));
  manager.UpdateUsageCounters();
  const std::string used = std::to_string(manager.diskUsed());
  ASSERT_GT(manager.diskUsed(), 1234u);
  EXPECT_EQ(consume(1), 9);
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_WARNING,
                          "Warning: ConsumeFrame: Disk space limit exceeded=[" + used + "/77 ] "}));
  EXPECT_THAT(test::events(), ElementsAre(Event{"VRKPC0001I", "VRK_events",
                                                "MaxDiskSize=77,DiskSizeUsed=" + used + " "}));
  EXPECT_EQ(entries(), std::vector<std::string>{"some"});
}

TEST_F(LimitsTest, TheFileCountRefusalGivesTheNumberInUseAsTheMaximum) {
  ASSERT_EQ(init({.fileCount = 10}), 0);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(consume(1), 10);
  EXPECT_THAT(test::logLines(), IsEmpty());
  EXPECT_EQ(consume(1), 10);
  EXPECT_THAT(
      test::logLines(),
      ElementsAre(LogLine{LOG_WARNING, "Warning: ConsumeFrame: Files limit exceeded=[12/10 ] "}));
  EXPECT_THAT(test::events(),
              ElementsAre(Event{"VRKPC0002I", "VRK_events", "MaxNumberOfFiles=12 "}));
  EXPECT_EQ(entries().size(), 12u);
}

TEST_F(LimitsTest, ALimitThatIsJustReachedIsNotExceeded) {
  ASSERT_EQ(init({.fileCount = 12}), 0);
  exceed(Limit::kFileCount, true);
  ASSERT_EQ(manager.filesUsed(), 12u);
  EXPECT_EQ(consume(1), 0);
  ASSERT_EQ(reload({.diskSpace = manager.diskUsed(), .fileCount = 12}), 0);
  EXPECT_EQ(consume(1), 0);
  ASSERT_EQ(reload({.diskSpace = manager.diskUsed() - 1, .fileCount = 12}), 0);
  EXPECT_EQ(consume(1), 9);
  ASSERT_EQ(reload({.fileCount = 11}), 0);
  EXPECT_EQ(consume(1), 10);
}

TEST_F(LimitsTest, LimitsAreUnsigned) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  ASSERT_EQ(init({.diskSpace = kMost, .fileCount = kMost}), 0);
  exceed(Limit::kDiskSpace, true);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(consume(1), 0);
}

TEST_F(LimitsTest, FramesOfOpenCapturesAreRefusedToo) {
  ASSERT_EQ(init({.fileCount = 10}), 0);
  announce(1, 70000);
  ASSERT_EQ(consume(1, 100, 1), 0);
  for (const Limit limit : {Limit::kDiskSpace, Limit::kFileCount}) {
    exceed(limit, true);
    EXPECT_EQ(consume(1, 100, 2), limit == Limit::kDiskSpace ? 9 : 10);
    exceed(limit, false);
  }
  ASSERT_EQ(consume(1, 100, 3), 0);
  manager.CloseWriters();
  EXPECT_THAT(records(captures().at(0)), ElementsAre(record(100, 1), record(100, 3)));
}

TEST_F(LimitsTest, TheDirectoryIsNotMeasuredByTheFrameItself) {
  ASSERT_EQ(init({.fileCount = 10}), 0);
  manager.UpdateUsageCounters();
  for (int file = 0; file < 12; ++file) {
    test::writeFile(kCaptureDir + std::to_string(file) + ".pcap", "");
  }
  EXPECT_EQ(consume(1), 0);
  manager.UpdateUsageCounters();
  EXPECT_EQ(consume(1), 10);
}

// While the disk space is exceeded, the other limit neither counts frames nor looks at the clock.
TEST_F(LimitsTest, TheDiskSpaceIsTestedFirst) {
  ASSERT_EQ(init({.fileCount = 10, .eventInterval = 100, .eventThreshold = 3}), 0);
  exceed(Limit::kDiskSpace, true);
  exceed(Limit::kFileCount, true);
  std::string outcomes;
  for (int i = 0; i < 8; ++i) {
    outcomes += outcome();
  }
  EXPECT_EQ(outcomes, "EqqqqEqq");
  exceed(Limit::kDiskSpace, false);
  EXPECT_EQ(outcome(), 'q') << "not armed until a frame reached this test";
  EXPECT_EQ(outcome(), 'E');
}

// While the number of files is exceeded, frames still pass the test of the disk space.
TEST_F(LimitsTest, TheEventsAreIndependent) {
  ASSERT_EQ(init({.fileCount = 10, .eventInterval = 100, .eventThreshold = 3}), 0);
  exceed(Limit::kDiskSpace, true);
  EXPECT_EQ(outcome(), 'E');
  exceed(Limit::kDiskSpace, false);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'E');
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'q') << "the fourth that passed the test of the disk space";
  exceed(Limit::kDiskSpace, true);
  EXPECT_EQ(outcome(), 'E');
}

TEST_F(LimitsTest, AReloadArmsTheDiskSpaceEventOnly) {
  const Settings settings{.fileCount = 10, .eventInterval = 100, .eventThreshold = 1000};
  ASSERT_EQ(init(settings), 0);
  exceed(Limit::kDiskSpace, true);
  EXPECT_EQ(outcome(), 'E');
  EXPECT_EQ(outcome(), 'q');
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'E');
  exceed(Limit::kDiskSpace, false);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'E');
  EXPECT_EQ(outcome(), 'q');
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'q') << "no quiet period any more, but it takes a frame to see that";
  EXPECT_EQ(outcome(), 'E');
}

TEST_F(LimitsTest, AReloadOrInitKeepsAnArmedFileCountEventArmed) {
  const Settings settings{.fileCount = 10, .eventInterval = 100, .eventThreshold = 1000};
  ASSERT_EQ(init(settings), 0);
  EXPECT_EQ(outcome(), '.');
  exceed(Limit::kFileCount, true);
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'E');
  ASSERT_EQ(init(settings), 0);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(outcome(), 'q');
  ASSERT_EQ(init(settings), 0);
  exceed(Limit::kFileCount, true);
  EXPECT_EQ(outcome(), 'E');
}

TEST_F(LimitsTest, AReloadZeroesTheCounts) {
  const Settings settings{.eventInterval = 100, .eventThreshold = 2};
  ASSERT_EQ(init(settings), 0);
  exceed(Limit::kDiskSpace, true);
  EXPECT_EQ(outcome(), 'E');
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'q');
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'E');
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'q');
  EXPECT_EQ(outcome(), 'E');
}

}  // namespace
}  // namespace tarnik
