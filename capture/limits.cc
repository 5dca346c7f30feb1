#include "capture/limits.h"

namespace tarnik {

std::size_t bufferShare(std::uint64_t diskSpace, std::size_t captures, std::size_t largest) {
  constexpr std::uint64_t kBufferedPart = 16;
  std::size_t share = largest;
  while (share > kSmallestBuffer && share * captures > diskSpace / kBufferedPart) {
    share /= 2;
  }
  return share;
}

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
