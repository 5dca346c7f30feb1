// Child processes of tests: a program with its output captured, or a function in a forked child.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.h"

namespace tarnik::test {

// How a process ended: by its exit status, or by a signal.
struct Ending {
  int exitStatus = -1;  // -1 after a signal
  int signal = 0;       // 0 after an exit
  bool operator==(const Ending&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Ending& ending);
inline constexpr Ending kSucceeded{.exitStatus = 0, .signal = 0};
[[nodiscard]] constexpr Ending exited(int status) {
  return {.exitStatus = status, .signal = 0};
}
[[nodiscard]] constexpr Ending killedBy(int signal) {
  return {.exitStatus = -1, .signal = signal};
}

// Waiting in tests ends after this time, so that a fault fails the test instead of hanging it.
inline constexpr std::chrono::seconds kPatience{60};

// Checks `done` every few milliseconds until it is true. False when that takes longer than
// `patience`.
[[nodiscard]] bool eventually(const std::function<bool()>& done,
                              std::chrono::milliseconds patience = kPatience);

class Process {
 public:
  // Starts the program command[0] (looked up in PATH) with an empty standard input; keeps what it
  // writes. `environment` adds or replaces variables, each "NAME=value".
  explicit Process(const std::vector<std::string>& command,
                   const std::vector<std::string>& environment = {});
  // Forks a child that calls `body` and exits with its result, or with 99 when an expectation
  // failed in it. Its output is the test's own.
  explicit Process(const std::function<int()>& body);
  // Kills the process if it still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int number) const;
  [[nodiscard]] bool running();
  // Waits for the end. After kPatience it fails the test and kills the process.
  Ending wait();
  // Resources used; valid after wait().
  [[nodiscard]] const rusage& usage() const { return usage_; }

  // What the program has written so far.
  [[nodiscard]] std::string output() const;  // standard output
  [[nodiscard]] std::string errors() const;  // standard error
  // Waits until standard error contains `text`. False, with a failed test, when the program ends
  // without it or kPatience runs out.
  bool waitForErrors(std::string_view text);

 private:
  [[nodiscard]] bool reap(int options);

  pid_t pid_ = -1;
  bool ended_ = false;
  Ending ending_;
  rusage usage_{};
  OwnedFd output_;
  OwnedFd errors_;
};

// Runs a program to its end.
struct Finished {
  Ending ending;
  std::string output;
  std::string errors;
};
[[nodiscard]] Finished runProgram(const std::vector<std::string>& command,
                                  const std::vector<std::string>& environment = {});

}  // namespace tarnik::test
