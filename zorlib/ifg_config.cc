// Settings, queue pairs and counters of a group, and the list of groups.
#include <sys/ioctl.h>

#include <algorithm>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

bool checkQueuePair(std::uint32_t index) noexcept {
  if (index >= ZORLIB_MAX_QPAIRS) {
    errno = EINVAL;
    return false;
  }
  return true;
}

}  // namespace

namespace tarnik::zorlib {

int configureGroup(zorlib_ifg& ifg, const zorvik_ifg_config& config) noexcept {
  zorvik_ifg_config request = config;
  if (::ioctl(ifg.ifgCtlFd.get(), ZORVIK_IFG_CONFIGURE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_configure: configure ioctl (%s) failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  ifg.numIfs = config.num_ifs;
  return 0;
}

}  // namespace tarnik::zorlib

extern "C" {

int zorlib_ifg_configure(zorlib_ifg* ifg, const zorvik_ifg_config* config) {
  if (!checkHandle(ifg) || !checkPointers(config) ||
      !checkDescription(DescriptionOf::kConfigure, *config)) {
    return -1;
  }
  return configureGroup(*ifg, *config);
}

int zorlib_ifg_set_qpair_cfg(zorlib_ifg* ifg, const zorvik_qpair_cfg* cfg) {
  if (!checkHandle(ifg) || !checkPointers(cfg) || !checkQueuePair(cfg->index)) {
    return -1;
  }
  zorvik_qpair_cfg request = *cfg;
  if (request.size == 0) {
    request.size = static_cast<std::uint32_t>(zorlib_ifg_lookup_qsize(ifg, nullptr));
  }
  if (request.if_mask == 0) {
    request.if_mask = zorlib_ifg_lookup_if_mask(ifg, request.index);
  }
  if (request.cpu_mask == 0) {
    request.cpu_mask = zorlib_ifg_lookup_cpu_mask(ifg, request.index);
  }
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_QPAIR_SET, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_set_qpair_cfg: set ioctl (%s/%u) failed - %s", ifg->name.data(),
                 request.index, errorText());
    return -1;
  }
  return 0;
}

int zorlib_ifg_get_qpair_cfg(zorlib_ifg* ifg, zorvik_qpair_cfg* cfg) {
  if (!checkHandle(ifg) || !checkPointers(cfg) || !checkQueuePair(cfg->index)) {
    return -1;
  }
  zorvik_qpair_cfg request{};
  request.index = cfg->index;
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_QPAIR_GET, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_get_qpair_cfg: get ioctl (%s/%u) failed - %s", ifg->name.data(),
                 request.index, errorText());
    return -1;
  }
  *cfg = request;
  return 0;
}

int zorlib_ifg_get_stats(zorlib_ifg* ifg, zorvik_ifg_stats* stats) {
  if (!checkHandle(ifg) || !checkPointers(stats)) {
    return -1;
  }
  zorvik_ifg_stats request{};
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_IFG_STATS, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_get_stats: stats ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
    return -1;
  }
  *stats = request;
  return 0;
}

int zorlib_ifg_enum(zorvik_ifg_enum* list) {
  if (!checkPointers(list)) {
    return -1;
  }
  zorlib_ifg* const driver = zorlib_ifg_alloc(ZORVIK_IFG_NIL_NAME);
  if (driver == nullptr) {
    return -1;
  }
  zorvik_ifg_enum request{};
  request.count = ZORVIK_ENUM_MAX;
  const int result = ::ioctl(driver->ctlFd.get(), ZORVIK_IFG_ENUM, &request);
  if (result < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_enum: enum ioctl failed - %s", errorText());
  }
  static_cast<void>(zorlib_ifg_close(driver));
  if (result < 0) {
    return -1;
  }
  request.count = std::min(request.count, ZORVIK_ENUM_MAX);
  for (std::uint32_t i = request.count; i < ZORVIK_ENUM_MAX; ++i) {
    request.records[i] = {.id = 0, .num_ifs = 0, .name = ZORVIK_IFG_NIL_NAME};
  }
  *list = request;
  return 0;
}

}  // extern "C"
