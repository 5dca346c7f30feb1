#include "capture/disk_usage.h"

#include <dirent.h>
#include <limits.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "base/log.h"
#include "base/paths.h"

namespace tarnik {
namespace {

constexpr char kOperation[] = "UpdateUsageCounters";
constexpr std::int64_t kScanInterval = 1000;  // milliseconds

constexpr std::uint32_t kEntryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kWatchedEvents = kEntryEvents | IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF;
constexpr std::size_t kLargestEvent = sizeof(inotify_event) + NAME_MAX + 1;

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

// The path of an entry. Measuring allocates no memory for it.
class EntryPath {
 public:
  explicit EntryPath(const char* name) {
    const std::size_t length = std::string_view(kCaptureDir).copy(path_, sizeof kCaptureDir);
    const std::size_t end = length + std::string_view(name).copy(path_ + length, NAME_MAX);
    path_[end] = '\0';
  }
  [[nodiscard]] const char* get() const { return path_; }

 private:
  char path_[sizeof kCaptureDir + NAME_MAX];
};

bool isCaptureFile(const char* name) {
  return std::strstr(name, ".pcap") != nullptr;
}

// Calls visit(name, size) for every entry that has a status. False, with a log line, when the
// directory cannot be opened.
template <class Visit>
bool visitEntries(const Visit& visit) {
  const std::unique_ptr<DIR, DirectoryCloser> directory(::opendir(kCaptureDir));
  if (!directory) {
    TARNIK_ERROR("Error: %s: Failed to open [%s]: %s", kOperation, kCaptureDir,
                 std::strerror(errno));
    return false;
  }
  while (const dirent* const entry = ::readdir(directory.get())) {
    const EntryPath path(entry->d_name);
    struct stat status {};
    if (::stat(path.get(), &status) != 0) {
      TARNIK_WARNING("Warning: %s: Failed to get disk size for [%s]: %s", kOperation, path.get(),
                     std::strerror(errno));
      continue;
    }
    visit(entry->d_name, static_cast<std::uint64_t>(status.st_size));
  }
  return true;
}

// The coarse clock is read without a system call and is exact to a few milliseconds.
std::int64_t monotonicMilliseconds() {
  std::timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

void scanDiskUsage(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  std::uint64_t bytes = 0;
  std::uint64_t captures = 0;
  const bool opened = visitEntries([&](const char* name, std::uint64_t size) {
    bytes += size;
    captures += isCaptureFile(name) ? 1 : 0;
  });
  if (opened) {
    diskUsed = bytes;
    filesUsed = captures;
  }
}

void DiskUsage::update(std::uint64_t& diskUsed, std::uint64_t& filesUsed) {
  try {
    const bool current = applyEvents() && monotonicMilliseconds() < nextScan_;
    if (current || scan()) {
      diskUsed = bytes_;
      filesUsed = captures_;
    }
  } catch (const std::bad_alloc&) {
    nextScan_ = 0;
    scanDiskUsage(diskUsed, filesUsed);  // needs no memory for the entries
  }
}

// Examines the entries that changed. False if the events do not show all changes.
bool DiskUsage::applyEvents() {
  epoll_event ready{};
  const int count = ::epoll_wait(ready_.get(), &ready, 1, 0);
  if (count <= 0) {
    return count == 0;
  }
  bool entriesChanged = false;
  std::size_t size = buffer_.size();
  while (size + kLargestEvent > buffer_.size()) {  // the kernel may have more
    const ssize_t got = ::read(events_.get(), buffer_.data(), buffer_.size());
    if (got < 0) {
      if (errno != EAGAIN) {
        return false;
      }
      break;
    }
    size = static_cast<std::size_t>(got);
    for (std::size_t at = 0; at < size;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(buffer_.data() + at);
      at += sizeof(inotify_event) + event->len;
      // No name: the kernel dropped events, or the directory itself was moved, removed, unmounted
      // or changed its mode.
      if (event->len == 0) {
        return false;
      }
      examine(event->name);
      entriesChanged = entriesChanged || (event->mask & kEntryEvents) != 0;
    }
  }
  if (entriesChanged) {
    examine(".");
  }
  return true;
}

// An entry without status is not counted. The next scan logs it, unless it was removed.
void DiskUsage::examine(const char* name) {
  struct stat status {};
  if (::stat(EntryPath(name).get(), &status) == 0) {
    record(name, static_cast<std::uint64_t>(status.st_size));
  } else if (const auto entry = entries_.find(std::string_view(name)); entry != entries_.end()) {
    erase(entry);
  }
}

// Watches first and looks second, so no change falls between the two.
bool DiskUsage::scan() {
  const std::int64_t start = monotonicMilliseconds();
  nextScan_ = 0;
  watchDirectory();
  ++scans_;
  if (!visitEntries([this](const char* name, std::uint64_t size) { record(name, size); })) {
    return false;
  }
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    entry = entry->second.scan == scans_ ? std::next(entry) : erase(entry);
  }
  if (watch_ >= 0) {
    nextScan_ = start + kScanInterval;
  }
  return true;
}

// Watches the directory that the path leads to now.
void DiskUsage::watchDirectory() {
  if (!ready_) {
    events_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    OwnedFd ready(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event readable{};
    readable.events = EPOLLIN;
    if (::epoll_ctl(ready.get(), EPOLL_CTL_ADD, events_.get(), &readable) == 0) {
      ready_ = std::move(ready);
    }
  }
  // The number is the same as before if it is the same directory.
  const int watch = ::inotify_add_watch(events_.get(), kCaptureDir, kWatchedEvents);
  if (watch_ >= 0 && watch != watch_) {
    ::inotify_rm_watch(events_.get(), watch_);  // fails if the directory is gone
  }
  watch_ = watch;
}

void DiskUsage::record(std::string_view name, std::uint64_t size) {
  auto entry = entries_.find(name);
  if (entry == entries_.end()) {
    entry = entries_.try_emplace(std::string(name)).first;
    captures_ += isCaptureFile(entry->first.c_str()) ? 1 : 0;
  }
  bytes_ += size - entry->second.size;
  entry->second = {.size = size, .scan = scans_};
}

DiskUsage::Entries::iterator DiskUsage::erase(Entries::iterator entry) {
  captures_ -= isCaptureFile(entry->first.c_str()) ? 1 : 0;
  bytes_ -= entry->second.size;
  return entries_.erase(entry);
}

}  // namespace tarnik
