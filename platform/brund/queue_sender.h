// The producer's side of the daemon's queue. One thread; one object per process.
#pragma once

#include <cstdint>
#include <memory>

#include "base/result.h"
#include "frameq/tarnik_q.h"
#include "packet/frame.h"

namespace tarnik::brund {

// Decides whether to keep waiting for room. Asked after every wait without result.
class Patience {
 public:
  virtual ~Patience() = default;
  [[nodiscard]] virtual bool keepWaiting() = 0;
};

class QueueSender {
 public:
  enum class Put : std::uint8_t {
    kQueued,
    kNoFrame,  // the pool is empty
    kQueueFull,
    kTooLarge,  // no buffer of the pool holds the frame
    kFailed,    // the driver failed, with errno
  };
  enum class Mode : std::uint8_t { kWait, kNeverWait };

  // Opens the queue of a GroupOwner's group, which must outlive the object.
  [[nodiscard]] static Result<QueueSender> open(zorlib_ifg& group, Mode mode);

  // Queues a copy of the frame (1 to kMaxFrame bytes) with the capture identifier and packet flags.
  // Its interfaces are the first pair of the group: each endpoint of a flow is on one of them.
  // `patience` is null with kNeverWait.
  [[nodiscard]] Put put(const Frame& frame, bool fromLow, std::uint64_t captureId,
                        std::uint32_t flags, Patience* patience);
  // The number of frames in the queue now.
  [[nodiscard]] std::uint32_t used() const { return queue_->used(); }
  // Whether the queue has room for another frame now; one of its entries is always empty.
  [[nodiscard]] bool hasRoom() const { return queue_->used() + 1 < size_; }

 private:
  struct CloseQueue {
    void operator()(TarnikQ* queue) const noexcept;
  };
  using Queue = std::unique_ptr<TarnikQ, CloseQueue>;

  QueueSender(zorlib_ifg& group, Queue queue, std::uint32_t size)
      : group_(&group), queue_(std::move(queue)), size_(size) {}
  [[nodiscard]] zorvik_frm_desc* allocate(std::uint32_t size, Patience* patience, Put& failure);
  [[nodiscard]] Put send(zorvik_frm_desc& desc, std::uint64_t captureId, std::uint32_t flags,
                         Patience* patience);

  zorlib_ifg* group_;
  Queue queue_;
  std::uint32_t size_;  // entries
};

}  // namespace tarnik::brund
