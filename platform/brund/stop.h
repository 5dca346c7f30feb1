// The end of a run by signal.
#pragma once

namespace tarnik::brund {

// From here on SIGINT and SIGTERM are counted and interrupt waits, instead of ending the process.
void catchStopSignals();
// How many came.
[[nodiscard]] int stopSignals();

}  // namespace tarnik::brund
