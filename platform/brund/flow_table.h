// The flows that are being captured from an interface. A flow is in the table from the frame that
// a rule matched until it ends: by the close of its TCP connection, by a time without frames, or
// because the table is full and it is the one silent for longest.
//
// A TCP connection closes with a reset, or when both sides have sent FIN and both FINs were
// acknowledged. Its flow stays for a few seconds more, so that stragglers are not taken for a new
// flow; a SYN without ACK begins a new one at once. One thread.
#pragma once

#include <cstdint>
#include <list>
#include <unordered_map>

#include "packet/decode.h"
#include "platform/brund/delivery.h"

namespace tarnik::brund {

// Watches a connection for its close.
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

class FlowTable {
 public:
  struct Flow {
    FlowKey key;
    CaptureState capture;
    TcpClose tcp;
    bool closed = false;
    std::int64_t last_seen = 0;  // seconds
  };
  static constexpr std::int64_t kLingerSeconds = 3;

  // `idle`: seconds without a frame after which a flow has ended.
  FlowTable(std::int64_t idle, std::size_t maxFlows) : idle_(idle), max_flows_(maxFlows) {}

  // The flow of this frame if it is being captured (or has closed and lingers), else null. `now`:
  // seconds, of the frames' clock. The pointer is valid until the next call.
  [[nodiscard]] Flow* find(const Decoded& frame, std::int64_t now);
  // Adds the flow, which must not be there.
  [[nodiscard]] Flow* add(const FlowKey& key, const Rule* rule, std::int64_t now);
  [[nodiscard]] std::size_t size() const { return flows_.size(); }

 private:
  using Flows = std::list<Flow>;
  [[nodiscard]] bool over(const Flow& flow, std::int64_t now) const;
  void expire(std::int64_t now);

  std::int64_t idle_;
  std::size_t max_flows_;
  Flows flows_;  // the one silent for longest first
  std::unordered_map<FlowKey, Flows::iterator, FlowKeyHash> index_;
};

}  // namespace tarnik::brund
