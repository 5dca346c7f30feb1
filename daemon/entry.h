// The daemon's main function.
#pragma once

namespace tarnik {

// Runs the daemon until a signal ends it. Returns the exit status: 0, or 2 to be started again. A
// failed start ends the process with status 1 at once and undoes nothing. Main thread, once per
// process.
int tarnikMain(int argc, char** argv);

}  // namespace tarnik
