#include "platform/brund/pacer.h"

#include <time.h>

#include <algorithm>

#include "platform/brund/stop.h"

namespace tarnik::brund {
namespace {

constexpr std::int64_t kSecond = 1000000;
constexpr std::int64_t kLongestPause = 60 * kSecond;

}  // namespace

Pacer::Microseconds Pacer::due(const Frame& frame) {
  const std::uint64_t number = frames_++;
  if (speed_ == Speed::kRate) {
    return Microseconds(static_cast<std::int64_t>(static_cast<double>(number) / rate_ * 1e6));
  }
  if (speed_ == Speed::kRecorded) {
    const std::int64_t timestamp = std::int64_t{frame.ts_sec} * kSecond + frame.ts_usec;
    const std::int64_t pause = number == 0 ? 0 : timestamp - previous_;
    previous_ = timestamp;
    due_ += Microseconds(pause > kLongestPause ? kSecond : std::max<std::int64_t>(pause, 0));
  }
  return due_;
}

void Pacer::wait(const Frame& frame) {
  if (speed_ == Speed::kMax) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  start_ = start_.value_or(now);
  const auto at = *start_ + due(frame);
  while (stopSignals() == 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::nanoseconds>(at - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return;
    }
    const timespec pause{static_cast<time_t>(left.count() / 1000000000),
                         static_cast<long>(left.count() % 1000000000)};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace tarnik::brund
