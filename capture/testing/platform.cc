#include "capture/testing/platform.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <orlo_sdk.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "base/testing/captured_log.h"

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

std::vector<std::string> logTexts() {
  std::vector<std::string> texts;
  for (const LogLine& line : logLines()) {
    const int priority = line.text.starts_with("Debug: ")     ? LOG_DEBUG
                         : line.text.starts_with("Warning: ") ? LOG_WARNING
                         : line.text.starts_with("Error: ")   ? LOG_ERR
                                                              : LOG_INFO;
    EXPECT_EQ(line.priority, priority) << line.text;
    texts.push_back(line.text);
  }
  return texts;
}

std::vector<std::string> logTextsAboveDebug() {
  std::vector<std::string> texts = logTexts();
  std::erase_if(texts, [](const std::string& text) { return text.starts_with("Debug: "); });
  return texts;
}

}  // namespace tarnik::test

// The program calls these instead of the functions of the system and the platform.
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
