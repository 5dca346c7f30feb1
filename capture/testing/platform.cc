#include "capture/testing/platform.h"

#include <dlfcn.h>
#include <orlo_sdk.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace tarnik::test {
namespace {

constexpr std::time_t kSystem = -1;
std::atomic<std::time_t> clockTime{kSystem};
std::function<void()> timeHook;
std::function<void()> eventHook;

std::mutex mutex;  // guards raised
std::vector<Event> raised;

}  // namespace

void setTime(std::time_t now) {
  clockTime = now;
}

void useSystemTime() {
  clockTime = kSystem;
}

void onTime(std::function<void()> hook) {
  timeHook = std::move(hook);
}

std::ostream& operator<<(std::ostream& out, const Event& event) {
  return out << event.id << " (" << event.category << ") " << event.text;
}

std::vector<Event> events() {
  const std::lock_guard guard(mutex);
  return raised;
}

void clearEvents() {
  const std::lock_guard guard(mutex);
  raised.clear();
}

void onEvent(std::function<void()> hook) {
  eventHook = std::move(hook);
}

}  // namespace tarnik::test

// These take the place of the system's and the platform's in the whole program.
extern "C" {

std::time_t time(std::time_t* result) noexcept {
  using namespace tarnik::test;
  if (timeHook) {
    timeHook();
  }
  std::time_t now = clockTime;
  if (now == kSystem) {
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    now = clock.tv_sec;
  }
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

void* OrloStatsArea(OrloStats* stats) {
  const auto real = reinterpret_cast<decltype(&OrloStatsArea)>(dlsym(RTLD_NEXT, "OrloStatsArea"));
  void* const area = real(stats);
  std::fill_n(static_cast<unsigned char*>(area), 48, 0xff);
  return area;
}

void OrloLogEvent(const char* event, const char* category, const char* format, ...) {
  if (tarnik::test::eventHook) {
    tarnik::test::eventHook();
  }
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard guard(tarnik::test::mutex);
  tarnik::test::raised.push_back({event, category, text});
}
}
