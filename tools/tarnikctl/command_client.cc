#include "tools/tarnikctl/command_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>

#include "tools/tarnikctl/output.h"

namespace tarnik::ctl {
namespace {

constexpr std::uint16_t kComponentId = 7;
constexpr std::size_t kHeaderSize = 19;
constexpr std::uint8_t kRequestFlag = 0x01;
constexpr std::uint8_t kResponseFlag = 0x02;

void putBig(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void putLittle(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
  for (int shift = 0; shift < 8 * bytes; shift += 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

std::uint64_t getBig(const std::uint8_t* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

bool address(const std::string& path, sockaddr_un& result) {
  result = {};
  result.sun_family = AF_UNIX;
  if (path.size() >= sizeof result.sun_path) {
    return false;
  }
  std::memcpy(result.sun_path, path.c_str(), path.size());
  return true;
}

// Bounds the waiting of one direction; a time of 0 would be for ever.
void setTimeout(int socket, int option, std::int64_t microseconds) {
  const std::int64_t bounded = std::max<std::int64_t>(microseconds, 1);
  const timeval limit{static_cast<time_t>(bounded / 1000000),
                      static_cast<suseconds_t>(bounded % 1000000)};
  ::setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit);
}

std::uint64_t newMessageId() {
  std::random_device random;
  return (std::uint64_t{random()} << 32 | random()) | 1;  // 0 is refused
}

}  // namespace

std::vector<std::uint8_t> makeRequest(Request type, std::uint64_t messageId,
                                      const std::vector<std::uint8_t>& payload) {
  std::vector<std::uint8_t> message;
  putBig(message, kComponentId, 2);
  putBig(message, kHeaderSize + payload.size(), 2);
  putBig(message, messageId, 8);
  putBig(message, 0, 4);
  putBig(message, static_cast<std::uint16_t>(type), 2);
  putBig(message, kRequestFlag, 1);
  message.insert(message.end(), payload.begin(), payload.end());
  return message;
}

std::vector<std::uint8_t> metadataPayload(std::uint64_t captureId, std::uint64_t flowId,
                                          std::uint32_t triggerId) {
  std::vector<std::uint8_t> payload;
  putLittle(payload, captureId, 8);
  putLittle(payload, flowId, 8);
  putLittle(payload, triggerId, 4);
  return payload;
}

CommandClient::~CommandClient() {
  if (!ownPath_.empty()) {
    ::unlink(ownPath_.c_str());
  }
}

int CommandClient::connect(const std::string& path, double timeoutSeconds) {
  path_ = path;
  timeout_ = timeoutSeconds;
  socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un daemon;
  sockaddr_un own;
  const std::string ownPath = path + ".client." + std::to_string(::getpid());
  if (!address(path, daemon) || !address(ownPath, own)) {
    return complain(kUsage, "%s is too long for a socket's path: use a shorter one", path.c_str());
  }
  if (!socket_ ||
      ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&daemon), sizeof daemon) != 0) {
    return complain(
        kNoDaemon,
        "no daemon at %s: %s; is tarnikd running, and do you have the right to talk to it?",
        path.c_str(), std::strerror(errno));
  }
  ::unlink(ownPath.c_str());  // of an earlier process with our id
  if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) {
    return complain(kFailed, "cannot create %s for the answer: %s; run it as the daemon's user",
                    ownPath.c_str(), std::strerror(errno));
  }
  ownPath_ = ownPath;
  setTimeout(socket_.get(), SO_SNDTIMEO, static_cast<std::int64_t>(timeoutSeconds * 1e6));
  return kDone;
}

int CommandClient::send(const std::vector<std::uint8_t>& request) {
  if (::send(socket_.get(), request.data(), request.size(), 0) ==
      static_cast<ssize_t>(request.size())) {
    return kDone;
  }
  if (errno == EAGAIN) {
    return complain(
        kFailed,
        "the daemon at %s takes no more commands: wait longer with --timeout, or restart it",
        path_.c_str());
  }
  return complain(kNoDaemon, "the daemon at %s went away: %s; start it again", path_.c_str(),
                  std::strerror(errno));
}

int CommandClient::ask(Request type, Response& response) {
  const std::uint64_t messageId = newMessageId();
  if (const int status = send(makeRequest(type, messageId)); status != kDone) {
    return status;
  }
  const std::size_t expected = type == Request::kGetState ? 23 : 21;
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(timeout_));
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()).count();
    if (left <= 0) {
      return complain(
          kFailed,
          "no answer within %g seconds: wait longer with --timeout; the log of tarnikd may "
          "say why",
          timeout_);
    }
    setTimeout(socket_.get(), SO_RCVTIMEO, left);
    std::array<std::uint8_t, 64> bytes{};
    const ssize_t received = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    // Anything else is a late answer to somebody else's question.
    if (received == static_cast<ssize_t>(expected) && getBig(&bytes[0], 2) == kComponentId &&
        getBig(&bytes[2], 2) == expected && getBig(&bytes[4], 8) == messageId &&
        getBig(&bytes[16], 2) == static_cast<std::uint16_t>(type) && bytes[18] == kResponseFlag) {
      response.status = static_cast<std::uint16_t>(getBig(&bytes[19], 2));
      response.state = static_cast<std::uint16_t>(bytes[21] | bytes[22] << 8);
      return kDone;
    }
    if (received < 0 && errno != EAGAIN && errno != EINTR) {
      return complain(kNoDaemon, "the daemon at %s went away: %s; start it again", path_.c_str(),
                      std::strerror(errno));
    }
  }
}

}  // namespace tarnik::ctl
