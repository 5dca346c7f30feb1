// libzorvik.so, to be preloaded: answers the driver's requests in the place of a kernel module and
// leaves every other ioctl() alone. Looks on where descriptors are closed or replaced, so that it
// knows what each is open on.
#include <dlfcn.h>
#include <linux/ioctl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <type_traits>

#include "platform/zorvik/known_descriptors.h"
#include "platform/zorvik/requests.h"
#include "zorlib/zorvik_layout.h"

namespace {

// No static object with a constructor: other libraries' constructors may run before this one's.
constinit tarnik::zorvik::KnownDescriptors descriptors;

// The function of that name behind the one here.
template <typename Function>
class Next {
 public:
  explicit constexpr Next(const char* name) noexcept : name_(name) {}

  template <typename... Arguments>
  auto operator()(Arguments... arguments) noexcept {
    Function real = function_.load(std::memory_order_acquire);
    if (real == nullptr) {
      real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name_));
      if (real == nullptr) {
        errno = ENOSYS;
        return static_cast<std::invoke_result_t<Function, Arguments...>>(-1);
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
constinit Next<int (*)(int)> nextClose("close");
constinit Next<int (*)(int, int)> nextDup2("dup2");
constinit Next<int (*)(int, int, int)> nextDup3("dup3");
constinit Next<int (*)(unsigned, unsigned, int)> nextCloseRange("close_range");
constinit Next<void (*)(int)> nextClosefrom("closefrom");
constinit Next<int (*)(FILE*)> nextFclose("fclose");

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
    result = tarnik::zorvik::serve(fd, *file, request, argument);
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

int close_range(unsigned first, unsigned last, int flags) noexcept {
  descriptors.forgetRange(first, last);
  return nextCloseRange(first, last, flags);
}

void closefrom(int first) noexcept {
  descriptors.forgetRange(static_cast<unsigned>(first < 0 ? 0 : first), ~0U);
  nextClosefrom(first);
}

int fclose(FILE* stream) {
  descriptors.forget(::fileno(stream));
  return nextFclose(stream);
}

}  // extern "C"
#pragma GCC visibility pop
