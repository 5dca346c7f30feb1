// The driver's logging mask.
#include <fcntl.h>
#include <sys/ioctl.h>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

// The log lines of a function, by the step that fails.
struct Messages {
  const char* open;
  const char* get;
  const char* set;
};

constexpr Messages kGet = {
    "Error: zorlib_get_logging_mask: Cannot open zorvik ctl - %s",
    "Error: zorlib_get_logging_mask: get logging mask ioctl(2) failed - %s",
    nullptr,
};
constexpr Messages kSet = {
    "Error: zorlib_set_logging_mask: Cannot open zorvik ctl - %s",
    nullptr,
    "Error: zorlib_set_logging_mask: set logging mask ioctl(2) failed - %s",
};
constexpr Messages kAdd = {
    "Error: zorlib_add_logging: Cannot open zorvik ctl - %s",
    "Error: zorlib_add_logging: get logging mask ioctl(2) failed - %s",
    "Error: zorlib_add_logging: set logging mask ioctl(2) failed - %s",
};
constexpr Messages kDel = {
    "Error: zorlib_del_logging: Cannot open zorvik ctl - %s",
    "Error: zorlib_del_logging: get logging mask ioctl(2) failed - %s",
    "Error: zorlib_del_logging: set logging mask ioctl(2) failed - %s",
};

OwnedFd openDriver(const Messages& messages) noexcept {
  static_cast<void>(zorlib_ifg_devnode_wait(ZORVIK_CTL_NODE, 1));  // open() reports the failure
  OwnedFd ctl(::open(ZORVIK_CTL_NODE, O_RDWR | O_CLOEXEC));
  if (!ctl) {
    logLine(LOG_ERR, messages.open, errorText());
  }
  return ctl;
}

int getMask(const OwnedFd& ctl, std::uint64_t* mask, const Messages& messages) noexcept {
  if (::ioctl(ctl.get(), ZORVIK_GET_LOG_MASK, mask) < 0) {
    logLine(LOG_ERR, messages.get, errorText());
    return -1;
  }
  return 0;
}

int setMask(const OwnedFd& ctl, std::uint64_t mask, const Messages& messages) noexcept {
  if (::ioctl(ctl.get(), ZORVIK_SET_LOG_MASK, &mask) < 0) {
    logLine(LOG_ERR, messages.set, errorText());
    return -1;
  }
  return 0;
}

// Clears `cleared` and sets `set`.
int changeMask(std::uint64_t cleared, std::uint64_t set, const Messages& messages) noexcept {
  const OwnedFd ctl = openDriver(messages);
  std::uint64_t mask = 0;
  if (!ctl || getMask(ctl, &mask, messages) != 0) {
    return -1;
  }
  return setMask(ctl, (mask & ~cleared) | set, messages);
}

}  // namespace

extern "C" {

int zorlib_get_logging_mask(uint64_t* mask) {
  if (!checkPointers(mask)) {
    return -1;
  }
  const OwnedFd ctl = openDriver(kGet);
  return ctl ? getMask(ctl, mask, kGet) : -1;
}

int zorlib_set_logging_mask(uint64_t mask) {
  const OwnedFd ctl = openDriver(kSet);
  return ctl ? setMask(ctl, mask, kSet) : -1;
}

int zorlib_add_logging(uint64_t bits) {
  return bits == 0 ? 0 : changeMask(0, bits, kAdd);
}

int zorlib_del_logging(uint64_t bits) {
  return bits == 0 ? 0 : changeMask(bits, 0, kDel);
}

}  // extern "C"
