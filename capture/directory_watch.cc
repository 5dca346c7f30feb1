#include "capture/directory_watch.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>

namespace tarnik {
namespace {

constexpr std::uint32_t kEntryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// IN_ATTRIB: a directory whose permissions change may become unreadable, or readable.
constexpr std::uint32_t kDirectoryEvents = kEntryEvents | IN_ATTRIB | IN_ONLYDIR;
// IN_CLOSE_WRITE comes after writes that the kernel does not tell of (asynchronous ones).
constexpr std::uint32_t kFileEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_DONT_FOLLOW;
constexpr std::size_t kLargestEvent = sizeof(inotify_event) + NAME_MAX + 1;
constexpr int kMostLinks = 40;  // the kernel follows no more of them

// The kernel tells of all changes on these, since all are made on this machine.
bool isLocal(const std::string& path) {
  constexpr long kXfs = 0x58465342;
  constexpr long kZfs = 0x2fc12fc1;
  constexpr std::array<long, 8> kLocal = {
      EXT4_SUPER_MAGIC,      BTRFS_SUPER_MAGIC, TMPFS_MAGIC, RAMFS_MAGIC,
      OVERLAYFS_SUPER_MAGIC, F2FS_SUPER_MAGIC,  kXfs,        kZfs};
  struct statfs status {};
  return ::statfs(path.c_str(), &status) == 0 &&
         std::find(kLocal.begin(), kLocal.end(), status.f_type) != kLocal.end();
}

// Puts the components of `path` in front of `rest`.
void prepend(const std::string& path, std::deque<std::string>& rest) {
  std::deque<std::string> components;
  std::size_t begin = 0;
  while (begin < path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) {
      components.push_back(path.substr(begin, end - begin));
    }
    begin = end + 1;
  }
  rest.insert(rest.begin(), components.begin(), components.end());
}

// What is ready of an epoll descriptor, at once. Not the C library's call: that is a point where a
// thread may be cancelled, and a process of several threads pays for it each time.
int readyOf(int epoll, epoll_event* events, int count) {
  constexpr int kNoWait = 0;
  return static_cast<int>(
      ::syscall(SYS_epoll_pwait, epoll, events, count, kNoWait, nullptr, std::size_t{0}));
}

bool addTo(int epoll, int fd, std::uint32_t wanted) {
  epoll_event event{};
  event.events = wanted;
  event.data.fd = fd;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

bool DirectoryWatch::start(const std::string& path) {
  stop();
  if (!isLocal(path) || !isLocal(path + "/..")) {
    return false;
  }
  either_.reset(::epoll_create1(EPOLL_CLOEXEC));
  mounts_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  events_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (either_ && mounts_ && events_ && addTo(either_.get(), mounts_.get(), EPOLLPRI) &&
      addTo(either_.get(), events_.get(), EPOLLIN) && watchRoad(path)) {
    return true;
  }
  stop();
  return false;
}

void DirectoryWatch::stop() {
  either_.reset();
  mounts_.reset();
  events_.reset();
  road_.clear();
  directory_ = -1;
  parent_ = -1;
}

// A directory is watched before the next step is looked up in it: whatever then changes that
// step is told.
bool DirectoryWatch::watchRoad(const std::string& path) {
  std::deque<std::string> rest;
  prepend(path, rest);
  std::string here = "/";
  int links = 0;
  while (!rest.empty()) {
    const std::string name = rest.front();
    rest.pop_front();
    const int watch = watchDirectory(here);
    if (watch < 0) {
      return false;
    }
    road_.push_back({watch, name});
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink((here + name).c_str(), target.data(), target.size());
    if (length < 0) {
      here += name + '/';
      continue;
    }
    if (++links > kMostLinks) {
      return false;
    }
    prepend(std::string(target.data(), static_cast<std::size_t>(length)), rest);
    if (target.front() == '/') {
      here.resize(1);
    }
  }
  directory_ = watchDirectory(here);
  parent_ = watchDirectory(here + "..");
  return directory_ >= 0 && parent_ >= 0;
}

int DirectoryWatch::watchDirectory(const std::string& path) {
  return ::inotify_add_watch(events_.get(), path.c_str(), kDirectoryEvents);
}

int DirectoryWatch::watchFile(const char* path) {
  return ::inotify_add_watch(events_.get(), path, kFileEvents);
}

void DirectoryWatch::unwatchFile(int file) {
  ::inotify_rm_watch(events_.get(), file);  // fails when the file is gone, which is as good
}

bool DirectoryWatch::collect(DirectoryNews& news) {
  std::array<epoll_event, 2> ready{};
  const int count = readyOf(either_.get(), ready.data(), static_cast<int>(ready.size()));
  if (count == 0) {
    return true;
  }
  return count == 1 && ready[0].data.fd == events_.get() && readEvents(news);
}

bool DirectoryWatch::readEvents(DirectoryNews& news) {
  std::size_t size = buffer_.size();
  while (size + kLargestEvent > buffer_.size()) {  // there was no room for more
    const ssize_t got = ::read(events_.get(), buffer_.data(), buffer_.size());
    if (got < 0) {
      return errno == EAGAIN;
    }
    size = static_cast<std::size_t>(got);
    for (std::size_t at = 0; at < size;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(buffer_.data() + at);
      if (!tell(*event, news)) {
        return false;
      }
      at += sizeof(inotify_event) + event->len;
    }
  }
  return true;
}

bool DirectoryWatch::tell(const inotify_event& event, DirectoryNews& news) {
  if ((event.mask & (IN_Q_OVERFLOW | IN_UNMOUNT)) != 0) {
    return false;
  }
  if (!isDirectory(event.wd)) {
    if ((event.mask & IN_IGNORED) == 0) {
      news.fileChanged(event.wd);
    }
    return true;
  }
  if ((event.mask & IN_IGNORED) != 0 || ((event.mask & IN_ATTRIB) != 0 && event.len == 0)) {
    return false;
  }
  if ((event.mask & kEntryEvents) == 0) {
    return true;
  }
  const auto leadsAway = [&event](const Step& step) {
    return step.directory == event.wd && step.name == event.name;
  };
  if (std::any_of(road_.begin(), road_.end(), leadsAway)) {
    return false;
  }
  if (event.wd == parent_) {
    news.parentChanged();
  }
  if (event.wd == directory_) {
    news.entryChanged(event.name);
  }
  return true;
}

bool DirectoryWatch::isDirectory(int watch) const {
  return watch == directory_ || watch == parent_ ||
         std::any_of(road_.begin(), road_.end(),
                     [watch](const Step& step) { return step.directory == watch; });
}

}  // namespace tarnik
