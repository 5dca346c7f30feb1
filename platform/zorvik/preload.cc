// libzorvik.so, to be preloaded: answers the driver's requests in the place of a kernel module and
// leaves every other ioctl() alone.
#include <dlfcn.h>
#include <linux/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "frameq/zorvik_layout.h"
#include "platform/zorvik/requests.h"

namespace {

using Ioctl = int (*)(int, unsigned long, ...);

// The ioctl() behind this one. No static object with a constructor: other libraries' constructors
// may run before this one's.
int passOn(int fd, unsigned long request, void* argument) {
  static std::atomic<Ioctl> next{nullptr};
  Ioctl real = next.load(std::memory_order_acquire);
  if (real == nullptr) {
    real = reinterpret_cast<Ioctl>(::dlsym(RTLD_NEXT, "ioctl"));
    if (real == nullptr) {
      errno = ENOSYS;
      return -1;
    }
    next.store(real, std::memory_order_release);
  }
  return real(fd, request, argument);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request,
                                                            ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (_IOC_TYPE(request) != ZORVIK_IOC) {
    return passOn(fd, request, argument);
  }
  const int before = errno;
  const std::optional<int> result = tarnik::zorvik::serve(fd, request, argument);
  errno = before;
  if (!result) {
    return passOn(fd, request, argument);
  }
  if (*result < 0) {
    errno = -*result;
    return -1;
  }
  return *result;
}
