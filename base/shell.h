// Commands that the daemon runs through the shell.
#pragma once

namespace tarnik {

// Runs `command` with "sh -c", waits for its end and returns its wait status: 127 as exit status
// when there is no shell to execute; -1, with errno, when no process could be created.
//
// Unlike system() it does not ignore SIGINT and SIGQUIT meanwhile, which would discard a signal
// that is pending for the event loop. The command starts with default signal handling, no signal
// blocked, and no descriptors but the three standard ones. Any thread.
[[nodiscard]] int runShell(const char* command) noexcept;

}  // namespace tarnik
