// The road of a frame from a flow to the daemon's queue, with its account: announces a capture
// before its first frame, queues what the descriptor can carry, counts everything else by reason.
// One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/brund/account.h"
#include "platform/brund/metadata.h"
#include "platform/brund/queue_sender.h"

namespace tarnik::brund {

// What a flow's capture needs between its frames.
struct CaptureState {
  const Rule* rule = nullptr;          // set once a frame of the flow matched
  std::uint64_t id = 0;                // set once the capture was announced
  std::optional<std::size_t> account;  // set with its first queued frame
};

class Delivery {
 public:
  enum class Mode : std::uint8_t {
    kReplay,  // waits for room, as long as a daemon is there that may make some
    kLive,    // never waits
  };

  Delivery(QueueSender& queue, MetadataSender& metadata, Account& account, Mode mode);

  // Delivers a frame of a flow whose rule matched. False when the run cannot go on: then failure()
  // says why, or is empty when a signal ended it.
  [[nodiscard]] bool deliver(const Frame& frame, const Decoded& decoded, CaptureState& capture,
                             bool last);
  [[nodiscard]] const std::string& failure() const { return failure_; }
  // Waits until the daemon has emptied the queue. False, with failure(), when it stopped taking
  // frames or a second signal came.
  [[nodiscard]] bool waitUntilTaken();

 private:
  class Waiting;

  [[nodiscard]] bool refuse(Refusal reason);
  [[nodiscard]] bool announce(const FlowKey& flow, CaptureState& capture, Refusal& refusal);
  [[nodiscard]] Refusal giveUp(Refusal reason, const Waiting& waiting);

  QueueSender& queue_;
  MetadataSender& metadata_;
  Account& account_;
  Mode mode_;
  std::uint64_t next_id_;
  std::string failure_;
};

}  // namespace tarnik::brund
