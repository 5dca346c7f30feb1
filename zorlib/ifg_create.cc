// Creating and removing interface groups.
#include <sys/ioctl.h>

#include "base/log.h"
#include "zorlib/param.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

zorvik_ifg_create requestFor(const char* name) noexcept {
  zorvik_ifg_create request{};
  std::memcpy(request.name, name, strnlen(name, ZORVIK_NAME_MAX));
  return request;
}

int waitForNodes(const zorlib_ifg& ifg) noexcept {
  for (const char* node : {ZORVIK_IFG_CTL, ZORVIK_IFG_FRM_DESC}) {
    std::array<char, 128> path;
    joinPath(path, ifg.dir.data(), node);
    if (zorlib_ifg_devnode_wait(path.data(), 1) != 0) {
      return -1;
    }
  }
  return 0;
}

// Removes a group whose creation failed half-way. Keeps errno.
void removeUnfinished(zorlib_ifg& ifg, zorvik_ifg_create& request) noexcept {
  const int savedErrno = errno;
  ifg.ifgCtlFd.reset();  // the driver does not remove a group in use
  ifg.frmDescFd.reset();
  if (::ioctl(ifg.ctlFd.get(), ZORVIK_IFG_REMOVE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create: Remove ifg %s failed - %s", ifg.name.data(),
                 errorText());
  }
  errno = savedErrno;
}

// Creates the group of a newly allocated handle, opens its nodes and configures it and its queue
// pairs. Removes it again on failure.
int createGroup(zorlib_ifg& ifg, const zorvik_ifg_config& config) noexcept {
  zorvik_ifg_create request = requestFor(ifg.name.data());
  if (::ioctl(ifg.ctlFd.get(), ZORVIK_IFG_CREATE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create: Create ifg %s failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  if (waitForNodes(ifg) == 0 && openControl(ifg) == 0 && zorlib_ifg_create_frm_data(&ifg) == 0 &&
      openFrameDescriptors(ifg) == 0 && configureGroup(ifg, config) == 0 && applyMasks(ifg) == 0) {
    return 0;
  }
  removeUnfinished(ifg, request);
  return -1;
}

}  // namespace

extern "C" {

int zorlib_ifg_create(const char* name, const zorvik_ifg_config* config, zorlib_ifg** ifg) {
  if (!checkPointers(config, ifg) || !checkDescription(DescriptionOf::kCreate, *config)) {
    return -1;
  }
  zorlib_ifg* const created = zorlib_ifg_alloc(name);
  if (created == nullptr) {
    return -1;
  }
  if (createGroup(*created, *config) != 0) {
    static_cast<void>(zorlib_ifg_close(created));
    return -1;
  }
  *ifg = created;
  return 0;
}

int zorlib_ifg_create_frm_data(zorlib_ifg* ifg) {
  constexpr std::uint32_t kDefaultCount = 16384;
  if (!checkHandle(ifg)) {
    return -1;
  }
  std::uint32_t count = lookupFdCount(*ifg);
  if (count == 0) {
    count = kDefaultCount;
  }
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_FRM_DATA_CREATE, &count) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create_frm_data: %s Create ioctl failed - %s", ifg->name.data(),
                 errorText());
    return -1;
  }
  return 0;
}

int zorlib_ifg_remove(const char* name) {
  zorlib_ifg* const driver = zorlib_ifg_alloc(name);
  if (driver == nullptr) {
    return -1;
  }
  zorvik_ifg_create request = requestFor(name);
  const int result = ::ioctl(driver->ctlFd.get(), ZORVIK_IFG_REMOVE, &request);
  if (result < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_remove: Remove ifg %s failed - %s", name, errorText());
  } else {
    std::array<char, 128> path;
    joinPath(path, driver->dir.data(), ZORVIK_IFG_CTL);
    static_cast<void>(zorlib_ifg_devnode_wait(path.data(), 0));  // removed, node or no node
  }
  static_cast<void>(zorlib_ifg_close(driver));
  return result < 0 ? -1 : 0;
}

}  // extern "C"
