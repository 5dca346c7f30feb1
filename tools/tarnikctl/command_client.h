// The client's end of the daemon's command socket.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/owned.h"
#include "command/message.h"

namespace tarnik::ctl {

// One connection: a socket with a name of its own beside the daemon's, so that it can answer.
class CommandClient {
 public:
  CommandClient() = default;
  CommandClient(const CommandClient&) = delete;
  CommandClient& operator=(const CommandClient&) = delete;
  ~CommandClient();

  // The functions return an exit status (output.h) and have complained when it is not 0.
  // Connects to the daemon's socket at `path`.
  [[nodiscard]] int connect(const std::string& path, double timeoutSeconds);
  // Sends a request that is not answered.
  [[nodiscard]] int send(std::span<const std::uint8_t> request);
  // Sends a request and waits for the response that belongs to it.
  [[nodiscard]] int ask(RequestType type, CommandResponse& response);

 private:
  OwnedFd socket_;
  std::string path_;
  std::string ownPath_;
  double timeout_ = 0;
};

}  // namespace tarnik::ctl
