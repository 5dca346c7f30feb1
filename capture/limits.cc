#include "capture/limits.h"

namespace tarnik {

LimitEvent::Verdict LimitEvent::test(bool exceeded, std::time_t now, const Limits& limits) {
  if (exceeded && armed_) {
    armed_ = false;
    count_ = 0;
    deadline_ = now + limits.eventInterval;
    return Verdict::kRaise;
  }
  ++count_;
  if (count_ > limits.eventThreshold || now > deadline_) {
    armed_ = true;
  }
  return exceeded ? Verdict::kQuiet : Verdict::kWithin;
}

}  // namespace tarnik
