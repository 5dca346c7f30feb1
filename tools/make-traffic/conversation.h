// Made-up conversations, frame by frame.
#pragma once

#include <cstdint>
#include <vector>

namespace tarnik {

struct TimedFrame {
  std::uint64_t microseconds;       // since the epoch
  std::vector<std::uint8_t> bytes;  // from the Ethernet header on, without a frame check sequence
};

// `flows` conversations that begin within `seconds` seconds, their frames in order of time. The
// same arguments give the same frames.
[[nodiscard]] std::vector<TimedFrame> makeConversations(unsigned flows, unsigned seconds,
                                                        unsigned seed);

}  // namespace tarnik
