#include "base/shell.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace tarnik {
namespace {

constexpr int kNoShell = 127 << 8;  // the wait status of exit(127)

// Starts the shell. Returns 0 or an errno.
int start(const char* command, pid_t& child) noexcept {
  posix_spawn_file_actions_t actions;
  int error = ::posix_spawn_file_actions_init(&actions);
  if (error != 0) {
    return error;
  }
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  error = ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  if (error == 0) {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    error = ::posix_spawn(&child, "/bin/sh", &actions, &attributes,
                          const_cast<char* const*>(arguments), environ);
  }
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  return error;
}

}  // namespace

int runShell(const char* command) noexcept {
  pid_t child = -1;
  const int error = start(command, child);
  if (error == EAGAIN || error == ENOMEM) {
    errno = error;
    return -1;
  }
  if (error != 0) {
    return kNoShell;
  }
  int status = 0;
  pid_t waited = 0;
  do {
    waited = ::waitpid(child, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited == child ? status : -1;
}

}  // namespace tarnik
