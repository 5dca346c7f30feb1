// The real tarnikd in a child process, and clients of its command socket. For tests in a private
// root.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.h"
#include "base/testing/files.h"
#include "base/testing/process.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {

// Prepares what the daemon needs to start: no configuration yet, empty policies, an empty capture
// directory. The driver's control node is a regular file, so that the capture thread notices at
// once that there is no driver.
void prepareRoot();

// tarnikd, started with the given arguments. Its log is its standard error without the prefix of
// name and process id.
class DaemonProcess : public Process {
 public:
  explicit DaemonProcess(const std::vector<std::string>& arguments = {"-D"},
                         const std::vector<std::string>& environment = {});

  // Sends SIGTERM and waits for the end.
  Ending stop();

  // The complete lines of the log so far.
  [[nodiscard]] std::vector<std::string> log() const;
  // Those written since the last mark().
  [[nodiscard]] std::vector<std::string> newLog() const;
  void mark() { mark_ = log().size(); }
  // Waits until `count` new lines contain `text`. False, with a failed test, when the daemon ends
  // before or kPatience runs out.
  bool waitFor(std::string_view text, std::size_t count = 1);

 private:
  std::size_t mark_ = 0;
};

// A client of the command socket, bound to a path of its own unless it is nameless.
class Client {
 public:
  enum class Name : std::uint8_t { kBound, kNone };
  enum class SocketFile : std::uint8_t { kRemove, kKeep };

  explicit Client(Name name = Name::kBound);
  ~Client() { close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  // Sends one datagram; waits for room in the daemon's queue.
  void send(const Bytes& datagram) const;
  // The next response; empty when none arrives within `milliseconds`.
  [[nodiscard]] std::optional<Bytes> receive(int milliseconds = 60000) const;
  [[nodiscard]] std::optional<Bytes> ask(const Bytes& datagram) const {
    send(datagram);
    return receive();
  }
  void close(SocketFile file = SocketFile::kRemove);

 private:
  OwnedFd fd_;
  std::string path_;
};

// The state in a get-state response; 255 without a valid response.
[[nodiscard]] std::uint8_t daemonState();

}  // namespace tarnik::test
