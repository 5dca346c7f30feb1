// Operations that call each other do so through the virtual table.
#include "frameq/tarnik_q.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "base/log.h"
#include "frameq/tarnik_if_state.h"
#include "zorlib/ring.h"

namespace tarnik {

using capture_if::ifg;
using capture_if::kQueueName;

namespace {

constexpr std::uint32_t kClosed = 1U << 31U;

// Keeps the queue's handle open while an operation uses it: Close waits until no Use exists. False,
// with errno ESHUTDOWN, when the queue is closed already.
class Use {
 public:
  explicit Use(std::atomic<std::uint32_t>& users) noexcept
      : users_(users), open_((users.fetch_add(1) & kClosed) == 0) {
    if (!open_) {
      errno = ESHUTDOWN;
    }
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() { users_.fetch_sub(1); }
  explicit operator bool() const noexcept { return open_; }

 private:
  std::atomic<std::uint32_t>& users_;
  bool open_;
};

}  // namespace

int TarnikQ::Open(int mode) {
  const std::lock_guard guard(capture_if::mutex);
  zorlib_ifg* const group = ifg;
  if (group == nullptr) {
    TARNIK_ERROR("Error: %s: ifg handle not valid (%p)", "Open", static_cast<void*>(group));
    return kQNoGroup;
  }
  if (static_cast<unsigned>(mode) > kEgress) {
    TARNIK_ERROR("Error: %s: mode not valid (%d)", "Open", mode);
    return kQWrongMode;
  }
  if (zorlib_q_app_open(group, kQueueName, static_cast<std::uint32_t>(mode), &q_) != 0) {
    TARNIK_ERROR("Error: %s: zorlib_q_app_open failed, errno=%d", "Open", errno);
    TARNIK_INFO("%s: TarnikIfInit must be called", "Open");
    return kQFailed;
  }
  mode_ = mode;
  users_ &= ~kClosed;
  TARNIK_DEBUG(3, "Debug: %s: zorlib_q_app_open %p", "Open", static_cast<void*>(q_));
  return kQOk;
}

int TarnikQ::Close() {
  if (q_ == nullptr) {
    return kQOk;
  }
  Shutdown();
  if ((users_.fetch_or(kClosed) & kClosed) != 0) {
    return kQOk;
  }
  while (users_ != kClosed) {
    // Repeat the wake-up: the reader may have fallen asleep after the first one, when another
    // process has cleared the shutdown flag.
    static_cast<void>(zorlib_q_shutdown(q_));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (zorlib_q_close(q_) != 0) {
    TARNIK_ERROR("Error: %s: zorlib_q_close failed, errno=%d", "Close", errno);
    users_ &= ~kClosed;
    return kQFailed;
  }
  return kQOk;
}

void TarnikQ::Shutdown() {
  const Use use(users_);
  if (use && q_ != nullptr) {
    static_cast<void>(zorlib_q_shutdown(q_));
  }
}

int TarnikQ::getSize() {
  if (q_ == nullptr) {
    TARNIK_ERROR("Error: %s: TarnikIf handle not initialized", "getSize");
    return kQNotOpen;
  }
  std::uint32_t entries = 0;
  const Use use(users_);
  if (!use || zorlib_q_get_size(q_, &entries) != 0) {
    TARNIK_ERROR("Error: %s: zorlib_q_get_size failed", "getSize");
    return kQFailed;
  }
  return static_cast<int>(entries);
}

int TarnikQ::getFd() {
  if (q_ == nullptr) {
    TARNIK_INFO("%s: TarnikIf handle not initialized", "getFd");
    return kQNotOpen;
  }
  const Use use(users_);
  const int fd = use ? zorlib_q_get_fd(q_) : -1;
  if (fd < 0) {
    TARNIK_ERROR("Error: %s: zorlib_q_get_fd failed, errno=%d", "getFd", errno);
    return kQFailed;
  }
  return fd;
}

void TarnikQ::SetTimeout(std::int32_t ms) {
  if (q_ == nullptr) {
    return;
  }
  const Use use(users_);
  if (!use || zorlib_q_set_timeout(q_, ms) != 0) {
    TARNIK_ERROR("Error: %s: zorlib_q_set_timeout failed, errno=%d", "SetTimeout", errno);
  }
}

// Logs and returns kQNotOpen or kQWrongMode, or returns kQOk.
int TarnikQ::checkMode(const char* operation, int wanted) const {
  if (q_ == nullptr) {
    TARNIK_INFO("%s: TarnikIf handle not initialized", operation);
    return kQNotOpen;
  }
  if (mode_ != wanted) {
    TARNIK_ERROR("Error: %s: Invalid mode", operation);
    return kQWrongMode;
  }
  return kQOk;
}

int TarnikQ::Read(zorvik_frm_desc** frame) {
  if (const int refused = checkMode("Read", kIngress); refused != kQOk) {
    return refused;
  }
  *frame = nullptr;
  const Use use(users_);
  if (use && zorlib_q_read(q_, frame) == 0) {
    return kQOk;
  }
  if (errno == EAGAIN) {
    return kQTimeout;
  }
  if (errno != ESHUTDOWN) {
    TARNIK_ERROR("Error: %s: zorlib_q_read failed, errno=%d", "Read", errno);
  }
  return kQFailed;
}

int TarnikQ::ReadPkt(zorvik_frm_desc** frame, std::uint8_t** data, std::uint64_t* tag,
                     std::uint32_t* flags) {
  *tag = 0;
  *flags = 0;
  *frame = nullptr;
  const Use use(users_);
  if (!use || zorlib_q_read(q_, frame) != 0) {
    if (errno == EAGAIN || errno == EINTR) {
      return kQTimeout;
    }
    if (errno != ESHUTDOWN) {
      TARNIK_ERROR("Error: %s: zorlib_q_read failed, errno=%d", "ReadPkt", errno);
    }
    return kQFailed;
  }
  const std::uint16_t descriptorFlags = ring::load((*frame)->flags);
  if ((descriptorFlags & ZORVIK_FRM_PKT_FLAG_1) != 0) {
    *flags |= kPktFlag1;
  }
  if ((descriptorFlags & ZORVIK_FRM_PKT_FLAG_4) != 0) {
    *flags |= kPktLastFrame;
  }
  *tag = ring::load((*frame)->tag);
  *data = zorlib_q_frm_data(q_, *frame);
  if (*data == nullptr) {
    TARNIK_ERROR("Error: %s: Failed to get trFrame", "ReadPkt");
    errno = ENXIO;  // errno may still be that of an earlier timeout or shutdown
    return kQFailed;
  }
  return kQOk;
}

std::uint32_t TarnikQ::room(const std::uint8_t* data) {
  const Use use(users_);
  return use ? zorlib_q_room(q_, data) : 0;
}

std::uint32_t TarnikQ::used() {
  const Use use(users_);
  return use ? zorlib_q_used(q_) : 0;
}

int TarnikQ::Write(zorvik_frm_desc* frame) {
  if (const int refused = checkMode("Write", kEgress); refused != kQOk) {
    return refused;
  }
  const Use use(users_);
  if (use && zorlib_q_write(q_, frame) == 0) {
    return kQOk;
  }
  TARNIK_DEBUG(0, "Debug: %s: Failed to write %p", "Write", static_cast<void*>(frame));
  if (errno == EAGAIN) {
    return kQTimeout;
  }
  TARNIK_ERROR("Error: %s: zorlib_q_read failed, errno=%d", "Write", errno);
  return kQFailed;
}

int TarnikQ::WritePkt(zorvik_frm_desc* frame, std::uint64_t tag, std::uint32_t flags) {
  if (const int refused = checkMode("WritePkt", kEgress); refused != kQOk) {
    return refused;
  }
  if ((flags & kPktFlag1) != 0) {
    ring::setFlags(frame->flags, ZORVIK_FRM_PKT_FLAG_1);
  }
  if ((flags & kPktLastFrame) != 0) {
    ring::setFlags(frame->flags, ZORVIK_FRM_PKT_FLAG_4);
  }
  ring::store(frame->tag, tag);
  ring::barrier();
  return Write(frame);
}

int TarnikQ::Drain() {
  constexpr std::uint32_t kDrainTimeout = 10000;  // milliseconds
  if (const int refused = checkMode("Drain", kIngress); refused != kQOk) {
    return refused;
  }
  TARNIK_DEBUG(0, "Debug: %s: Draining queue elements\n", "Drain");
  zorvik_frm_desc* frame = nullptr;
  const auto read = [&] {
    const Use use(users_);
    return use && zorlib_q_read_timeout(q_, &frame, kDrainTimeout) == 0;
  };
  while (read()) {
    static_cast<void>(Free(frame));
  }
  if (errno == EAGAIN) {
    TARNIK_DEBUG(0, "Debug: %s: read timeout, assuming no more elements", "Drain");
  } else {
    TARNIK_ERROR("Error: %s: read failed, errno=%d", "Drain", errno);
  }
  return kQOk;
}

int TarnikQ::Free(zorvik_frm_desc* frame) {
  if (const int refused = checkMode("Free", kIngress); refused != kQOk) {
    return refused;
  }
  if (zorlib_frm_free(ifg, frame) < 0) {
    TARNIK_ERROR("Error: %s: zorlib_frm_free failed, errno=%d", "Free", errno);
    return kQFailed;
  }
  return kQOk;
}

void TarnikQ::Dump(zorvik_frm_desc* frame, const char* label) {
  const auto length = static_cast<std::int32_t>(ring::load(frame->cap_len));
  const Use use(users_);
  const std::uint8_t* const data = use && q_ != nullptr ? zorlib_q_frm_data(q_, frame) : nullptr;
  TARNIK_DEBUG(0, "Debug: %s: %s (%d bytes) %p", "Dump", label, length,
               static_cast<const void*>(data));
  // The length comes from the producer and may reach beyond the payload memory.
  std::uint32_t readable = 0;
  if (length > 0 && data != nullptr) {
    readable = std::min(static_cast<std::uint32_t>(length), zorlib_q_room(q_, data));
  }
  std::array<char, 120> line{};
  char* end = line.data();
  const auto room = [&] { return static_cast<std::size_t>(line.data() + line.size() - end); };
  for (std::uint32_t i = 0; i < readable; ++i) {
    if (i % 16 == 0) {
      if (i != 0) {
        TARNIK_DEBUG(0, "Debug: %s", line.data());
      }
      end = line.data();
      end += std::snprintf(end, room(), "%04x:", i);
    }
    end += std::snprintf(end, room(), "%s %02x", i % 16 == 8 ? "  " : "", data[i]);
  }
  TARNIK_DEBUG(0, "Debug: %s", line.data());
}

}  // namespace tarnik
