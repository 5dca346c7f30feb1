// The client's end of the daemon's command socket.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/owned.h"

namespace tarnik::ctl {

enum class Request : std::uint16_t { kReload = 1, kGetState = 2, kDump = 3, kMetadata = 4 };

// A request as it goes over the wire: 19 bytes of header, then the payload.
[[nodiscard]] std::vector<std::uint8_t> makeRequest(Request type, std::uint64_t messageId,
                                                    const std::vector<std::uint8_t>& payload = {});
// captureId, flowId and triggerId, little-endian: 20 bytes.
[[nodiscard]] std::vector<std::uint8_t> metadataPayload(std::uint64_t captureId,
                                                        std::uint64_t flowId,
                                                        std::uint32_t triggerId);

struct Response {
  std::uint16_t status = 0;  // 0 done
  std::uint16_t state = 0;   // of a get-state request
};

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
  [[nodiscard]] int send(const std::vector<std::uint8_t>& request);
  // Sends a request and waits for the response that belongs to it.
  [[nodiscard]] int ask(Request type, Response& response);

 private:
  OwnedFd socket_;
  std::string path_;
  std::string ownPath_;
  double timeout_ = 0;
};

}  // namespace tarnik::ctl
