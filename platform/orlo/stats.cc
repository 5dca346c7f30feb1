#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <new>

#include "include/orlo_sdk.h"
#include "internal.h"

static_assert(sizeof(OrloStatsHeader) == 64);

struct OrloStats {
  void* base = nullptr;
};

namespace {

// Field 22 of /proc/self/stat: the start time of this process in clock ticks since boot. 0 when it
// is not available.
uint64_t ownStartTime() noexcept {
  const orlo::OwnedFd file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  char text[1024];
  const ssize_t length = file ? ::read(file.get(), text, sizeof text - 1) : -1;
  if (length <= 0) {
    return 0;
  }
  text[length] = '\0';
  // The second field is the command in parentheses. It can contain blanks and parentheses.
  const char* at = std::strrchr(text, ')');
  uint64_t start = 0;
  constexpr char kFormat[] =
      ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %lu";
  return at != nullptr && std::sscanf(at, kFormat, &start) == 1 ? start : 0;
}

void* createArea(const char* name, std::size_t size) noexcept {
  if (!orlo::makeDirectory(ORLO_RUN_DIR) || !orlo::makeDirectory(ORLO_STATS_DIR)) {
    return nullptr;
  }
  const std::size_t total = sizeof(OrloStatsHeader) + size;
  orlo::ReplacementFile file;
  if (!file.create(ORLO_STATS_DIR, name)) {
    return nullptr;
  }
  // Allocate the blocks now: on a full file system a store into a hole raises SIGBUS.
  const int error = ::posix_fallocate(file.fd(), 0, static_cast<off_t>(total));
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  void* const base = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
  if (base == MAP_FAILED) {
    return nullptr;
  }
  OrloStatsHeader header{};
  header.magic = ORLO_STATS_MAGIC;
  header.headerSize = sizeof header;
  header.size = size;
  header.ownerPid = ::getpid();
  header.ownerStart = ownStartTime();
  std::snprintf(header.name, sizeof header.name, "%s", name);
  std::memcpy(base, &header, sizeof header);
  if (!file.publish()) {
    const int reason = errno;
    ::munmap(base, total);
    errno = reason;
    return nullptr;
  }
  return base;
}

}  // namespace

OrloStats* OrloStatsProdInit(const char* name, size_t size) {
  constexpr std::size_t kMaxSize = std::size_t{1} << 30;
  if (!orlo::validName(name) || std::strlen(name) > ORLO_STATS_NAME_MAX || size == 0 ||
      size > kMaxSize) {
    errno = EINVAL;
    return nullptr;
  }
  // Areas stay mapped until the process ends. The list keeps them reachable for leak checkers.
  static std::mutex mutex;
  static std::list<OrloStats> areas;
  const std::lock_guard guard(mutex);
  try {
    OrloStats& stats = areas.emplace_back();
    stats.base = createArea(name, size);
    if (stats.base == nullptr) {
      const int reason = errno;
      areas.pop_back();
      errno = reason;
      return nullptr;
    }
    return &stats;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void* OrloStatsArea(OrloStats* stats) {
  return stats == nullptr ? nullptr : static_cast<char*>(stats->base) + sizeof(OrloStatsHeader);
}
