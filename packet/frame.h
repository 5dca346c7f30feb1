// A frame of the input, as it was captured.
#pragma once

#include <cstdint>
#include <span>

namespace tarnik {

struct Frame {
  std::span<const std::uint8_t> data;  // what was captured; valid until the source's next read
  std::uint32_t wireLength = 0;        // bytes on the wire
  std::uint32_t seconds = 0;
  std::uint32_t microseconds = 0;
};

// The most that a frame descriptor can carry: its length field has 16 bits.
inline constexpr std::size_t kMaxFrame = 65535;

}  // namespace tarnik
