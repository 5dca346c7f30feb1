// The two kinds of a run's input: replayed capture files, and live traffic of an interface. One
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "base/result.h"
#include "platform/brund/account.h"
#include "platform/brund/delivery.h"
#include "platform/brund/options.h"
#include "platform/brund/rules.h"
#include "platform/brund/source.h"

namespace tarnik::brund {

// What replay() and captureLive() work on.
struct Feed {
  const Options& options;
  const RuleSet& rules;
  Delivery& delivery;
  Account& account;
  Progress& progress;
};

// Replays options.files, in this order, as one input: reads it once to find the last frame of each
// flow, then plays it options.loops times. A file that cannot be read is a problem in the account;
// the frames before the fault are played. False when a signal stopped the run, an error when frames
// cannot be delivered any more.
[[nodiscard]] Result<bool> replay(const Feed& feed);

// Delivers the traffic of `source` until options.seconds have passed or a signal comes. If the
// interface fails, that is a problem in the account. Returns true, or an error when frames cannot
// be delivered any more.
[[nodiscard]] Result<bool> captureLive(const Feed& feed, LiveSource& source);

// When the frames of a replay are due.
class Pacer {
 public:
  using Microseconds = std::chrono::microseconds;

  Pacer(Speed speed, double framesPerSecond) : speed_(speed), rate_(framesPerSecond) {}

  // The time from the first frame to this one, the next of the input. At recorded speed it is the
  // sum of the pauses between the timestamps. A negative pause counts as none, and a pause of more
  // than a minute as one second, because it is where two recordings meet.
  [[nodiscard]] Microseconds due(const Frame& frame);
  // Sleeps until the frame is due, or until a stop signal comes.
  void wait(const Frame& frame);

 private:
  Speed speed_;
  double rate_;
  std::uint64_t frames_ = 0;
  Microseconds due_{0};
  std::int64_t previous_ = 0;  // timestamp of the frame before, microseconds
  std::optional<std::chrono::steady_clock::time_point> start_;
};

}  // namespace tarnik::brund
