// Delivers the frames of captures to the daemon: announces a capture before its first frame, queues
// every frame that a descriptor can carry, and accounts for all of them. One thread.
//
// The daemon's socket holds only a few announcements. A replay waits until there is room. In live
// capture, a new capture that finds no room in the socket or in the queue waits in a backlog, with
// its frames. The backlog is sent in order, as the daemon accepts it. Frames of captures that are
// not in the backlog are queued at once, or dropped when the queue is full.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "platform/brund/account.h"
#include "platform/brund/announcer.h"
#include "platform/brund/queue_sender.h"

namespace tarnik::brund {

// The capture of a flow.
struct CaptureState {
  explicit CaptureState(const Rule* matched) : rule(matched) {}

  const Rule* rule;
  std::uint64_t id = 0;                // set when the capture has been announced
  std::size_t held = 0;                // frames in the backlog
  std::optional<std::size_t> account;  // set with its first queued frame
};

class Delivery {
 public:
  enum class Mode : std::uint8_t {
    kReplay,  // waits for room
    kLive,    // never waits
  };
  static constexpr std::size_t kMaxBacklog = 64 << 20;  // bytes

  // `wait`: how long to wait for room while no daemon listens.
  Delivery(QueueSender& queue, Announcer& announcer, Account& account, Mode mode,
           std::chrono::seconds wait);

  // Delivers a frame of a flow whose rule is known. False when a signal ended a wait for room, an
  // error when the run cannot continue.
  [[nodiscard]] Result<bool> deliver(const Frame& frame, const Decoded& decoded,
                                     const std::shared_ptr<CaptureState>& capture, bool last);

  // Live capture without a frame to deliver: sends as much of the backlog as there is room for.
  [[nodiscard]] Result<bool> sendBacklog();
  [[nodiscard]] bool hasBacklog() const { return !backlog_.empty(); }
  // The descriptor that becomes writable when an announcement of the backlog can be sent; -1 when
  // it waits for nothing, or for room in the queue.
  [[nodiscard]] int backlogFd() const;

  // Sends the backlog and waits until the daemon has emptied the queue. An error when it takes no
  // more frames, or when another stop signal comes. Then the rest of the backlog is refused.
  [[nodiscard]] Result<> waitUntilTaken();

 private:
  class Waiting;
  struct Held {
    Frame frame;                     // over `data`
    std::vector<std::uint8_t> data;  // never changed, so that moving keeps the frame valid
    FlowKey flow;
    bool fromLow;
    bool last;
    std::shared_ptr<CaptureState> capture;
  };

  [[nodiscard]] Result<bool> deliverReplay(const Frame& frame, const Decoded& decoded,
                                           CaptureState& capture, bool last);
  [[nodiscard]] Result<bool> deliverLive(const Frame& frame, const Decoded& decoded,
                                         const std::shared_ptr<CaptureState>& capture, bool last);
  [[nodiscard]] Announcer::Sent announce(const FlowKey& flow, CaptureState& capture);
  [[nodiscard]] Result<bool> put(const Frame& frame, const FlowKey& flow, bool fromLow,
                                 CaptureState& capture, bool last, Waiting* waiting);
  [[nodiscard]] Result<bool> refuse(Refusal reason);
  [[nodiscard]] Result<bool> giveUp(Refusal reason, const Waiting* waiting);
  [[nodiscard]] Result<bool> hold(const Frame& frame, const Decoded& decoded,
                                  const std::shared_ptr<CaptureState>& capture, bool last);
  [[nodiscard]] Held takeHeld();
  void refuseBacklog(Refusal reason);
  [[nodiscard]] Result<> waitForBacklog(Waiting& waiting);

  QueueSender& queue_;
  Announcer& announcer_;
  Account& account_;
  Mode mode_;
  std::chrono::seconds wait_;
  std::uint64_t nextId_;
  std::deque<Held> backlog_;
  std::size_t backlogBytes_ = 0;
};

}  // namespace tarnik::brund
