// Sleeping on a queue and waking its sleepers. Without the driver's lock.
#pragma once

#include <cstdint>

#include "platform/zorvik/ring.h"

namespace tarnik::zorvik {

enum class Sleep {
  kChecksRing,  // ends also when the side can go on: a peer can die before its wake request
  kUntilWoken,  // shows faults of a peer that makes no wake request
};
// Sleeps until that side of the queue is woken or shut down, at most `timeoutMs` (0: no limit).
// Returns the milliseconds left, at least 1, or 0 when the time ran out, or -EINTR.
[[nodiscard]] int sleepOn(const Ring& ring, Side side, std::uint32_t timeoutMs,
                          Sleep sleep) noexcept;

// Wakes all sleepers of that side.
void wakeAll(const Ring& ring, Side side) noexcept;

void pauseMs(std::uint32_t ms) noexcept;

}  // namespace tarnik::zorvik
