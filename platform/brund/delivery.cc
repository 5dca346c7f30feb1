#include "platform/brund/delivery.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/brund/stop.h"

namespace tarnik::brund {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// A queue that stays full for so long is given up when no daemon listens any more, or
// (a daemon may be slow, or stopped in a debugger) in any case.
constexpr seconds kNoDaemonAfter{10};
constexpr seconds kNoProgressAfter{60};
constexpr int kMetadataWaitMs = 500;
constexpr useconds_t kDrainPollUs = 2000;

// Unique across the runs that one daemon sees, and rising: microseconds since the epoch with room
// for 256 captures in each.
std::uint64_t firstCaptureId() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  return static_cast<std::uint64_t>(us) << 8;
}

}  // namespace

// One wait for the daemon, and why it was given up.
class Delivery::Waiting final : public Patience {
 public:
  explicit Waiting(const MetadataSender& metadata, int stopAt = 1)
      : metadata_(metadata), stop_at_(stopAt) {}

  [[nodiscard]] bool goOn() override {
    if (stopSignals() >= stop_at_) {
      return false;
    }
    const auto now = Clock::now();
    if (begin_ == Clock::time_point{}) {
      begin_ = now;
      probe_ = now + kNoDaemonAfter;
    }
    if (now >= begin_ + kNoProgressAfter) {
      reason_ = "the daemon has taken no frame for " + std::to_string(kNoProgressAfter.count()) +
                " seconds";
      return false;
    }
    if (now >= probe_) {
      probe_ = now + seconds{1};
      if (!metadata_.daemonListens()) {
        reason_ = std::string("the daemon has taken no frame for ") +
                  std::to_string(kNoDaemonAfter.count()) + " seconds and does not listen on " +
                  metadata_.path() + " any more";
        return false;
      }
    }
    return true;
  }
  void progress() { begin_ = {}; }
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  const MetadataSender& metadata_;
  int stop_at_;
  Clock::time_point begin_;
  Clock::time_point probe_;
  std::string reason_;
};

Delivery::Delivery(QueueSender& queue, MetadataSender& metadata, Account& account, Mode mode)
    : queue_(queue),
      metadata_(metadata),
      account_(account),
      mode_(mode),
      next_id_(firstCaptureId()) {}

bool Delivery::refuse(Refusal reason) {
  account_.refused(reason);
  return failure_.empty() && reason != Refusal::kStopped;
}

// In a replay a refusal for want of room means that waiting was given up.
Refusal Delivery::giveUp(Refusal reason, const Waiting& waiting) {
  if (mode_ == Mode::kLive) {
    return reason;
  }
  failure_ = waiting.reason();
  return failure_.empty() ? Refusal::kStopped : reason;
}

bool Delivery::announce(const FlowKey& flow, CaptureState& capture, Refusal& refusal) {
  const Metadata metadata{next_id_, flow.id(), capture.rule->trigger};
  Waiting waiting(metadata_);
  for (;;) {
    const MetadataSender::Sent sent = metadata_.send(metadata);
    if (sent == MetadataSender::Sent::kSent) {
      break;
    }
    const bool full = sent == MetadataSender::Sent::kFull;
    refusal = full ? Refusal::kMetadataFull : Refusal::kNoDaemon;
    if (mode_ == Mode::kLive || !waiting.goOn()) {
      refusal = giveUp(refusal, waiting);
      return false;
    }
    full ? metadata_.waitForRoom(kMetadataWaitMs) : static_cast<void>(usleep(kDrainPollUs));
  }
  if (mode_ == Mode::kReplay) {
    metadata_.waitUntilReceived(kMetadataWaitMs);
  }
  capture.id = next_id_++;
  return true;
}

bool Delivery::deliver(const Frame& frame, const Decoded& decoded, CaptureState& capture,
                       bool last) {
  account_.matched();
  if (frame.data.empty() || frame.data.size() > kMaxFrame) {
    return refuse(frame.data.empty() ? Refusal::kEmpty : Refusal::kTooLarge);
  }
  Refusal refusal = Refusal::kStopped;
  if (capture.id == 0 && !announce(decoded.key, capture, refusal)) {
    return refuse(refusal);
  }
  Waiting waiting(metadata_);
  Patience* patience = mode_ == Mode::kReplay ? &waiting : nullptr;
  switch (queue_.put(frame, decoded.from_low, capture.id, last ? kPktLastFrame : 0, patience)) {
    case QueueSender::Put::kQueued:
      if (!capture.account) {
        capture.account = account_.begin(capture.id, decoded.key, *capture.rule);
      }
      account_.queued(*capture.account, frame.data.size(), last);
      return true;
    case QueueSender::Put::kNoFrame:
      return refuse(giveUp(Refusal::kNoFrame, waiting));
    case QueueSender::Put::kQueueFull:
      return refuse(giveUp(Refusal::kQueueFull, waiting));
    case QueueSender::Put::kTooLarge:
      return refuse(Refusal::kTooLarge);
    case QueueSender::Put::kFailed:
      break;
  }
  failure_ = std::string("the queue cannot be written: ") + std::strerror(errno);
  return refuse(Refusal::kStopped);
}

bool Delivery::waitUntilTaken() {
  Waiting waiting(metadata_, stopSignals() + 1);
  std::uint32_t before = queue_.used();
  for (std::uint32_t left = before; left != 0; left = queue_.used()) {
    if (left != before) {
      waiting.progress();
      before = left;
    }
    if (!waiting.goOn()) {
      failure_ = std::to_string(left) + " frames are left in the queue: " +
                 (waiting.reason().empty() ? "stopped by a signal" : waiting.reason());
      return false;
    }
    usleep(kDrainPollUs);
  }
  return true;
}

}  // namespace tarnik::brund
