#include "frameq/frame_header.h"

#include "zorlib/ring.h"

namespace tarnik {

FrameHeader readFrameHeader(zorvik_frm_desc& frame) noexcept {
  return {.wireLength = ring::load(frame.wire_len),
          .capturedLength = ring::load(frame.cap_len),
          .seconds = ring::load(frame.ts_sec),
          .microseconds = ring::load(frame.ts_usec)};
}

// Plain stores: the queue publishes them together with the frame's identifier.
void writeFrameHeader(zorvik_frm_desc& frame, const FrameHeader& header) noexcept {
  frame.wire_len = header.wireLength;
  frame.cap_len = header.capturedLength;
  frame.ts_sec = header.seconds;
  frame.ts_usec = header.microseconds;
  frame.frame_size = static_cast<std::uint16_t>(header.capturedLength);
}

void writeFrameInterfaces(zorvik_frm_desc& frame, std::int16_t in, std::int16_t out) noexcept {
  frame.if_in = in;
  frame.if_out = out;
}

}  // namespace tarnik
