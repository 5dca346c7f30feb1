// The limits on captures, and when a frame that meets one is worth an event.
#pragma once

#include <cstdint>
#include <ctime>

namespace tarnik {

struct Limits {
  std::int64_t maxTimeout = 0;       // seconds a writer may be idle
  std::uint64_t diskSpace = 0;       // bytes in the capture directory
  std::uint64_t fileCount = 0;       // capture files in it
  std::int64_t maxFileSize = 0;      // bytes of a new capture file
  std::int64_t eventInterval = 0;    // seconds an event is quiet at most
  std::uint32_t eventThreshold = 0;  // frames it is quiet at most
};

// The event of one limit: raised once, then quiet until enough frames or time have passed. Frames
// within the limit count as well. Not thread-safe.
class LimitEvent {
 public:
  enum class Verdict {
    kWithin,
    kQuiet,  // the limit is exceeded, which has been said
    kRaise,  // the limit is exceeded: say so
  };

  explicit LimitEvent(bool armed = false) : armed_(armed) {}

  // Tests one frame; `exceeded` says whether the limit is.
  [[nodiscard]] Verdict test(bool exceeded, std::time_t now, const Limits& limits);
  // Forgets the past; the event is raised by the next frame over the limit.
  void arm() { *this = LimitEvent(true); }
  // Forgets the past, but for whether the event may be raised.
  void restart() { *this = LimitEvent(armed_); }

 private:
  bool armed_;
  std::uint64_t count_ = 0;   // frames tested since the last event
  std::time_t deadline_ = 0;  // end of the quiet period
};

}  // namespace tarnik
