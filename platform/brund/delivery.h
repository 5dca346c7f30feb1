// Delivers the frames of captures to the daemon: announces a capture before its first frame, queues
// every frame that a descriptor can carry, and accounts for all of them. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "base/result.h"
#include "platform/brund/account.h"
#include "platform/brund/announcer.h"
#include "platform/brund/queue_sender.h"

namespace tarnik::brund {

// The capture of a flow.
struct CaptureState {
  const Rule* rule = nullptr;          // set when a frame of the flow has matched
  std::uint64_t id = 0;                // set when the capture has been announced
  std::optional<std::size_t> account;  // set with its first queued frame
};

class Delivery {
 public:
  enum class Mode : std::uint8_t {
    kReplay,  // waits for room
    kLive,    // never waits
  };

  // `wait`: how long a replay waits for room while no daemon listens.
  Delivery(QueueSender& queue, Announcer& announcer, Account& account, Mode mode,
           std::chrono::seconds wait);

  // Delivers a frame of a flow whose rule is known. False when a signal ended a wait for room, an
  // error when the run cannot continue.
  [[nodiscard]] Result<bool> deliver(const Frame& frame, const Decoded& decoded,
                                     CaptureState& capture, bool last);
  // Waits until the daemon has emptied the queue. An error when it takes no more frames, or when
  // another stop signal comes.
  [[nodiscard]] Result<> waitUntilTaken();

 private:
  class Waiting;

  [[nodiscard]] Result<bool> refuse(Refusal reason);
  [[nodiscard]] Result<bool> giveUp(Refusal reason, const Waiting& waiting);
  [[nodiscard]] std::optional<Refusal> announce(const FlowKey& flow, CaptureState& capture,
                                                Waiting& waiting);

  QueueSender& queue_;
  Announcer& announcer_;
  Account& account_;
  Mode mode_;
  std::chrono::seconds wait_;
  std::uint64_t nextId_;
};

}  // namespace tarnik::brund
