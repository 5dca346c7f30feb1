#include "platform/brund/delivery.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/brund/wait.h"

namespace tarnik::brund {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// A daemon that listens may be slow, or stopped in a debugger. After this time without progress a
// replay gives up anyway.
constexpr seconds kNoProgress{60};
constexpr int kMetadataWaitMs = 500;
constexpr useconds_t kPollUs = 2000;

// Rising, and different in all runs that one daemon sees: microseconds since 1970, with room for
// 256 captures in each.
std::uint64_t firstCaptureId() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  return static_cast<std::uint64_t>(us) << 8;
}

}  // namespace

// One wait for the daemon. After it was given up, reason() says why; it is empty after a signal.
class Delivery::Waiting final : public Patience {
 public:
  Waiting(const Announcer& announcer, seconds limit, int stopAt = 1)
      : announcer_(announcer), limit_(limit), stopAt_(stopAt) {}

  [[nodiscard]] bool keepWaiting() override {
    if (stopSignals() >= stopAt_) {
      return false;
    }
    const auto now = Clock::now();
    if (begin_ == Clock::time_point{}) {
      begin_ = now;
      check_ = now + limit_;
    }
    if (now >= begin_ + kNoProgress) {
      reason_ = noFrameFor(kNoProgress);
      return false;
    }
    if (now >= check_) {
      check_ = now + seconds{1};
      if (!announcer_.daemonListens()) {
        reason_ = noFrameFor(limit_) + " and does not listen on " + announcer_.path() + " any more";
        return false;
      }
    }
    return true;
  }
  // Starts the time again.
  void restart() { begin_ = {}; }
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  static std::string noFrameFor(seconds time) {
    return "the daemon has taken no frame for " + std::to_string(time.count()) + " seconds";
  }

  const Announcer& announcer_;
  seconds limit_;
  int stopAt_;
  Clock::time_point begin_;
  Clock::time_point check_;
  std::string reason_;
};

Delivery::Delivery(QueueSender& queue, Announcer& announcer, Account& account, Mode mode,
                   seconds wait)
    : queue_(queue),
      announcer_(announcer),
      account_(account),
      mode_(mode),
      wait_(wait),
      nextId_(firstCaptureId()) {}

Result<bool> Delivery::deliver(const Frame& frame, const Decoded& decoded,
                               const std::shared_ptr<CaptureState>& capture, bool last) {
  account_.matched();
  if (frame.data.empty() || frame.data.size() > kMaxFrame) {
    return refuse(frame.data.empty() ? Refusal::kEmpty : Refusal::kTooLarge);
  }
  return mode_ == Mode::kReplay ? deliverReplay(frame, decoded, *capture, last)
                                : deliverLive(frame, decoded, capture, last);
}

Result<bool> Delivery::deliverReplay(const Frame& frame, const Decoded& decoded,
                                     CaptureState& capture, bool last) {
  Waiting waiting(announcer_, wait_);
  while (capture.id == 0) {
    const Announcer::Sent sent = announce(decoded.key, capture);
    if (sent == Announcer::Sent::kSent) {
      announcer_.waitUntilReceived(kMetadataWaitMs);
      waiting.restart();
      break;
    }
    const bool full = sent == Announcer::Sent::kFull;
    if (!waiting.keepWaiting()) {
      return giveUp(full ? Refusal::kMetadataFull : Refusal::kNoDaemon, &waiting);
    }
    full ? announcer_.waitForRoom(kMetadataWaitMs) : static_cast<void>(usleep(kPollUs));
  }
  return put(frame, decoded.key, decoded.fromLow, capture, last, &waiting);
}

Result<bool> Delivery::deliverLive(const Frame& frame, const Decoded& decoded,
                                   const std::shared_ptr<CaptureState>& capture, bool last) {
  if (auto sent = sendBacklog(); !sent) {
    account_.refused(Refusal::kStopped);
    return sent;
  }
  // The order of captures, and of the frames of a capture, is kept.
  const bool mustWait = hasBacklog() || !queue_.hasRoom();
  if (capture->held != 0 || (capture->id == 0 && mustWait)) {
    return hold(frame, decoded, capture, last);
  }
  if (capture->id == 0) {
    switch (announce(decoded.key, *capture)) {
      case Announcer::Sent::kSent:
        break;
      case Announcer::Sent::kFull:
        return hold(frame, decoded, capture, last);
      case Announcer::Sent::kNoDaemon:
        return refuse(Refusal::kNoDaemon);
    }
  }
  return put(frame, decoded.key, decoded.fromLow, *capture, last, nullptr);
}

Announcer::Sent Delivery::announce(const FlowKey& flow, CaptureState& capture) {
  const Announcer::Sent sent = announcer_.send({nextId_, flow.id(), capture.rule->trigger.id});
  if (sent == Announcer::Sent::kSent) {
    capture.id = nextId_++;
  }
  return sent;
}

// `waiting` is null in live capture.
Result<bool> Delivery::put(const Frame& frame, const FlowKey& flow, bool fromLow,
                           CaptureState& capture, bool last, Waiting* waiting) {
  switch (queue_.put(frame, fromLow, capture.id, last ? kPktLastFrame : 0, waiting)) {
    case QueueSender::Put::kQueued:
      if (!capture.account) {
        capture.account = account_.begin(capture.id, flow, capture.rule->trigger);
      }
      account_.queued(*capture.account, frame.data.size(), last);
      return true;
    case QueueSender::Put::kNoFrame:
      return giveUp(Refusal::kNoFrame, waiting);
    case QueueSender::Put::kQueueFull:
      return giveUp(Refusal::kQueueFull, waiting);
    case QueueSender::Put::kTooLarge:
      return refuse(Refusal::kTooLarge);
    case QueueSender::Put::kFailed:
      break;
  }
  const int error = errno;
  account_.refused(Refusal::kStopped);
  refuseBacklog(Refusal::kStopped);
  return Error{std::string("the queue cannot be written: ") + std::strerror(error)};
}

Result<bool> Delivery::refuse(Refusal reason) {
  account_.refused(reason);
  return true;
}

// Without room a live frame is lost. In a replay the wait was given up, which ends the run.
Result<bool> Delivery::giveUp(Refusal reason, const Waiting* waiting) {
  if (waiting == nullptr) {
    return refuse(reason);
  }
  if (waiting->reason().empty()) {
    account_.refused(Refusal::kStopped);
    return false;
  }
  account_.refused(reason);
  return Error{waiting->reason()};
}

// ---- The backlog of live capture

Result<bool> Delivery::hold(const Frame& frame, const Decoded& decoded,
                            const std::shared_ptr<CaptureState>& capture, bool last) {
  const std::size_t bytes = sizeof(Held) + frame.data.size();
  if (backlogBytes_ + bytes > kMaxBacklog) {
    return refuse(queue_.hasRoom() ? Refusal::kMetadataFull : Refusal::kQueueFull);
  }
  backlogBytes_ += bytes;
  ++capture->held;
  backlog_.push_back(
      {frame, {frame.data.begin(), frame.data.end()}, decoded.key, decoded.fromLow, last, capture});
  backlog_.back().frame.data = backlog_.back().data;
  return true;
}

Delivery::Held Delivery::takeHeld() {
  Held held = std::move(backlog_.front());
  backlog_.pop_front();
  backlogBytes_ -= sizeof(Held) + held.data.size();
  --held.capture->held;
  return held;
}

Result<bool> Delivery::sendBacklog() {
  while (hasBacklog() && queue_.hasRoom()) {
    CaptureState& capture = *backlog_.front().capture;
    if (capture.id == 0) {
      const Announcer::Sent sent = announce(backlog_.front().flow, capture);
      if (sent == Announcer::Sent::kFull) {
        break;
      }
      if (sent == Announcer::Sent::kNoDaemon) {
        refuseBacklog(Refusal::kNoDaemon);
        break;
      }
    }
    const Held held = takeHeld();
    if (auto done = put(held.frame, held.flow, held.fromLow, capture, held.last, nullptr); !done) {
      return done;
    }
  }
  return true;
}

int Delivery::backlogFd() const {
  return hasBacklog() && queue_.hasRoom() ? announcer_.fd() : -1;
}

void Delivery::refuseBacklog(Refusal reason) {
  while (hasBacklog()) {
    static_cast<void>(takeHeld());
    account_.refused(reason);
  }
}

Result<> Delivery::waitForBacklog(Waiting& waiting) {
  while (hasBacklog()) {
    const std::size_t before = backlog_.size();
    if (auto sent = sendBacklog(); !sent) {
      return Error{sent.error()};
    }
    if (backlog_.size() != before) {
      waiting.restart();
    } else if (!waiting.keepWaiting()) {
      refuseBacklog(Refusal::kStopped);
      return Error{std::to_string(before) + " frames were not announced: " +
                   (waiting.reason().empty() ? "stopped by a signal" : waiting.reason())};
    } else {
      queue_.hasRoom() ? announcer_.waitForRoom(kMetadataWaitMs)
                       : static_cast<void>(usleep(kPollUs));
    }
  }
  return Done{};
}

Result<> Delivery::waitUntilTaken() {
  Waiting waiting(announcer_, wait_, stopSignals() + 1);
  if (auto sent = waitForBacklog(waiting); !sent) {
    return sent;
  }
  std::uint32_t before = queue_.used();
  for (std::uint32_t left = before; left != 0; left = queue_.used()) {
    if (left != before) {
      waiting.restart();
      before = left;
    }
    if (!waiting.keepWaiting()) {
      return Error{std::to_string(left) + " frames are left in the queue: " +
                   (waiting.reason().empty() ? "stopped by a signal" : waiting.reason())};
    }
    usleep(kPollUs);
  }
  return Done{};
}

}  // namespace tarnik::brund
