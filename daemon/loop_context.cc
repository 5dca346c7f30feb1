#include "daemon/loop_context.h"

#include <atomic>
#include <cstddef>

namespace tarnik {

void tickleWatchdog(const LoopContext* context) {
  static_assert(offsetof(OrloWatchdogTimer, elapsed) == 28);
  if (context != nullptr && context->watchdogTimer != nullptr) {
    // Relaxed: the platform counts this word up, and no other data depends on it.
    std::atomic_ref(context->watchdogTimer->elapsed).store(0, std::memory_order_relaxed);
  }
}

}  // namespace tarnik
