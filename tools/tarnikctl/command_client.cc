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

int CommandClient::send(std::span<const std::uint8_t> request) {
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

int CommandClient::ask(RequestType type, CommandResponse& response) {
  const std::uint64_t messageId = newMessageId();
  if (const int status = send(encodeRequest(type, messageId)); status != kDone) {
    return status;
  }
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
    // Other datagrams are late answers to earlier requests.
    const std::span<const std::uint8_t> message(
        bytes.data(), received > 0 ? static_cast<std::size_t>(received) : 0);
    if (const auto decoded = decodeResponse(message, type, messageId)) {
      response = *decoded;
      return kDone;
    }
    if (received < 0 && errno != EAGAIN && errno != EINTR) {
      return complain(kNoDaemon, "the daemon at %s went away: %s; start it again", path_.c_str(),
                      std::strerror(errno));
    }
  }
}

}  // namespace tarnik::ctl
