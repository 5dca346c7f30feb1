#include "platform/brund/feed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace tarnik::brund {
namespace {

using ::testing::ElementsAreArray;

TEST(PacerTest, FramesAreDueAtTheirSpeed) {
  const struct {
    Speed speed;
    double rate;
    std::vector<double> timestamps;
    std::vector<std::int64_t> due;  // microseconds
  } cases[] = {
      // Pauses are kept up to a minute.
      {Speed::kRecorded, 0, {1000, 1000.25, 1002.25, 1062.25}, {0, 250000, 2250000, 62250000}},
      // A step back is no pause, and a pause above a minute is one second.
      {Speed::kRecorded, 0, {1000, 900, 900.5, 1900, 1900}, {0, 0, 500000, 1500000, 1500000}},
      {Speed::kRate, 4, {9, 1, 5}, {0, 250000, 500000}},
      {Speed::kMax, 0, {1, 1000}, {0, 0}},
  };
  for (const auto& entry : cases) {
    Pacer pacer(entry.speed, entry.rate);
    std::vector<std::int64_t> due;
    for (const double time : entry.timestamps) {
      Frame frame;
      frame.seconds = static_cast<std::uint32_t>(time);
      frame.microseconds = static_cast<std::uint32_t>((time - frame.seconds) * 1e6 + 0.5);
      due.push_back(pacer.due(frame).count());
    }
    EXPECT_THAT(due, ElementsAreArray(entry.due));
  }
}

}  // namespace
}  // namespace tarnik::brund
