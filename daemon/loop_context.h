// What the callbacks of the event loop share. Main thread.
#pragma once

#include <orlo_sdk.h>

#include <cstdint>

namespace tarnik {

// A local variable of the daemon's main function, and the user data of the callbacks.
struct LoopContext {
  OrloWatchdogTimer* watchdogTimer;  // null until the timer is created
  std::int32_t* exitStatus;
};

// Resets the time after which the watchdog ends the process. Does nothing without a context or a
// timer.
void tickleWatchdog(const LoopContext* context);

}  // namespace tarnik
