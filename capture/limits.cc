#include "capture/limits.h"

namespace tarnik {

LimitEvent::Verdict LimitEvent::test(std::uint64_t used, std::uint64_t limit, std::time_t now,
                                     const Limits& limits) {
  if (used > limit && armed_) {
    armed_ = false;
    count_ = 0;
    deadline_ = now + limits.eventInterval;
    return Verdict::kRaise;
  }
  ++count_;
  if (count_ > limits.eventThreshold || now > deadline_) {
    armed_ = true;  // for the next frame; this one stays quiet
  }
  return used > limit ? Verdict::kQuiet : Verdict::kWithin;
}

void LimitEvent::arm() {
  restart();
  armed_ = true;
}

void LimitEvent::restart() {
  count_ = 0;
  deadline_ = 0;
}

}  // namespace tarnik
