#include "base/log.h"

#include <orlo_sdk.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <mutex>

namespace tarnik {
namespace {

// The level is a plain variable of the SDK. Relaxed, because it orders nothing: it does not matter
// when exactly a change takes effect.
std::atomic_ref<unsigned> level() noexcept {
  return std::atomic_ref<unsigned>(OrloLogDebugLevel);
}

// Both threads log, and tzset() changes global data.
std::mutex zoneMutex;

}  // namespace

unsigned debugLevel() noexcept {
  return level().load(std::memory_order_relaxed);
}

void setDebugLevel(unsigned value) noexcept {
  level().store(value, std::memory_order_relaxed);
}

void raiseDebugLevel() noexcept {
  level().fetch_add(1, std::memory_order_relaxed);
}

void logLine(int priority, const char* format, ...) noexcept {
  const int savedErrno = errno;
  {
    const std::lock_guard guard(zoneMutex);
    tzset();
  }
  errno = savedErrno;  // a %m in the format means the caller's errno
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
  errno = savedErrno;
}

}  // namespace tarnik
