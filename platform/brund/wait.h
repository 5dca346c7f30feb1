// Stop signals, and sleeping until one comes.
#pragma once

#include <chrono>

namespace tarnik::brund {

// From this call on, SIGINT and SIGTERM do not end the process. They are counted, and they
// interrupt system calls that wait.
void catchStopSignals();
// The number of stop signals so far.
[[nodiscard]] int stopSignals();

// Sleeps until `time`. Returns earlier when a stop signal comes or came before.
void sleepUntil(std::chrono::steady_clock::time_point time);

}  // namespace tarnik::brund
