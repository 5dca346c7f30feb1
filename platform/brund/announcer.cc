#include "platform/brund/announcer.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace tarnik::brund {

OwnedFd Announcer::openConnection() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return OwnedFd();
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  OwnedFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fd.reset();
  }
  return fd;
}

Result<> Announcer::connect() {
  if (!fd_) {
    fd_ = openConnection();
  }
  if (!fd_) {
    return Error{std::strerror(errno)};
  }
  return Done{};
}

bool Announcer::daemonListens() const {
  return static_cast<bool>(openConnection());
}

Announcer::Sent Announcer::send(const CaptureMetadata& metadata) {
  if (!connect()) {
    return Sent::kNoDaemon;
  }
  const auto request = encodeMetadataRequest(++messageId_, metadata);
  ssize_t sent = 0;
  do {
    sent = ::send(fd_.get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent == static_cast<ssize_t>(request.size())) {
    return Sent::kSent;
  }
  if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) {
    return Sent::kFull;
  }
  fd_.reset();
  return Sent::kNoDaemon;
}

void Announcer::waitForRoom(int ms) const {
  pollfd room{fd_.get(), POLLOUT, 0};
  static_cast<void>(poll(&room, 1, ms));
}

void Announcer::waitUntilReceived(int ms) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  int waiting = 0;
  while (ioctl(fd_.get(), SIOCOUTQ, &waiting) == 0 && waiting > 0 &&
         std::chrono::steady_clock::now() < end) {
    usleep(20);
  }
}

}  // namespace tarnik::brund
