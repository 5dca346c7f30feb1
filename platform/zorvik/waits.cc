#include "platform/zorvik/waits.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

namespace tarnik::zorvik {

namespace {

constexpr std::int64_t kMillion = 1000000;

// How often Sleep::kChecksRing checks the ring.
constexpr std::int64_t kCheckNs = 100 * kMillion;
constexpr std::int64_t kLongNs = 3600 * 1000 * kMillion;

std::int64_t nowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 * kMillion + now.tv_nsec;
}

timespec toTimespec(std::int64_t ns) {
  return {.tv_sec = static_cast<time_t>(ns / (1000 * kMillion)),
          .tv_nsec = static_cast<long>(ns % (1000 * kMillion))};
}

// 0 when woken, else errno.
int futexWait(std::uint32_t& word, std::uint32_t seen, std::int64_t ns) {
  const timespec limit = toTimespec(ns);
  return ::syscall(SYS_futex, &word, FUTEX_WAIT, seen, &limit, nullptr, 0) == 0 ? 0 : errno;
}

}  // namespace

int sleepOn(const Ring& ring, Side side, std::uint32_t timeoutMs, Sleep sleep) noexcept {
  const std::int64_t deadline = nowNs() + std::int64_t{timeoutMs} * kMillion;
  const auto left = [=] {
    const std::int64_t ms = (deadline - nowNs()) / kMillion;
    return static_cast<int>(std::clamp<std::int64_t>(ms, 1, INT_MAX));
  };
  while (true) {
    const std::uint32_t flags = std::atomic_ref(ring.flags(side)).load();
    if ((flags & (ZORVIK_RESQ_WOKEN | ZORVIK_RESQ_SHUTDOWN)) != 0 ||
        (sleep == Sleep::kChecksRing && ring.ready(side))) {
      return left();
    }
    std::int64_t slice = sleep == Sleep::kChecksRing ? kCheckNs : kLongNs;
    if (timeoutMs != 0) {
      slice = std::min(slice, deadline - nowNs());
      if (slice <= 0) {
        return 0;
      }
    }
    switch (futexWait(ring.flags(side), flags, slice)) {
      case ETIMEDOUT:
        break;
      case EINTR:
        return -EINTR;
      default:  // woken, or the flags have changed: the application checks the ring again
        return left();
    }
  }
}

void wakeAll(const Ring& ring, Side side) noexcept {
  ::syscall(SYS_futex, &ring.flags(side), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void pauseMs(std::uint32_t ms) noexcept {
  timespec rest = toTimespec(std::int64_t{ms} * kMillion);
  while (::nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

}  // namespace tarnik::zorvik
