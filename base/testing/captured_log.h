// The lines that the code under test logs. A test program that links `captured_log` replaces
// syslog: it keeps every line, and nothing reaches the system's log.
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

// The lines since the last clearLog(), in order. Any thread.
[[nodiscard]] std::vector<LogLine> logLines();
// The same without debug lines.
[[nodiscard]] std::vector<LogLine> logLinesAboveDebug();
void clearLog();
// Calls `hook` for every line, before logLine returns; null for none. Set it while no other thread
// logs.
void onLogLine(void (*hook)(const LogLine& line));

}  // namespace tarnik::test
