// What the code under test wrote to syslog. A test program that links `test_support` gets a
// vsyslog of its own that keeps every line; nothing reaches the system's log.
#pragma once

#include <syslog.h>

#include <ostream>
#include <string>
#include <vector>

namespace tarnik::test {

struct LogLine {
  int priority;
  std::string text;
  bool operator==(const LogLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// The lines since the last clearLog(), in their order. Any thread.
[[nodiscard]] std::vector<LogLine> logLines();
// Those lines without the debug ones.
[[nodiscard]] std::vector<LogLine> logLinesAboveDebug();
void clearLog();
// Has `hook` called with every line as it is written, too; null ends that. Not while other threads
// log.
void onLogLine(void (*hook)(const LogLine& line));

}  // namespace tarnik::test
