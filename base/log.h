// Log lines of the daemon, as they go to syslog.
//
// A line has the level word, the operation's name and a text: "Error: %s: Failed to open [%s]: %s".
// Format strings appear in the source as in the log. The time zone is read (tzset) before each
// line, errno is preserved, and formats are checked like printf's. Any thread.
#pragma once

#include <syslog.h>

namespace tarnik {

// The platform's debug level (OrloLogDebugLevel). Both threads read it, the main thread sets it.
[[nodiscard]] unsigned debugLevel() noexcept;
void setDebugLevel(unsigned level) noexcept;
void raiseDebugLevel() noexcept;

// Writes one line at `priority` (LOG_ERR, ...).
[[gnu::format(printf, 2, 3)]] void logLine(int priority, const char* format, ...) noexcept;

}  // namespace tarnik

// Writes a debug line when the debug level is above `threshold`. Otherwise the arguments are not
// evaluated, and the cost is one load and one branch.
#define TARNIK_DEBUG(threshold, ...)                       \
  do {                                                     \
    if (::tarnik::debugLevel() > (threshold)) [[unlikely]] \
      ::tarnik::logLine(LOG_DEBUG, __VA_ARGS__);           \
  } while (false)
#define TARNIK_INFO(...) ::tarnik::logLine(LOG_INFO, __VA_ARGS__)
#define TARNIK_WARNING(...) ::tarnik::logLine(LOG_WARNING, __VA_ARGS__)
#define TARNIK_ERROR(...) ::tarnik::logLine(LOG_ERR, __VA_ARGS__)
#define TARNIK_FATAL(...) ::tarnik::logLine(LOG_CRIT, __VA_ARGS__)
