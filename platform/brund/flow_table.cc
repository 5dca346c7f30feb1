#include "platform/brund/flow_table.h"

#include <iterator>
#include <utility>

namespace tarnik::brund {

Decoded FlowFinder::find(const Frame& frame) {
  Decoded decoded = decode(frame);
  if (decoded.fragment == Fragment::kFirst) {
    if (datagrams_.insert_or_assign(decoded.datagram, decoded.key).second) {
      order_.push_back(decoded.datagram);
    }
    if (order_.size() > maxDatagrams_) {
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

bool TcpClose::closes(const TcpHeader& tcp, bool fromLow) {
  if ((tcp.flags & TcpHeader::kRst) != 0) {
    return true;
  }
  Side& own = sides_[fromLow ? 0 : 1];
  Side& peer = sides_[fromLow ? 1 : 0];
  if ((tcp.flags & TcpHeader::kAck) != 0 && peer.fin &&
      static_cast<std::int32_t>(tcp.acknowledgement - peer.end) >= 0) {
    peer.acknowledged = true;
  }
  if ((tcp.flags & TcpHeader::kFin) != 0) {
    const std::uint32_t syn = (tcp.flags & TcpHeader::kSyn) != 0 ? 1 : 0;
    own.fin = true;
    own.end = tcp.sequence + tcp.payload + syn + 1;
  }
  return own.acknowledged && peer.acknowledged;
}

// `now` may go backwards. That does not end a flow.
bool FlowTable::isOver(const Flow& flow, std::int64_t now) const {
  return now - flow.lastSeen > (flow.closed ? kLingerSeconds : idle_);
}

void FlowTable::removeOld(std::int64_t now) {
  while (!flows_.empty() && (flows_.size() >= maxFlows_ || isOver(flows_.front(), now))) {
    index_.erase(flows_.front().key);
    flows_.pop_front();
  }
}

FlowTable::Flow* FlowTable::find(const Decoded& frame, std::int64_t now) {
  const auto found = index_.find(frame.key);
  if (found == index_.end()) {
    return nullptr;
  }
  const auto flow = found->second;
  const bool opens = frame.tcp && (frame.tcp->flags & TcpHeader::kSyn) != 0 &&
                     (frame.tcp->flags & TcpHeader::kAck) == 0;
  if (isOver(*flow, now) || (flow->closed && opens)) {
    index_.erase(found);
    flows_.erase(flow);
    return nullptr;
  }
  flow->lastSeen = flow->closed ? flow->lastSeen : now;
  flows_.splice(flows_.end(), flows_, flow);
  return &*flow;
}

FlowTable::Flow* FlowTable::add(const FlowKey& key, const Rule* rule, std::int64_t now) {
  removeOld(now);
  Flow flow;
  flow.key = key;
  flow.capture = std::make_shared<CaptureState>(rule);
  flow.lastSeen = now;
  flows_.push_back(std::move(flow));
  index_.emplace(key, std::prev(flows_.end()));
  return &flows_.back();
}

}  // namespace tarnik::brund
