// The limits on disk space and number of files: which frames they refuse, and which refusals raise
// an event.
#include <unistd.h>

#include <limits>
#include <tuple>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using test::Event;
using testing::Combine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;
using testing::ValuesIn;

enum class Limit { kDiskSpace, kFileCount };

class LimitsTest : public test::ManagerTest {
 protected:
  // Puts the directory over the default limit on disk space or over a limit of 11 files, and
  // measures it.
  void exceed(Limit limit) {
    if (limit == Limit::kDiskSpace) {
      resizeHuge(5'000'000'000);
    } else {
      for (int file = 0; file < 12; ++file) {
        test::writeFile(kCaptureDir + std::to_string(file) + ".pcap", "");
      }
    }
    manager.UpdateUsageCounters();
  }
  // Puts the directory within the limit again and measures it.
  void relieve(Limit limit) {
    if (limit == Limit::kDiskSpace) {
      resizeHuge(0);
    } else {
      for (int file = 0; file < 12; ++file) {
        std::filesystem::remove(kCaptureDir + std::to_string(file) + ".pcap");
      }
    }
    manager.UpdateUsageCounters();
  }
  // The outcome of a frame: '.' written, 'E' refused with an event, 'q' refused quietly.
  char outcome() {
    test::clearLog();
    test::clearEvents();
    const int result = consume(1);
    EXPECT_EQ(test::events().size(), test::logTextsAboveDebug().size());
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
  std::string outcomes(unsigned frames) {
    std::string all;
    while (frames-- > 0) {
      all += outcome();
    }
    return all;
  }

 private:
  static void resizeHuge(off_t size) {
    const std::string path = std::string(kCaptureDir) + "huge";
    test::writeFile(path, "");
    ASSERT_EQ(::truncate(path.c_str(), size), 0);
  }
};

// One column per frame: its time (seconds after the first frame), whether the limit is exceeded,
// and its outcome under each limit. Init arms the event of the disk space. The first frame arms the
// event of the number of files.
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
    {"a week", 100000, 604800, {0, 0, 604800, 604801, 604801}, "xxxxx", "EqqqE", "qEqqE"},
    {"largest threshold", 4294967295, 5, {0, 0, 5, 6, 6}, "xxxxx", "EqqqE", "qEqqE"},
    {"the frame that arms the event is quiet", 1000, 10, {0, 0, 999, 999}, "xxxx", "EqqE", "qEqE"},
    {"the first of both limits counts",
     2,
     2,
     {0, 0, 3, 3, 3, 3, 3, 3},
     "xxxxxxxx",
     "EqqEqqqE",
     "qEqEqqqE"},
    {"frames within the limit count", 2, 100, {0, 0, 0, 0, 0, 0}, "xx...x", "Eq...E", "qE...E"},
    {"one frame too few", 3, 100, {0, 0, 0, 0, 0, 0}, "xx...x", "Eq...E", "qE...q"},
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
    rate.exceeded[i] == 'x' ? exceed(limit) : relieve(limit);
    wait(rate.times[i]);
    outcomes += outcome();
  }
  EXPECT_EQ(outcomes, limit == Limit::kDiskSpace ? rate.disk : rate.files);
}

INSTANTIATE_TEST_SUITE_P(Rates, EventRateTest,
                         Combine(Values(Limit::kDiskSpace, Limit::kFileCount),
                                 ValuesIn(kRateCases)));

// Also above 4 GiB. The event follows the log line.
TEST_F(LimitsTest, TheDiskSpaceRefusalSaysHowMuchIsUsed) {
  ASSERT_EQ(reload({.diskSpace = 4'999'999'999}), 0);
  exceed(Limit::kDiskSpace);
  const std::string used = std::to_string(manager.diskUsed());
  ASSERT_GE(manager.diskUsed(), 5'000'000'000u);
  std::string last;
  test::onEvent([&] { last = test::logTexts().back(); });
  EXPECT_EQ(consume(1), 9);
  EXPECT_EQ(last, "Warning: ConsumeFrame: Disk space limit exceeded=[" + used + "/4999999999 ] ");
  EXPECT_THAT(test::logTexts(), ElementsAre(last));
  EXPECT_THAT(test::events(),
              ElementsAre(Event{"VRKPC0001I", "VRK_events",
                                "MaxDiskSize=4999999999,DiskSizeUsed=" + used + " "}));
  EXPECT_THAT(entries(), ElementsAre("huge"));
}

TEST_F(LimitsTest, TheFileCountRefusalGivesTheNumberInUseAsTheMaximum) {
  ASSERT_EQ(reload({.fileCount = 10}), 0);
  exceed(Limit::kFileCount);
  EXPECT_EQ(consume(1), 10);
  EXPECT_THAT(test::logTexts(), IsEmpty());
  std::string last;
  test::onEvent([&] { last = test::logTexts().back(); });
  EXPECT_EQ(consume(1), 10);
  EXPECT_EQ(last, "Warning: ConsumeFrame: Files limit exceeded=[12/10 ] ");
  EXPECT_THAT(test::logTexts(), ElementsAre(last));
  EXPECT_THAT(test::events(),
              ElementsAre(Event{"VRKPC0002I", "VRK_events", "MaxNumberOfFiles=12 "}));
  EXPECT_EQ(entries().size(), 12u);
}

TEST_F(LimitsTest, AFrameIsRefusedOnlyAboveALimit) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  exceed(Limit::kFileCount);
  exceed(Limit::kDiskSpace);
  const std::uint64_t used = manager.diskUsed();
  const struct {
    std::uint64_t diskSpace;
    std::uint64_t fileCount;
    int result;
  } cases[] = {
      {kMost, kMost, 0}, {used, 12, 0}, {used - 1, 12, 9}, {used, 11, 10}, {used - 1, 11, 9},
  };
  for (const auto& limits : cases) {
    ASSERT_EQ(reload({.diskSpace = limits.diskSpace, .fileCount = limits.fileCount}), 0);
    EXPECT_EQ(consume(1), limits.result);
  }
}

// A refused frame of an open capture is not written and does not end the capture, and neither its
// metadata nor its writer lives longer.
TEST_F(LimitsTest, ARefusedFrameChangesNothing) {
  TarnikMetaCache::instance().config(10);
  for (const Limit limit : {Limit::kDiskSpace, Limit::kFileCount}) {
    wait(0);
    ASSERT_EQ(reload({.maxTimeout = 10, .fileCount = 10}), 0);
    announce(1, 70000);
    ASSERT_EQ(consume(1, 100, 1), 0);
    wait(8);
    exceed(limit);
    EXPECT_EQ(consumeLast(1, 2), limit == Limit::kDiskSpace ? 9 : 10);
    EXPECT_NE(writerOf(1), nullptr);
    relieve(limit);
    EXPECT_THAT(captures(), IsEmpty());
    wait(11);
    TarnikMetaCache::instance().expire();
    EXPECT_FALSE(announced(1));
    manager.ExpireWriters();
    ASSERT_THAT(captures(), testing::SizeIs(1));
    EXPECT_THAT(records(captures()[0]), ElementsAre(record(100, 1)));
    std::filesystem::remove(kCaptureDir + captures()[0]);
  }
}

TEST_F(LimitsTest, AFrameDoesNotMeasureTheDirectory) {
  ASSERT_EQ(reload({.fileCount = 10}), 0);
  exceed(Limit::kFileCount);
  ASSERT_EQ(init({.fileCount = 10}), 0) << "which forgets the measurement";
  EXPECT_EQ(consume(1), 0);
  manager.UpdateUsageCounters();
  EXPECT_EQ(consume(1), 10);
}

// Over the disk space, a frame neither counts for the other limit nor compares its time.
TEST_F(LimitsTest, TheDiskSpaceIsTestedFirst) {
  ASSERT_EQ(reload({.fileCount = 10, .eventInterval = 100, .eventThreshold = 3}), 0);
  exceed(Limit::kDiskSpace);
  exceed(Limit::kFileCount);
  EXPECT_EQ(outcomes(8), "EqqqqEqq");
  relieve(Limit::kDiskSpace);
  EXPECT_EQ(outcomes(2), "qE") << "the first frame that reached this test armed the event";
}

// Over the file count, frames still pass the test of the disk space.
TEST_F(LimitsTest, TheEventsAreIndependent) {
  ASSERT_EQ(reload({.fileCount = 10, .eventInterval = 100, .eventThreshold = 3}), 0);
  exceed(Limit::kDiskSpace);
  EXPECT_EQ(outcome(), 'E');
  relieve(Limit::kDiskSpace);
  exceed(Limit::kFileCount);
  EXPECT_EQ(outcomes(4), "qEqq");
  exceed(Limit::kDiskSpace);
  EXPECT_EQ(outcome(), 'E') << "four frames passed the test of the disk space";
}

TEST_F(LimitsTest, AReloadArmsTheDiskSpaceEventOnly) {
  const Settings settings{.fileCount = 10, .eventInterval = 100, .eventThreshold = 1000};
  ASSERT_EQ(reload(settings), 0);
  exceed(Limit::kDiskSpace);
  EXPECT_EQ(outcomes(2), "Eq");
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'E');
  relieve(Limit::kDiskSpace);
  exceed(Limit::kFileCount);
  EXPECT_EQ(outcomes(3), "qEq");
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcomes(2), "qE") << "the quiet period is over, but only a frame arms the event";
}

TEST_F(LimitsTest, AReloadOrInitKeepsAnArmedFileCountEvent) {
  const Settings settings{.fileCount = 10, .eventInterval = 100, .eventThreshold = 1000};
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), '.');
  exceed(Limit::kFileCount);
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcome(), 'E');
  for (const char expected : {'q', 'E'}) {
    ASSERT_EQ(init(settings), 0);
    manager.UpdateUsageCounters();
    EXPECT_EQ(outcome(), expected);
  }
}

TEST_F(LimitsTest, AReloadZeroesTheCounts) {
  const Settings settings{.eventInterval = 100, .eventThreshold = 2};
  ASSERT_EQ(reload(settings), 0);
  exceed(Limit::kDiskSpace);
  EXPECT_EQ(outcomes(3), "Eqq");
  ASSERT_EQ(reload(settings), 0);
  EXPECT_EQ(outcomes(5), "EqqqE");
}

TEST_F(LimitsTest, AFailedReloadOrInitKeepsTheStateOfTheEvents) {
  ASSERT_EQ(reload({.fileCount = 10, .eventInterval = 100, .eventThreshold = 3}), 0);
  exceed(Limit::kDiskSpace);
  EXPECT_EQ(outcomes(2), "Eq");
  std::filesystem::remove(test::kIssuesPath);
  EXPECT_EQ(reload({}), 8);
  EXPECT_EQ(outcome(), 'q') << "not armed";
  EXPECT_EQ(init({}), 8);
  EXPECT_EQ(outcomes(3), "qqE") << "not counted from zero";
}

}  // namespace
}  // namespace tarnik
