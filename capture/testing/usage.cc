#include "capture/testing/usage.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace test = tarnik::test;

namespace {

template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool fails(const char* call) {
  ++test::systemCalls;
  return test::failing(call) != nullptr;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real = next(&clock_gettime, "clock_gettime");
  if (clock != CLOCK_MONOTONIC_COARSE) {
    return real(clock, now);
  }
  const std::int64_t milliseconds = test::clockMilliseconds;
  *now = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000};
  return 0;
}

ssize_t read(int fd, void* data, std::size_t size) {
  static auto* const real = next(&read, "read");
  ++test::systemCalls;
  return real(fd, data, size);
}

int stat(const char* path, struct stat* status) noexcept {
  static auto* const real = next(&stat, "stat");
  ++test::systemCalls;
  if (path == test::pathWithoutStatus) {
    errno = EIO;
    return -1;
  }
  return real(path, status);
}

DIR* opendir(const char* path) {
  static auto* const real = next(&opendir, "opendir");
  ++test::systemCalls;
  ++test::listings;
  return real(path);
}

int closedir(DIR* directory) {
  static auto* const real = next(&closedir, "closedir");
  if (const auto hook = std::exchange(test::onCloseDirectory, nullptr)) {
    hook();
  }
  return real(directory);
}

int inotify_init1(int flags) noexcept {
  static auto* const real = next(&inotify_init1, "inotify_init1");
  return fails("inotify_init1") ? -1 : real(flags);
}

int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept {
  static auto* const real = next(&inotify_add_watch, "inotify_add_watch");
  return fails("inotify_add_watch") ? -1 : real(fd, path, mask);
}

int epoll_create1(int flags) noexcept {
  static auto* const real = next(&epoll_create1, "epoll_create1");
  return fails("epoll_create1") ? -1 : real(flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static auto* const real = next(&epoll_ctl, "epoll_ctl");
  return fails("epoll_ctl") ? -1 : real(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static auto* const real = next(&epoll_wait, "epoll_wait");
  ++test::systemCalls;
  return real(epoll, events, count, timeout);
}
}
