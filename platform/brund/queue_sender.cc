#include "platform/brund/queue_sender.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frameq/frame_header.h"
#include "frameq/tarnik_if.h"
#include "zorlib/zorlib.h"

namespace tarnik::brund {
namespace {

// The library takes a wait as a budget, of which the first look at the queue costs 1000 ms, and
// sleeps only if more than 1000 ms are left. So this sleeps for up to 1.1 s; room ends the sleep.
constexpr std::int32_t kWaitMs = 2100;
constexpr useconds_t kPoolPollUs = 500;

}  // namespace

void QueueSender::CloseQueue::operator()(TarnikQ* queue) const noexcept {
  queue->Close();
  TarnikIfDestroy(queue);
}

Result<QueueSender> QueueSender::open(zorlib_ifg& group, Mode mode) {
  Queue queue(TarnikIfCreate());
  if (!queue || queue->Open(TarnikQ::kEgress) != kQOk) {
    return Error{std::string("cannot open the queue for writing: ") + std::strerror(errno)};
  }
  queue->SetTimeout(mode == Mode::kWait ? kWaitMs : 0);
  const auto size = static_cast<std::uint32_t>(queue->getSize());
  return QueueSender(group, std::move(queue), size);
}

// A frame with a buffer of `size` bytes; or null and the reason.
zorvik_frm_desc* QueueSender::allocate(std::uint32_t size, Patience* patience, Put& failure) {
  zorvik_frm_desc* frame = nullptr;
  while (zorlib_batch_alloc(group_, size, &frame, 1) != 1) {
    if (errno == EMSGSIZE) {
      failure = Put::kTooLarge;
      return nullptr;
    }
    if (errno != ENOBUFS && errno != EINTR) {
      failure = Put::kFailed;
      return nullptr;
    }
    if (patience == nullptr || !patience->keepWaiting()) {
      failure = Put::kNoFrame;
      return nullptr;
    }
    usleep(kPoolPollUs);
  }
  return frame;
}

QueueSender::Put QueueSender::send(zorvik_frm_desc& desc, std::uint64_t captureId,
                                   std::uint32_t flags, Patience* patience) {
  for (;;) {
    const int result = queue_->WritePkt(&desc, captureId, flags);
    if (result == kQOk) {
      return Put::kQueued;
    }
    const bool full = result == kQTimeout || errno == EINTR;
    if (!full || patience == nullptr || !patience->keepWaiting()) {
      return full ? Put::kQueueFull : Put::kFailed;
    }
  }
}

QueueSender::Put QueueSender::put(const Frame& frame, bool fromLow, std::uint64_t captureId,
                                  std::uint32_t flags, Patience* patience) {
  const auto size = static_cast<std::uint32_t>(frame.data.size());
  Put result = Put::kFailed;
  zorvik_frm_desc* const desc = allocate(size, patience, result);
  if (desc == nullptr) {
    return result;
  }
  // Another process can change the descriptor, so the place of its data may be wrong.
  std::uint8_t* const data = zorlib_ifg_frm_data(group_, desc);
  if (data == nullptr || queue_->room(data) < size) {
    errno = EFAULT;
  } else {
    std::memcpy(data, frame.data.data(), size);
    writeFrameHeader(*desc, {frame.wireLength, size, frame.seconds, frame.microseconds});
    writeFrameInterfaces(*desc, fromLow ? 0 : 1, fromLow ? 1 : 0);
    result = send(*desc, captureId, flags, patience);
  }
  if (result != Put::kQueued) {
    const int error = errno;
    zorlib_frm_free(group_, desc);
    errno = error;
  }
  return result;
}

}  // namespace tarnik::brund
