// Which flow a frame belongs to, and when a flow on an interface ends. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <unordered_map>

#include "packet/decode.h"
#include "platform/brund/delivery.h"

namespace tarnik::brund {

// Decodes frames and finds the flow of fragments. A later fragment belongs to the flow of the last
// first fragment with the same addresses, protocol and identification. Without such a fragment (it
// was not captured, it comes later, or `maxDatagrams` newer datagrams were fragmented) it belongs
// to the flow of its addresses and protocol. The result depends only on the frames so far, so
// reading an input twice gives the same flows.
class FlowFinder {
 public:
  explicit FlowFinder(std::size_t maxDatagrams = 65536) : maxDatagrams_(maxDatagrams) {}

  [[nodiscard]] Decoded find(const Frame& frame);

 private:
  std::size_t maxDatagrams_;
  std::unordered_map<DatagramKey, FlowKey, DatagramKeyHash> datagrams_;
  std::deque<DatagramKey> order_;  // the keys of datagrams_, oldest first
};

// Watches a TCP connection for its close: a reset, or a FIN of each side that the other side has
// acknowledged.
class TcpClose {
 public:
  // Takes a segment; true when it closes the connection.
  [[nodiscard]] bool closes(const TcpHeader& tcp, bool fromLow);

 private:
  struct Side {
    bool fin = false;
    bool acknowledged = false;
    std::uint32_t end = 0;  // the sequence number that acknowledges the FIN
  };
  Side sides_[2];
};

// The flows on an interface that are being captured. A flow is added with the first frame that a
// rule matches. It ends when its TCP connection closes, when it is idle, or when the table is full
// and it has been silent the longest. A closed flow stays for kLingerSeconds, so that late segments
// do not start a new flow; a SYN without ACK starts one at once.
class FlowTable {
 public:
  struct Flow {
    FlowKey key;
    std::shared_ptr<CaptureState> capture;
    TcpClose tcp;
    bool closed = false;
    std::int64_t lastSeen = 0;  // seconds
  };
  static constexpr std::int64_t kLingerSeconds = 3;

  // `idle`: a flow ends after this many seconds without a frame.
  FlowTable(std::int64_t idle, std::size_t maxFlows) : idle_(idle), maxFlows_(maxFlows) {}

  // The frame's flow, open or closed, or null. `now`: seconds, by the timestamps of the frames. The
  // pointer is valid until the next call.
  [[nodiscard]] Flow* find(const Decoded& frame, std::int64_t now);
  // Adds a flow that find() did not find.
  [[nodiscard]] Flow* add(const FlowKey& key, const Rule* rule, std::int64_t now);
  [[nodiscard]] std::size_t size() const { return flows_.size(); }

 private:
  using Flows = std::list<Flow>;
  [[nodiscard]] bool isOver(const Flow& flow, std::int64_t now) const;
  void removeOld(std::int64_t now);

  std::int64_t idle_;
  std::size_t maxFlows_;
  Flows flows_;  // sorted by the time of their last frame, oldest first
  std::unordered_map<FlowKey, Flows::iterator, FlowKeyHash> index_;
};

}  // namespace tarnik::brund
