#include "platform/brund/flow_finder.h"

namespace tarnik::brund {

Decoded FlowFinder::find(const Frame& frame) {
  Decoded decoded = decode(frame);
  if (decoded.fragment == Fragment::kFirst) {
    if (datagrams_.insert_or_assign(decoded.datagram, decoded.key).second) {
      order_.push_back(decoded.datagram);
    }
    if (order_.size() > max_datagrams_) {
      datagrams_.erase(order_.front());
      order_.pop_front();
    }
  } else if (decoded.fragment == Fragment::kLater) {
    if (const auto found = datagrams_.find(decoded.datagram); found != datagrams_.end()) {
      decoded.key = found->second;
    }
  }
  return decoded;
}

}  // namespace tarnik::brund
