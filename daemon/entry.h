// The daemon's main function.
#pragma once

#include <orlo_sdk.h>

namespace tarnik {

// The watchdog timer, also in the loop context; null until it is created. A debugger finds it here
// in a core file.
extern OrloWatchdogTimer* watchdogTimer;

// Runs the daemon until a signal ends it. Returns the exit status: 0, or 2 to be started again. A
// failed start ends the process with status 1 at once and undoes nothing. Main thread, once per
// process.
int tarnikMain(int argc, char** argv);

}  // namespace tarnik
