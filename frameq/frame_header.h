// What a capture file records about a frame besides its data, copied out of and into the frame's
// shared descriptor.
#pragma once

#include <cstdint>

struct zorvik_frm_desc;

namespace tarnik {

struct FrameHeader {
  std::uint32_t wireLength = 0;      // bytes on the wire
  std::uint32_t capturedLength = 0;  // bytes of data that follow the record header
  std::uint32_t seconds = 0;         // since 1970
  std::uint32_t microseconds = 0;
};

// Reads each field once. Another process can change the descriptor at any time, so the lengths are
// untrusted: compare capturedLength with TarnikQ::room before reading data. Any thread.
[[nodiscard]] FrameHeader readFrameHeader(zorvik_frm_desc& frame) noexcept;

// Fills in the descriptor of an allocated frame before it is written to a queue. Called by the
// frame's owner only.
void writeFrameHeader(zorvik_frm_desc& frame, const FrameHeader& header) noexcept;

// Fills in the group's numbers of the frame's input and output interfaces. Called like
// writeFrameHeader.
void writeFrameInterfaces(zorvik_frm_desc& frame, std::int16_t in, std::int16_t out) noexcept;

}  // namespace tarnik
