// Processes of a test's own, and chance.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace tarnik::test {

// A process of its own that runs `body` and ends with its result.
template <class Body>
pid_t process(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(100);  // a test that hangs must not leave processes behind
    ::_exit(body());
  }
  return pid;
}

// Waits for its end: its result, or 128 and the number of the signal that ended it.
inline int statusOf(pid_t pid) {
  int status = -1;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Another one in each run, unless TARNIK_SEED says which; printed, for a run that is to be repeated
// as far as the machine allows.
inline unsigned chosenSeed() {
  const char* const given = std::getenv("TARNIK_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : std::random_device()();
  std::printf("TARNIK_SEED=%u\n", seed);
  std::fflush(stdout);  // before a process is made, which would print it again
  return seed;
}

}  // namespace tarnik::test
