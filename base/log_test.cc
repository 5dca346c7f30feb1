#include "base/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

#include "base/testing/captured_log.h"

namespace {
int zoneReads = 0;
}

// Replaces libc's, which this program does not need.
extern "C" void tzset() noexcept {
  ++zoneReads;
}

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogTest : public ::testing::Test {
 protected:
  LogTest() {
    setDebugLevel(0);
    clearLog();
    zoneReads = 0;
  }
  ~LogTest() override {
    setDebugLevel(0);
    onLogLine(nullptr);
  }
};

TEST_F(LogTest, EachLevelHasItsPriority) {
  setDebugLevel(1);
  TARNIK_DEBUG(0, "Debug: %s", "a");
  TARNIK_INFO("%d", 2);
  TARNIK_WARNING("Warning: %s", "c");
  TARNIK_ERROR("Error: %s", "d");
  TARNIK_FATAL("Fatal error: %s", "e");
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_DEBUG, "Debug: a"}, LogLine{LOG_INFO, "2"},
                          LogLine{LOG_WARNING, "Warning: c"}, LogLine{LOG_ERR, "Error: d"},
                          LogLine{LOG_CRIT, "Fatal error: e"}));
}

TEST_F(LogTest, DebugLinesAreWrittenAboveTheirThreshold) {
  setDebugLevel(2);
  int evaluated = 0;
  TARNIK_DEBUG(2, "%d", ++evaluated);
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_EQ(evaluated, 0);
  raiseDebugLevel();
  EXPECT_EQ(debugLevel(), 3U);
  TARNIK_DEBUG(2, "%d", ++evaluated);
  EXPECT_THAT(logLines(), ElementsAre(LogLine{LOG_DEBUG, "1"}));
}

TEST_F(LogTest, TheTimeZoneIsReadBeforeEachLine) {
  static int readingsBefore[3];
  static int lines;
  lines = 0;
  onLogLine([](const LogLine&) { readingsBefore[lines++] = zoneReads; });
  TARNIK_INFO("one");
  TARNIK_ERROR("two");
  TARNIK_FATAL("three");
  EXPECT_THAT(readingsBefore, ElementsAre(1, 2, 3));
  TARNIK_DEBUG(0, "not written");
  EXPECT_EQ(zoneReads, 3);
}

TEST_F(LogTest, ErrnoSurvives) {
  onLogLine([](const LogLine&) { errno = EIO; });
  errno = ENOTTY;
  TARNIK_ERROR("Error: %s", "x");
  EXPECT_EQ(errno, ENOTTY);
}

}  // namespace
}  // namespace tarnik::test
