// libzorvik.so, for LD_PRELOAD: replaces ioctl() and answers the driver's requests; every other
// request goes to the kernel. It also replaces open(), because a node is in use while it is open,
// and the calls that close or replace a descriptor, because it remembers which descriptors are
// nodes.
#include <dlfcn.h>
#include <linux/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "platform/zorvik/known_descriptors.h"
#include "platform/zorvik/requests.h"
#include "zorlib/zorvik_layout.h"

namespace {

// Constant-initialised: the constructors of other libraries may run before this one's.
constinit tarnik::zorvik::KnownDescriptors descriptors;

// The C library's function of that name.
template <typename Function>
class Next {
 public:
  explicit constexpr Next(const char* name) noexcept : name_(name) {}

  template <typename... Arguments>
  int operator()(Arguments... arguments) noexcept {
    Function real = function_.load(std::memory_order_acquire);
    if (real == nullptr) {
      real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name_));
      if (real == nullptr) {
        errno = ENOSYS;
        return -1;
      }
      function_.store(real, std::memory_order_release);
    }
    return real(arguments...);
  }

 private:
  const char* name_;
  std::atomic<Function> function_{nullptr};
};

constinit Next<int (*)(int, unsigned long, ...)> nextIoctl("ioctl");
constinit Next<int (*)(const char*, int, ...)> nextOpen("open");
constinit Next<int (*)(int)> nextClose("close");
constinit Next<int (*)(int, int)> nextDup2("dup2");
constinit Next<int (*)(int, int, int)> nextDup3("dup3");

int openWithNext(const char* path, int flags, unsigned mode) {
  return nextOpen(path, flags, mode);
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (_IOC_TYPE(request) != ZORVIK_IOC) {
    return nextIoctl(fd, request, argument);
  }
  const int before = errno;
  std::optional<int> result;
  if (const auto file = descriptors.fileOf(fd)) {
    result = tarnik::zorvik::serve(*file, request, argument);
  }
  errno = before;
  if (!result) {
    return nextIoctl(fd, request, argument);
  }
  if (*result < 0) {
    errno = -*result;
    return -1;
  }
  return *result;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = va_arg(arguments, unsigned);  // undefined but unused without O_CREAT
  va_end(arguments);
  return tarnik::zorvik::openNode(openWithNext, path, flags, mode);
}

int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int close(int fd) {
  descriptors.forget(fd);
  return nextClose(fd);
}

int dup2(int from, int to) noexcept {
  descriptors.forget(to);
  return nextDup2(from, to);
}

int dup3(int from, int to, int flags) noexcept {
  descriptors.forget(to);
  return nextDup3(from, to, flags);
}

}  // extern "C"
#pragma GCC visibility pop
