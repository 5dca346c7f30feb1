// When the next frame of a replay is due. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "packet/frame.h"
#include "platform/brund/options.h"

namespace tarnik::brund {

class Pacer {
 public:
  using Microseconds = std::chrono::microseconds;

  Pacer(Speed speed, double framesPerSecond) : speed_(speed), rate_(framesPerSecond) {}

  // How long after the first frame this one, the next of the input, is due. At recorded speed that
  // is the sum of the pauses between the timestamps: none where time steps back, one second for
  // a pause of over a minute, which is the seam of two recordings rather than a pause.
  [[nodiscard]] Microseconds due(const Frame& frame);
  // Sleeps until the frame is due; a signal that ends the run ends the sleep.
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
