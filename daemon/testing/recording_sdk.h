// An implementation of orlo_sdk.h for tests. It records every call with its arguments and returns
// what the test wants. Tests link it in place of liborlo_sdk.
//
// The record is a list of texts: calls as "OrloCmdInit(\"tarnikd\", 0)", log lines as
// "<3>Error: ...", and "tickle" where the watchdog was tickled. Main thread.
#pragma once

#include <orlo_sdk.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarnik::test {

class RecordingSdk {
 public:
  // Adds an entry to the record, preceded by "tickle" if the watchdog was tickled since the last.
  void record(std::string entry);
  // Records a call and returns the result set by failWhere, or `usual`.
  int call(std::string entry, int usual = 0);

  // Makes calls whose entry begins with `prefix` return `result` (null or false where the call
  // returns a pointer or a truth value). The first match counts.
  void failWhere(std::string prefix, int result = -1) {
    failures_.emplace_back(std::move(prefix), result);
  }

  // Called during each call, with its entry. Tests look at the daemon's state here.
  std::function<void(const std::string& entry)> onCall;

  // The record since the last clear(), a last tickle included.
  [[nodiscard]] std::vector<std::string> entries();
  void clear();

  // The text of a pointer in the record: the name given here, "null", or "?".
  void nameOf(const void* pointer, std::string name) { names_[pointer] = std::move(name); }
  void nameOf(OrloLoopCallback callback, std::string name) {
    nameOf(reinterpret_cast<const void*>(callback), std::move(name));
  }
  [[nodiscard]] std::string name(const void* pointer) const;
  // The text of user data: "null", "context" for the first there was, "another" for others.
  [[nodiscard]] std::string userDataName(const void* userData);

  // ---- the loop: OrloLoop runs these steps until one quits the loop
  std::vector<std::function<void()>> loopSteps;
  // Runs the callback registered for a signal, timer interval or descriptor.
  int raise(int signal) const { return run(signals_.at(signal), signal); }
  int expire(int seconds) const { return run(timers_.at(seconds), seconds); }
  int readable(int fd) const { return run(descriptors_.at(fd), fd); }

  // ---- the command socket
  struct Datagram {
    std::vector<std::uint8_t> bytes;
    std::string sender;
    std::optional<std::size_t> count;  // what OrloCmdRecv reports instead of the number of bytes
  };
  std::vector<Datagram> datagrams;  // received front to back
  struct Response {
    std::vector<std::uint8_t> bytes;
    OrloCmdSender sender;
  };
  std::vector<Response> responses;

  // ---- the capture thread: the number of rounds of its join
  unsigned joinRounds = 0;

  // ---- state of the platform
  std::unique_ptr<OrloWatchdogTimer> timer;

 private:
  friend int ::OrloLoopSignalAdd(int, OrloLoopCallback, void*);
  friend int ::OrloLoopTimerAdd(int64_t, OrloLoopCallback, void*);
  friend int ::OrloLoopFdAdd(int, OrloLoopCallback, void*);
  friend int ::OrloLoop(void);
  friend void ::OrloLoopQuit(void);

  using Registered = std::pair<OrloLoopCallback, void*>;
  static int run(const Registered& callback, int value) {
    return callback.first(value, callback.second);
  }
  void noteTickle();

  std::vector<std::string> entries_;
  std::vector<std::pair<std::string, int>> failures_;
  std::map<const void*, std::string> names_;
  std::map<int, Registered> signals_;
  std::map<int, Registered> timers_;
  std::map<int, Registered> descriptors_;
  const void* context_ = nullptr;
  bool quit_ = false;
};

// The one platform of the test program.
[[nodiscard]] RecordingSdk& sdk();
// Replaces it by a new one with an empty record and no failures, and resets the debug level to 0.
void resetSdk();

}  // namespace tarnik::test
