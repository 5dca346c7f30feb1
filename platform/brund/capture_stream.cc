#include "platform/brund/capture_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

namespace tarnik::brund {
namespace {

constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kSnaplenAt = 16;
constexpr std::uint32_t kMaxSnaplen = 262144;

struct File {
  OwnedFd fd;
  std::array<unsigned char, kHeaderSize> header{};  // what the reader is shown of it
  std::size_t header_size = 0;
  std::size_t position = 0;  // of the reader
};

// Microseconds, nanoseconds and the variant with longer record headers, in either byte order.
bool isClassic(std::uint32_t magic) {
  return magic == 0xa1b2c3d4 || magic == 0xa1b23c4d || magic == 0xa1b2cd34;
}

void raiseSnaplen(File& file) {
  std::uint32_t magic = 0;
  std::uint32_t snaplen = 0;
  std::memcpy(&magic, file.header.data(), sizeof magic);
  std::memcpy(&snaplen, file.header.data() + kSnaplenAt, sizeof snaplen);
  const bool swapped = isClassic(__builtin_bswap32(magic));
  if (file.header_size < kHeaderSize || (!isClassic(magic) && !swapped)) {
    return;
  }
  snaplen = swapped ? __builtin_bswap32(snaplen) : snaplen;
  snaplen = std::max(snaplen, kMaxSnaplen);
  snaplen = swapped ? __builtin_bswap32(snaplen) : snaplen;
  std::memcpy(file.header.data() + kSnaplenAt, &snaplen, sizeof snaplen);
}

ssize_t readSome(int fd, void* buffer, std::size_t size) {
  ssize_t got = 0;
  do {
    got = read(fd, buffer, size);
  } while (got < 0 && errno == EINTR);
  return got;
}

ssize_t readCookie(void* cookie, char* buffer, std::size_t size) {
  File& file = *static_cast<File*>(cookie);
  if (file.position < file.header_size) {
    const std::size_t n = std::min(size, file.header_size - file.position);
    std::memcpy(buffer, file.header.data() + file.position, n);
    file.position += n;
    return static_cast<ssize_t>(n);
  }
  return readSome(file.fd.get(), buffer, size);
}

int closeCookie(void* cookie) {
  std::default_delete<File>{}(static_cast<File*>(cookie));
  return 0;
}

bool readHeader(File& file, std::string& reason) {
  while (file.header_size < kHeaderSize) {
    const ssize_t got = readSome(file.fd.get(), file.header.data() + file.header_size,
                                 kHeaderSize - file.header_size);
    if (got < 0) {
      reason = std::strerror(errno);
      return false;
    }
    if (got == 0) {
      break;
    }
    file.header_size += static_cast<std::size_t>(got);
  }
  if (file.header_size == 0) {
    reason = "empty file";
    return false;
  }
  raiseSnaplen(file);
  return true;
}

}  // namespace

Stream openCapture(const std::string& path, std::string& reason) {
  auto file = std::make_unique<File>();
  // Without O_NONBLOCK opening a pipe would wait for its writer.
  file->fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file->fd || fstat(file->fd.get(), &status) != 0) {
    reason = std::strerror(errno);
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    reason = S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file";
    return {};
  }
  if (!readHeader(*file, reason)) {
    return {};
  }
  Stream stream(fopencookie(file.get(), "r", {readCookie, nullptr, nullptr, closeCookie}));
  if (!stream) {
    reason = std::strerror(errno);
    return {};
  }
  static_cast<void>(file.release());  // the stream's from now on
  return stream;
}

}  // namespace tarnik::brund
