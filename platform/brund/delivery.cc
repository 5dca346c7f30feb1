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

Result<bool> Delivery::refuse(Refusal reason) {
  account_.refused(reason);
  return true;
}

// Without room a live frame is lost. In a replay the wait was given up, which ends the run.
Result<bool> Delivery::giveUp(Refusal reason, const Waiting& waiting) {
  if (mode_ == Mode::kLive) {
    return refuse(reason);
  }
  if (waiting.reason().empty()) {
    account_.refused(Refusal::kStopped);
    return false;
  }
  account_.refused(reason);
  return Error{waiting.reason()};
}

std::optional<Refusal> Delivery::announce(const FlowKey& flow, CaptureState& capture,
                                          Waiting& waiting) {
  const CaptureMetadata metadata{nextId_, flow.id(), capture.rule->trigger.id};
  for (;;) {
    const Announcer::Sent sent = announcer_.send(metadata);
    if (sent == Announcer::Sent::kSent) {
      break;
    }
    const bool full = sent == Announcer::Sent::kFull;
    if (mode_ == Mode::kLive || !waiting.keepWaiting()) {
      return full ? Refusal::kMetadataFull : Refusal::kNoDaemon;
    }
    full ? announcer_.waitForRoom(kMetadataWaitMs) : static_cast<void>(usleep(kPollUs));
  }
  if (mode_ == Mode::kReplay) {
    announcer_.waitUntilReceived(kMetadataWaitMs);
  }
  capture.id = nextId_++;
  waiting.restart();
  return std::nullopt;
}

Result<bool> Delivery::deliver(const Frame& frame, const Decoded& decoded, CaptureState& capture,
                               bool last) {
  account_.matched();
  if (frame.data.empty() || frame.data.size() > kMaxFrame) {
    return refuse(frame.data.empty() ? Refusal::kEmpty : Refusal::kTooLarge);
  }
  Waiting waiting(announcer_, wait_);
  if (capture.id == 0) {
    if (const auto refusal = announce(decoded.key, capture, waiting); refusal) {
      return giveUp(*refusal, waiting);
    }
  }
  Patience* patience = mode_ == Mode::kReplay ? &waiting : nullptr;
  switch (queue_.put(frame, decoded.fromLow, capture.id, last ? kPktLastFrame : 0, patience)) {
    case QueueSender::Put::kQueued:
      if (!capture.account) {
        capture.account = account_.begin(capture.id, decoded.key, capture.rule->trigger);
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
  return Error{std::string("the queue cannot be written: ") + std::strerror(error)};
}

Result<> Delivery::waitUntilTaken() {
  Waiting waiting(announcer_, wait_, stopSignals() + 1);
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
