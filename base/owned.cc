#include "base/owned.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

namespace tarnik {

void OwnedFd::reset(int fd) noexcept {
  if (fd_ >= 0) {
    const int savedErrno = errno;
    ::close(fd_);
    errno = savedErrno;
  }
  fd_ = fd;
}

Mapping Mapping::shared(int fd, std::size_t size) noexcept {
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return base == MAP_FAILED ? Mapping() : Mapping(base, size);
}

void Mapping::reset() noexcept {
  if (base_ != nullptr) {
    const int savedErrno = errno;
    ::munmap(base_, size_);
    errno = savedErrno;
  }
  base_ = nullptr;
  size_ = 0;
}

void StreamCloser::operator()(std::FILE* stream) const noexcept {
  const int savedErrno = errno;
  std::fclose(stream);
  errno = savedErrno;
}

bool closeStream(Stream& stream) noexcept {
  return std::fclose(stream.release()) == 0;
}

namespace {

// Reading any other kind of file may block or never end.
bool isEndless(const struct stat& status) noexcept {
  const bool isNullDevice = S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
  return !S_ISREG(status.st_mode) && !isNullDevice;
}

}  // namespace

Stream openForReading(const char* path) noexcept {
  // O_NONBLOCK: opening a pipe that nobody writes to must not wait; it changes nothing for files.
  OwnedFd fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    return nullptr;
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) {
    return nullptr;
  }
  if (isEndless(status)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return nullptr;
  }
  Stream stream(::fdopen(fd.get(), "r"));
  if (stream) {
    fd.release();
  }
  return stream;
}

}  // namespace tarnik
