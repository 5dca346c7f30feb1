// The producer's end of the daemon's queue. One thread; one object a process.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/owned.h"
#include "frameq/tarnik_if.h"
#include "packet/frame.h"
#include "platform/brund/group_owner.h"

namespace tarnik::brund {

// Whether to go on waiting for room; asked after every wait that brought none.
class Patience {
 public:
  virtual ~Patience() = default;
  [[nodiscard]] virtual bool goOn() = 0;
};

class QueueSender {
 public:
  enum class Put : std::uint8_t {
    kQueued,
    kNoFrame,  // the pool is empty
    kQueueFull,
    kTooLarge,  // no buffer of the pool holds the frame
    kFailed,    // the driver failed, errno says how
  };

  QueueSender() = default;
  QueueSender(const QueueSender&) = delete;
  QueueSender& operator=(const QueueSender&) = delete;
  ~QueueSender();

  // Opens the queue that TarnikIfQInit or TarnikIfQInit2 has made, and takes a reference on
  // `group`, a handle on its group, for the frames. With `wait`, put() waits for room, else never.
  // False with a reason.
  [[nodiscard]] bool open(zorlib_ifg& group, bool wait, std::string& reason);
  // Queues a copy of the frame (1 to kMaxFrame bytes) with the capture identifier and packet flags.
  // In a group of interfaces, one endpoint of each flow is behind the first of them and the other
  // behind its mate. Null patience: never waits.
  [[nodiscard]] Put put(const Frame& frame, bool fromLow, std::uint64_t captureId,
                        std::uint32_t flags, Patience* patience);
  // Frames in the queue at this moment.
  [[nodiscard]] std::uint32_t used() const;

 private:
  struct CloseQueue {
    void operator()(TarnikQ* queue) const noexcept;
  };

  [[nodiscard]] zorvik_frm_desc* allocate(std::uint32_t size, Patience* patience, Put& failure);
  void giveBack(zorvik_frm_desc* frame);
  [[nodiscard]] bool mapQueue(std::string& reason);

  GroupHandle group_;
  const std::uint8_t* payloadEnd_ = nullptr;  // of the group's mapping
  std::unique_ptr<TarnikQ, CloseQueue> queue_;
  Mapping memory_;       // of the queue, to see how full it is
  bool paired_ = false;  // the group has interfaces
};

}  // namespace tarnik::brund
