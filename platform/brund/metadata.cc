#include "platform/brund/metadata.h"

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
namespace {

constexpr std::uint16_t kComponentId = 7;
constexpr std::uint16_t kRequestMetadata = 4;
constexpr std::uint8_t kFlagRequest = 0x01;

void put(MetadataRequest& bytes, std::size_t at, int size, std::uint64_t value, bool bigEndian) {
  for (int i = 0; i < size; ++i) {
    const int shift = 8 * (bigEndian ? size - 1 - i : i);
    bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> shift);
  }
}

}  // namespace

MetadataRequest encodeMetadata(std::uint64_t messageId, const Metadata& metadata) {
  MetadataRequest bytes{};
  put(bytes, 0, 2, kComponentId, true);
  put(bytes, 2, 2, bytes.size(), true);
  put(bytes, 4, 8, messageId, true);
  put(bytes, 16, 2, kRequestMetadata, true);
  put(bytes, 18, 1, kFlagRequest, true);
  put(bytes, 19, 8, metadata.capture_id, false);
  put(bytes, 27, 8, metadata.flow_id, false);
  put(bytes, 35, 4, metadata.trigger_id, false);
  return bytes;
}

OwnedFd MetadataSender::connected() const {
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

bool MetadataSender::connect() {
  if (!fd_) {
    fd_ = connected();
  }
  return static_cast<bool>(fd_);
}

bool MetadataSender::daemonListens() const {
  return static_cast<bool>(connected());
}

MetadataSender::Sent MetadataSender::send(const Metadata& metadata) {
  if (!connect()) {
    return Sent::kNoDaemon;
  }
  const MetadataRequest request = encodeMetadata(++message_id_, metadata);
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

void MetadataSender::waitForRoom(int ms) const {
  pollfd room{fd_.get(), POLLOUT, 0};
  static_cast<void>(poll(&room, 1, ms));
}

void MetadataSender::waitUntilReceived(int ms) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  int waiting = 0;
  while (ioctl(fd_.get(), SIOCOUTQ, &waiting) == 0 && waiting > 0 &&
         std::chrono::steady_clock::now() < end) {
    usleep(20);
  }
}

}  // namespace tarnik::brund
