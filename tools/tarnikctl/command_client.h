// A client of the daemon's command socket.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/owned.h"
#include "base/result.h"
#include "command/message.h"

namespace tarnik::ctl {

// A connection to the daemon. Its socket has its own file next to the daemon's, so that the daemon
// can send a response; the destructor removes the file. Errors have exit status kNoDaemon when no
// daemon listens.
class CommandClient {
 public:
  CommandClient() = default;
  CommandClient(const CommandClient&) = delete;
  CommandClient& operator=(const CommandClient&) = delete;
  ~CommandClient();

  // Connects to the daemon's socket at `path`. The timeout is for each send and each response.
  [[nodiscard]] Result<> connect(const std::string& path, double timeoutSeconds);
  // Sends a request that has no response.
  [[nodiscard]] Result<> send(std::span<const std::uint8_t> request);
  // Sends a request and waits for its response.
  [[nodiscard]] Result<CommandResponse> ask(RequestType type);

 private:
  [[nodiscard]] Error daemonIsGone() const;

  OwnedFd socket_;
  std::string path_;
  std::string ownPath_;
  double timeout_ = 0;
};

}  // namespace tarnik::ctl
