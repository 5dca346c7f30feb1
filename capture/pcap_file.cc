#include "capture/pcap_file.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/owned.h"

namespace tarnik {

WholeRecords findWholeRecords(const char* path, WholeRecords known, std::uint64_t size) {
  const OwnedFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  std::array<std::uint32_t, 4> header{};
  while (fd && ::pread(fd.get(), header.data(), sizeof header, static_cast<off_t>(known.end)) ==
                   static_cast<ssize_t>(sizeof header)) {
    const std::uint64_t next = known.end + sizeof header + header[2];
    if (next > size) {
      break;
    }
    known.end = next;
    ++known.records;
  }
  return known;
}

bool reserveDescriptors() {
  constexpr rlim_t kReserved = 16;
  rlimit limit{};
  const OwnedFd lowestFree(::eventfd(0, EFD_CLOEXEC));
  if (!lowestFree || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return false;
  }
  const rlim_t reserved = std::min(kReserved, limit.rlim_cur / 4);
  if (static_cast<rlim_t>(lowestFree.get()) + reserved < limit.rlim_cur) {
    return true;
  }
  errno = EMFILE;
  return false;
}

bool renameWithoutReplacing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return false;
  }
  // The file system does not support the flag. A hard link never replaces a file either.
  if (::link(from, to) != 0) {
    return false;
  }
  if (::unlink(from) == 0) {
    return true;
  }
  // The next capture with the working name would truncate the file, also under its final name.
  const int error = errno;
  ::unlink(to);
  errno = error;
  return false;
}

}  // namespace tarnik
