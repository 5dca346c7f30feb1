// What the capture interface's functions and its queues share; one instance a process.
#pragma once

#include <atomic>
#include <mutex>

#include "zorlib/zorlib.h"

namespace tarnik::capture_if {

inline constexpr char kIfgName[] = "brund";
inline constexpr char kQueueName[] = "TarnikQ";

// The open interface group, null while there is none. Atomic, for reads outside the mutex; what
// is behind it was published by the library.
extern std::atomic<zorlib_ifg*> ifg;

// Guards every change of `ifg` and every library call that opens, creates or removes the group
// or its queue.
extern std::mutex mutex;

}  // namespace tarnik::capture_if
