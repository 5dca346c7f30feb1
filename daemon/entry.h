// The daemon from its command line to its exit status.
#pragma once

namespace tarnik {

// Starts the daemon, serves until a signal ends it and returns the exit status: 0, or 2 when it
// shall be started again. A failed start ends the process with status 1 at once, without undoing
// what was set up. Main thread, once a process.
int tarnikMain(int argc, char** argv);

}  // namespace tarnik
