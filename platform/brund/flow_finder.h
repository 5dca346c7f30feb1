// The flow of each frame of an input, fragments included: a fragment after the first belongs to
// the flow of the last first fragment before it in the input that has the same addresses, protocol
// and identification. Where there was none (it was not captured, came later, or the
// `maxDatagrams` datagrams fragmented since have pushed it out) it belongs to the flow of its
// addresses and protocol. The answer depends on the frames given so far and on nothing else, so
// that reading an input twice gives the same flows. One thread.
#pragma once

#include <cstddef>
#include <deque>
#include <unordered_map>

#include "packet/decode.h"

namespace tarnik::brund {

class FlowFinder {
 public:
  explicit FlowFinder(std::size_t maxDatagrams = 65536) : max_datagrams_(maxDatagrams) {}

  [[nodiscard]] Decoded find(const Frame& frame);

 private:
  std::size_t max_datagrams_;
  std::unordered_map<DatagramKey, FlowKey, DatagramKeyHash> datagrams_;
  std::deque<DatagramKey> order_;  // the keys of datagrams_, oldest first
};

}  // namespace tarnik::brund
