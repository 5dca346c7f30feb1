// The real tarnikd in a process of its own, and clients of its real command socket. For tests that
// run in a private root.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {

// Writes a file, replacing what was there.
void writeFile(const char* path, std::string_view text);

// Gives the daemon what it needs to start: no configuration yet, empty policies, an empty capture
// directory. The driver's control node is a file, so that the capture side finds at once that
// there is no driver, instead of waiting for it.
void prepareRoot();

// Runs tarnikd in the foreground until it ends or the object goes (then it is killed). Its log is
// what it writes to standard error, without the prefix of name and process id.
class DaemonProcess {
 public:
  explicit DaemonProcess(const std::vector<std::string>& arguments = {"-D"});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int signo) const;
  // Waits for the end: the exit status, or minus the number of the signal that ended it. Fails the
  // test when it takes too long.
  int wait();
  // Sends SIGTERM and waits.
  int stop();
  // Of the process after wait().
  [[nodiscard]] const rusage& usage() const { return usage_; }

  // The whole log so far, line by line.
  [[nodiscard]] std::vector<std::string> log() const;
  // The lines written since the last mark().
  [[nodiscard]] std::vector<std::string> newLog() const;
  void mark() { mark_ = log().size(); }
  // Waits until `count` new lines hold `text`. False, with a failed test, when it takes too long.
  bool waitFor(std::string_view text, std::size_t count = 1) const;

 private:
  OwnedFd output_;
  pid_t pid_ = -1;
  std::size_t mark_ = 0;
  rusage usage_{};
};

// A client of the command socket, bound to a path of its own unless it is to have no name.
class Client {
 public:
  explicit Client(bool named = true);
  ~Client() { close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  // Sends one datagram, waiting for room in the daemon's queue.
  void send(const Bytes& datagram) const;
  // The next response; nothing when none comes within `milliseconds`.
  [[nodiscard]] std::optional<Bytes> receive(int milliseconds = 60000) const;
  // Sends and receives.
  [[nodiscard]] std::optional<Bytes> ask(const Bytes& datagram) const {
    send(datagram);
    return receive();
  }
  // Closes the socket; its file stays or goes.
  void close(bool unlinkFile = true);

 private:
  OwnedFd fd_;
  std::string path_;
};

}  // namespace tarnik::test
