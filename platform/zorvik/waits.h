// Sleeping on a queue and waking the sleepers. Without the lock.
#pragma once

#include <cstdint>

#include "platform/zorvik/ring.h"

namespace tarnik::zorvik {

// Sleeps until that side of the queue has something to do, is woken or shut down, at most
// `timeoutMs` (0: no limit). The milliseconds left, at least 1; 0 when the time ran out; -EINTR.
[[nodiscard]] int sleepOn(const Ring& ring, bool producer, std::uint32_t timeoutMs) noexcept;

// Wakes all that sleep on that side.
void wakeAll(const Ring& ring, bool producer) noexcept;

void pauseMs(std::uint32_t ms) noexcept;

}  // namespace tarnik::zorvik
