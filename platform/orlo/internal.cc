#include "internal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "include/orlo_sdk.h"

namespace orlo {

void OwnedFd::reset(int fd) noexcept {
  if (fd_ >= 0) {
    const int savedErrno = errno;
    ::close(fd_);
    errno = savedErrno;
  }
  fd_ = fd;
}

ReplacementFile::~ReplacementFile() {
  if (temporary_[0] != '\0') {
    const int savedErrno = errno;
    ::unlink(temporary_);
    errno = savedErrno;
  }
}

bool ReplacementFile::create(const char* directory, std::string_view name) noexcept {
  const int length = static_cast<int>(name.size());
  const int needed = std::snprintf(temporary_, sizeof temporary_, "%s/.%.*s.XXXXXX", directory,
                                   length, name.data());
  if (needed < 0 || static_cast<std::size_t>(needed) >= sizeof temporary_) {
    temporary_[0] = '\0';
    errno = ENAMETOOLONG;
    return false;
  }
  std::snprintf(final_, sizeof final_, "%s/%.*s", directory, length, name.data());
  fd_.reset(::mkostemp(temporary_, O_CLOEXEC));
  if (!fd_) {
    temporary_[0] = '\0';
    return false;
  }
  return ::fchmod(fd_.get(), 0644) == 0;
}

bool ReplacementFile::publish() noexcept {
  if (::rename(temporary_, final_) != 0) {
    return false;
  }
  temporary_[0] = '\0';
  return true;
}

bool makeDirectory(const char* path) noexcept {
  struct stat status {};
  if (::mkdir(path, 0755) == 0) {
    return true;
  }
  const int reason = errno;
  // mkdir reports a read-only file system or a missing right even when the directory is there.
  if (::stat(path, &status) == 0) {
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
  }
  errno = reason;
  return false;
}

OwnedFd lockInstance(const char* name) noexcept {
  char path[128];
  std::snprintf(path, sizeof path, ORLO_RUN_DIR "/%s.lock", name);
  OwnedFd lock(::open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    lock.reset();
  }
  return lock;
}

bool validName(const char* name) noexcept {
  constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
  if (name == nullptr || name[0] == '\0' || name[0] == '.') {
    return false;
  }
  const std::size_t length = std::strlen(name);
  return length <= 64 && std::strspn(name, kAllowed) == length;
}

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace orlo
