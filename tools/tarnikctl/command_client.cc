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
#include <sstream>

#include "tools/tarnikctl/output.h"

namespace tarnik::ctl {
namespace {

bool makeAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

// Limits how long the socket blocks in one direction. The system reads 0 as no limit.
void setTimeout(int socket, int option, std::int64_t microseconds) {
  const std::int64_t atLeastOne = std::max<std::int64_t>(microseconds, 1);
  const timeval limit{static_cast<time_t>(atLeastOne / 1000000),
                      static_cast<suseconds_t>(atLeastOne % 1000000)};
  ::setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit);
}

std::uint64_t newMessageId() {
  std::random_device random;
  return (std::uint64_t{random()} << 32 | random()) | 1;  // the daemon refuses 0
}

}  // namespace

CommandClient::~CommandClient() {
  if (!ownPath_.empty()) {
    ::unlink(ownPath_.c_str());
  }
}

Result<> CommandClient::connect(const std::string& path, double timeoutSeconds) {
  path_ = path;
  timeout_ = timeoutSeconds;
  socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un daemon;
  sockaddr_un own;
  const std::string ownPath = path + ".client." + std::to_string(::getpid());
  if (!makeAddress(path, daemon) || !makeAddress(ownPath, own)) {
    return Error{path + " is too long for the path of a socket", kUsage};
  }
  if (!socket_ ||
      ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&daemon), sizeof daemon) != 0) {
    return Error{"no daemon at " + path + ": " + std::strerror(errno) +
                     "; is tarnikd running, and may you connect to it?",
                 kNoDaemon};
  }
  ::unlink(ownPath.c_str());  // an earlier process with our process id may have left it
  if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) {
    return Error{"cannot create " + ownPath + ": " + std::strerror(errno) +
                 "; run tarnikctl as the daemon's user"};
  }
  ownPath_ = ownPath;
  setTimeout(socket_.get(), SO_SNDTIMEO, static_cast<std::int64_t>(timeoutSeconds * 1e6));
  return {};
}

Error CommandClient::daemonIsGone() const {
  return {"the daemon at " + path_ + " has ended: " + std::strerror(errno), kNoDaemon};
}

Result<> CommandClient::send(std::span<const std::uint8_t> request) {
  if (::send(socket_.get(), request.data(), request.size(), 0) ==
      static_cast<ssize_t>(request.size())) {
    return {};
  }
  if (errno == EAGAIN) {
    return Error{"the daemon at " + path_ +
                 " does not read its commands: wait longer with --timeout, or restart it"};
  }
  return daemonIsGone();
}

Result<CommandResponse> CommandClient::ask(RequestType type) {
  const std::uint64_t messageId = newMessageId();
  if (const Result<> sent = send(encodeRequest(type, messageId)); !sent) {
    return Error{sent.error(), sent.exitStatus()};
  }
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(timeout_));
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()).count();
    if (left <= 0) {
      std::ostringstream text;
      text << "no answer within " << timeout_
           << " seconds: wait longer with --timeout, or look in the daemon's log";
      return Error{text.str()};
    }
    setTimeout(socket_.get(), SO_RCVTIMEO, left);
    std::array<std::uint8_t, 64> bytes{};
    const ssize_t received = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    if (received < 0 && errno != EAGAIN && errno != EINTR) {
      return daemonIsGone();
    }
    // Other datagrams are late answers to earlier requests.
    const std::span<const std::uint8_t> message(
        bytes.data(), received > 0 ? static_cast<std::size_t>(received) : 0);
    if (const auto response = decodeResponse(message, type, messageId)) {
      return *response;
    }
  }
}

}  // namespace tarnik::ctl
