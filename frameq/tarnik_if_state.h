// The state that the TarnikIf functions and all TarnikQ objects of the process share.
#pragma once

#include <atomic>
#include <mutex>

#include "zorlib/zorlib.h"

namespace tarnik::capture_if {

inline constexpr char kIfgName[] = "brund";
inline constexpr char kQueueName[] = "TarnikQ";

// The open interface group, null while none is open. Atomic, because it is read outside the mutex.
extern std::atomic<zorlib_ifg*> ifg;

// Guards every change of `ifg` and every library call that opens the group, or creates, opens or
// removes its queue. Exception: TarnikIfQInit2 sets `ifg` before it locks.
extern std::mutex mutex;

}  // namespace tarnik::capture_if
