// Generates network conversations, frame by frame.
#pragma once

#include <cstdint>
#include <vector>

namespace tarnik {

struct TimedFrame {
  std::uint64_t microseconds;       // since the epoch
  std::vector<std::uint8_t> bytes;  // Ethernet header and payload, no frame check sequence
};

// Returns the frames of `flows` conversations, sorted by time. The conversations begin within
// `seconds` seconds. The same arguments give the same frames.
[[nodiscard]] std::vector<TimedFrame> makeConversations(unsigned flows, unsigned seconds,
                                                        unsigned seed);

}  // namespace tarnik
