#include "platform/brund/queue_sender.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frameq/frame_header.h"
#include "zorlib/ring.h"
#include "zorlib/zorlib.h"

namespace tarnik::brund {
namespace {

// The library's limit is a budget of which the first look costs 1000 ms: this sleeps up to 2 s,
// and is woken as soon as there is room.
constexpr std::int32_t kWaitMs = 3000;
constexpr useconds_t kPoolPollUs = 500;

}  // namespace

void QueueSender::CloseQueue::operator()(TarnikQ* queue) const noexcept {
  queue->Close();
  TarnikIfDestroy(queue);
}

QueueSender::~QueueSender() = default;

bool QueueSender::open(zorlib_ifg& group, bool wait, std::string& reason) {
  zorvik_frm_desc* descriptors = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t size = 0;
  std::uint32_t payloadSize = 0;
  if (zorlib_map_frm_data(&group, &descriptors, &size, &payload, &payloadSize) != 0) {
    reason = std::string("cannot map the frames: ") + std::strerror(errno);
    return false;
  }
  payloadEnd_ = payload + payloadSize;
  group_.reset(&group);
  zorlib_ifg_info info;
  paired_ = zorlib_ifg_query(&group, &info) == 0 && info.num_ifs >= 2;
  queue_.reset(TarnikIfCreate());
  if (!queue_ || queue_->Open(TarnikQ::kEgress) != kQOk) {
    reason = std::string("cannot open the queue for writing: ") + std::strerror(errno);
    return false;
  }
  queue_->SetTimeout(wait ? kWaitMs : 0);
  return mapQueue(reason);
}

bool QueueSender::mapQueue(std::string& reason) {
  zorvik_q_stat stat{};
  const int fd = queue_->getFd();
  if (ioctl(fd, ZORVIK_Q_STAT, &stat) >= 0 && stat.mem_size >= sizeof(zorvik_qmem)) {
    memory_ = Mapping::shared(fd, stat.mem_size);
  }
  if (!memory_) {
    reason = std::string("cannot map the queue: ") + std::strerror(errno);
    return false;
  }
  return true;
}

std::uint32_t QueueSender::used() const {
  auto* memory = static_cast<zorvik_qmem*>(memory_.base());
  const std::uint32_t dequeue = ring::counter(memory->dequeue);
  return (ring::counter(memory->enqueue) - dequeue) & ring::counter(memory->mask);
}

zorvik_frm_desc* QueueSender::allocate(std::uint32_t size, Patience* patience, Put& failure) {
  zorvik_frm_desc* frame = nullptr;
  while (zorlib_batch_alloc(group_.get(), size, &frame, 1) != 1) {
    if (errno == EMSGSIZE) {
      failure = Put::kTooLarge;
      return nullptr;
    }
    if (errno != ENOBUFS && errno != EINTR) {
      failure = Put::kFailed;
      return nullptr;
    }
    if (patience == nullptr || !patience->goOn()) {
      failure = Put::kNoFrame;
      return nullptr;
    }
    usleep(kPoolPollUs);
  }
  return frame;
}

void QueueSender::giveBack(zorvik_frm_desc* frame) {
  const int error = errno;
  zorlib_frm_free(group_.get(), frame);
  errno = error;
}

QueueSender::Put QueueSender::put(const Frame& frame, bool fromLow, std::uint64_t captureId,
                                  std::uint32_t flags, Patience* patience) {
  const auto size = static_cast<std::uint32_t>(frame.data.size());
  Put failure = Put::kFailed;
  zorvik_frm_desc* desc = allocate(size, patience, failure);
  if (desc == nullptr) {
    return failure;
  }
  std::uint8_t* data = zorlib_ifg_frm_data(group_.get(), desc);
  // The buffer's size is shared memory too; the payload memory's end is ours.
  if (data == nullptr || desc->buf_size < size || size > payloadEnd_ - data) {
    giveBack(desc);
    errno = EFAULT;
    return Put::kFailed;
  }
  std::memcpy(data, frame.data.data(), size);
  writeFrameHeader(*desc, {frame.wire_len, size, frame.ts_sec, frame.ts_usec});
  if (paired_) {
    desc->if_in = fromLow ? 0 : 1;
    desc->if_out = fromLow ? 1 : 0;
  }
  for (;;) {
    const int result = queue_->WritePkt(desc, captureId, flags);
    if (result == kQOk) {
      return Put::kQueued;
    }
    const bool full = result == kQTimeout || errno == EINTR;
    if (!full || patience == nullptr || !patience->goOn()) {
      giveBack(desc);
      return full ? Put::kQueueFull : Put::kFailed;
    }
  }
}

}  // namespace tarnik::brund
