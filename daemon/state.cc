#include "daemon/state.h"

#include <orlo_sdk.h>

#include <cstddef>
#include <iterator>

#include "base/log.h"

namespace tarnik {
namespace {

struct StateReport {
  int priority;
  const char* line;
  const char* event;  // null: none
};

// Indexed by state code. Codes beyond the table are unknown, like code 0.
constexpr StateReport kReports[] = {
    {LOG_ERR, "Error: tarnikd Daemon state unknown", "VRKUA0008E"},
    {LOG_DEBUG, "Debug: tarnikd Daemon starting...", nullptr},
    {LOG_DEBUG, "Debug: tarnikd Daemon started", nullptr},
    {LOG_DEBUG, "Debug: tarnikd Daemon stopping...", nullptr},
    {LOG_DEBUG, "Debug: tarnikd Daemon stopped", nullptr},
    {LOG_ERR, "Error: tarnikd Daemon failed to start", "VRKUA0007E"},
    {LOG_DEBUG, "Debug: tarnikd Daemon configuration reloading", nullptr},
    {LOG_ERR, "Error: tarnikd Daemon configuration invalid", "VRKUA0006E"},
};

}  // namespace

std::uint8_t DaemonState = 0;

void setState(unsigned state) {
  DaemonState = static_cast<std::uint8_t>(state);
  TARNIK_DEBUG(3, "Debug: %s: %d", "setState", DaemonState);
  const StateReport& report = kReports[DaemonState < std::size(kReports) ? DaemonState : 0];
  if (report.event != nullptr) {
    OrloLogEventNoArg(report.event, "VRK_events");
  }
  if (report.priority != LOG_DEBUG || debugLevel() > 0) {
    logLine(report.priority, "%s", report.line);
  }
}

}  // namespace tarnik
