// How a read or write waits: in the driver within its budget, at a slot that another process has
// claimed, and after a failure.
#pragma once

#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>

#include "zorlib/internal.h"
#include "zorlib/ring.h"

namespace tarnik::zorlib {

inline int fail(int error) noexcept {
  errno = error;
  return -1;
}

// Whether a side is shut down, or this handle has shut it down.
inline bool isShutDown(const zorlib_q& q, zorvik_resq& side) noexcept {
  return (&side == &q.side() && q.shutDown.load(std::memory_order_relaxed)) ||
         ring::isShutDown(side);
}

// Callers repeat a failed read or write at once. When the next one fails too, because the driver
// refuses to wait or the ring is damaged, the pause keeps them from using a whole processor and
// from filling the log.
inline void pauseAfterFailure() noexcept {
  constexpr useconds_t kFailurePause = 100'000;
  const int savedErrno = errno;
  ::usleep(kFailurePause);
  errno = savedErrno;
}

// The time that a read or write may take. It is a budget, not a clock: each look at the ring that
// finds nothing costs up to 1000 ms, and the caller sleeps only while more than 1000 ms remain.
class Budget {
 public:
  enum class Next { kSpent, kLookAgain, kSleep };

  explicit Budget(std::uint32_t ms) noexcept : remaining_(ms) {}

  Next spendLook() noexcept {
    constexpr std::uint32_t kSlice = 1000;
    if (!limited()) {
      return Next::kSleep;
    }
    remaining_ -= std::min(remaining_, kSlice);
    if (remaining_ == 0) {
      return Next::kSpent;
    }
    return remaining_ <= kSlice ? Next::kLookAgain : Next::kSleep;
  }

  // Sleeps in the driver until a wake-up on `side` or until the budget is spent. Returns at once
  // when a wake-up was posted since the last look.
  int sleep(const zorlib_q& q, zorvik_resq& side) noexcept {
    if (isShutDown(q, side)) {
      return fail(ESHUTDOWN);
    }
    if (ring::takeWakeup(side)) {
      return 0;
    }
    zorvik_q_wait request{};
    request.kresq_handle = ring::load(side.kresq_handle);  // the driver may change it
    request.timeout_ms = limited() ? remaining_ : 0;
    const int left = ::ioctl(q.fd.get(), ZORVIK_Q_WAIT, &request);
    if (left < 0) {
      if (errno != EINTR) {
        pauseAfterFailure();
      }
      return left;
    }
    if (limited()) {
      remaining_ = static_cast<std::uint32_t>(left);
    }
    return 0;
  }

 private:
  [[nodiscard]] bool limited() const noexcept { return limited_; }

  std::uint32_t remaining_;
  const bool limited_ = remaining_ != kNoLimit;
};

// Waits for another process to finish with a slot. This takes nanoseconds while that process runs:
// first only the processor's pause instruction is used. If the process was preempted, it needs a
// processor: the next turns yield. If it has died, the slot never changes: from then on the caller
// looks once per millisecond.
class Spin {
 public:
  void pause() noexcept {
    constexpr unsigned kPauses = 100;
    constexpr unsigned kYields = 1000;
    ++turns_;
    if (turns_ <= kPauses) {
#if defined(__x86_64__)
      __builtin_ia32_pause();
#endif
    } else if (turns_ <= kPauses + kYields) {
      ::sched_yield();
    } else {
      ::usleep(1000);
    }
  }

 private:
  unsigned turns_ = 0;
};

}  // namespace tarnik::zorlib
