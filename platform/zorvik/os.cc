#include "platform/zorvik/os.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace tarnik::zorvik {

Fd::~Fd() {
  if (fd_ >= 0) {
    const int saved = errno;
    ::close(fd_);
    errno = saved;
  }
}

namespace {

Fd openFile(const std::string& path, int flags) noexcept {
  const auto fd =
      ::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
  return Fd(static_cast<int>(fd));
}

struct flock byteLock(unsigned offset) noexcept {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = offset;
  lock.l_len = 1;
  return lock;
}

}  // namespace

Fd Fd::open(const std::string& path) noexcept {
  return openFile(path, 0);
}

Fd Fd::create(const std::string& path) noexcept {
  Fd fd = openFile(path, O_CREAT | O_EXCL);
  return fd && ::fchmod(fd.get(), 0660) == 0 ? std::move(fd) : Fd();
}

Mapping::Mapping(int fd, std::size_t size) noexcept : size_(size) {
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base != MAP_FAILED) {
    base_ = static_cast<std::byte*>(base);
  }
}

Mapping::~Mapping() {
  if (base_ != nullptr) {
    ::munmap(base_, size_);
  }
}

int commit(int fd, std::size_t offset, std::size_t size) noexcept {
  return -::posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(size));
}

unsigned long long inodeOf(int fd) noexcept {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? status.st_ino : 0;
}

void markInUse(int fd) noexcept {
  // Never blocks: only isIdle locks exclusively, and its callers hold the driver's lock as ours do.
  (void)::flock(fd, LOCK_SH | LOCK_NB);
}

bool isIdle(const std::string& path) noexcept {
  const Fd fd = Fd::open(path);
  return !fd || ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
}

bool lockByte(int fd, unsigned offset) noexcept {
  const struct flock lock = byteLock(offset);
  return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool isByteLocked(int fd, unsigned offset) noexcept {
  struct flock lock = byteLock(offset);
  return ::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace tarnik::zorvik
