// The clock, the log and the platform of a test program: time() returns what the test sets,
// OrloLogEvent records its arguments, and a new statistics area is never zeroed.
#pragma once

#include <ctime>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tarnik::test {

// Sets the result of time() for every thread.
void setTime(std::time_t now);
// Makes time() read the system's clock again.
void useSystemTime();
// Has every time() call `hook` first. Pass an empty function for none. Set it while one thread
// runs.
void onTime(std::function<void()> hook);

struct Event {
  std::string id;
  std::string category;
  std::string text;
  bool operator==(const Event&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Event& event);

// The events since the last clearEvents(), in order. Any thread.
[[nodiscard]] std::vector<Event> events();
void clearEvents();
// Has every event call `hook` first. Pass an empty function for none. Set it while one thread runs.
void onEvent(std::function<void()> hook);

// The texts of the log since the last clearLog(). Fails the test if the priority of a line is not
// the one of its level word. Any thread.
[[nodiscard]] std::vector<std::string> logTexts();
// These texts without the debug lines.
[[nodiscard]] std::vector<std::string> logTextsAboveDebug();

}  // namespace tarnik::test
