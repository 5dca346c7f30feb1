// Settings, queue pairs and counters of a group, and the list of all groups.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "base/log.h"
#include "frameq/zorlib_internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

bool isQueuePair(std::uint32_t index) noexcept {
  if (index >= ZORLIB_MAX_QPAIRS) {
    errno = EINVAL;
    return false;
  }
  return true;
}

}  // namespace

extern "C" {

int zorlib_ifg_configure(zorlib_ifg* ifg, const zorvik_ifg_config* config) {
  if (!valid(ifg)) {
    return -1;
  }
  zorvik_ifg_config request = *config;
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_IFG_CONFIGURE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_configure: configure ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
    return -1;
  }
  ifg->numIfs = request.num_ifs;
  return 0;
}

int zorlib_ifg_set_qpair_cfg(zorlib_ifg* ifg, const zorvik_qpair_cfg* cfg) {
  if (!valid(ifg) || !isQueuePair(cfg->index)) {
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
  if (!valid(ifg) || !isQueuePair(cfg->index)) {
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
  if (!valid(ifg)) {
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
  static_cast<void>(zorlib_ifg_devnode_wait(ZORVIK_CTL_NODE, 1));  // the open tells
  const OwnedFd ctl(::open(ZORVIK_CTL_NODE, O_RDWR | O_CLOEXEC));
  if (!ctl) {
    TARNIK_ERROR("Error: zorlib_ifg_enum: Cannot open zorvik ctl - %s", errorText());
    return -1;
  }
  *list = zorvik_ifg_enum{};
  list->count = ZORVIK_ENUM_MAX;
  if (::ioctl(ctl.get(), ZORVIK_IFG_ENUM, list) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_enum: enum ioctl failed - %s", errorText());
    return -1;
  }
  list->count = std::min(list->count, ZORVIK_ENUM_MAX);
  return 0;
}

}  // extern "C"
