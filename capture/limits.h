// The limits on captures, and when a frame over a limit raises an event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace tarnik {

struct Limits {
  std::int64_t maxTimeout = 0;       // seconds until an idle writer is closed
  std::uint64_t diskSpace = 0;       // bytes in the capture directory
  std::uint64_t fileCount = 0;       // capture files in the directory
  std::int64_t maxFileSize = 0;      // bytes of a new capture file
  std::int64_t eventInterval = 0;    // longest quiet period after an event, in seconds
  std::uint32_t eventThreshold = 0;  // longest quiet period after an event, in frames
};

// The records that wait in the buffers of open captures are not in the capture directory yet, so
// the limit on disk space does not see them. Together they may take a sixteenth of that limit, or
// kSmallestBuffer per capture if that is more.
inline constexpr std::size_t kSmallestBuffer = 4096;

// The largest buffer, in bytes, that each of `captures` open captures may have: a power of two from
// kSmallestBuffer to `largest`.
[[nodiscard]] std::size_t bufferShare(std::uint64_t diskSpace, std::size_t captures,
                                      std::size_t largest);

// The event of one limit. It is raised once and is then quiet until enough frames or enough time
// have passed. Frames within the limit count too. Not thread-safe.
class LimitEvent {
 public:
  enum class Verdict {
    kWithin,
    kQuiet,  // over the limit, no event
    kRaise,  // over the limit, raise the event
  };

  // Tests one frame: `used` against `limit`.
  [[nodiscard]] Verdict test(std::uint64_t used, std::uint64_t limit, std::time_t now,
                             const Limits& limits);
  // Forgets counts and times. The next frame over the limit raises the event.
  void arm();
  // Forgets counts and times. The event stays armed if it is.
  void restart();

 private:
  bool armed_ = false;
  std::uint64_t count_ = 0;   // frames tested since the last event
  std::time_t deadline_ = 0;  // end of the quiet period
};

}  // namespace tarnik
