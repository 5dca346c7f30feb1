// The clock and the platform of a test program: time() says what the test wants, OrloLogEvent keeps
// what it is given, and no statistics area is empty when it is handed out.
#pragma once

#include <ctime>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tarnik::test {

// From now on time() is `now`, in every thread.
void setTime(std::time_t now);
// time() is the system's again.
void useSystemTime();
// Called by every time() of the program, first; empty for none. Set while one thread runs.
void onTime(std::function<void()> hook);

struct Event {
  std::string id;
  std::string category;
  std::string text;
  bool operator==(const Event&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Event& event);

// The events since the last clearEvents(), in their order. Any thread.
[[nodiscard]] std::vector<Event> events();
void clearEvents();
// Called by every event, first; empty for none. Set while one thread runs.
void onEvent(std::function<void()> hook);

}  // namespace tarnik::test
