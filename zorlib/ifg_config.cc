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

// Takes the masks that are 0 from the parameters.
void fillMasks(zorlib_ifg& ifg, zorvik_qpair_cfg& pair) noexcept {
  if (pair.if_mask == 0) {
    pair.if_mask = zorlib_ifg_lookup_if_mask(&ifg, pair.index);
  }
  if (pair.cpu_mask == 0) {
    pair.cpu_mask = zorlib_ifg_lookup_cpu_mask(&ifg, pair.index);
  }
}

// Issues the set request; a size of 0 comes from the parameters. -1 with a log line on failure.
int setQueuePair(zorlib_ifg& ifg, zorvik_qpair_cfg& pair) noexcept {
  if (pair.size == 0) {
    pair.size = static_cast<std::uint32_t>(zorlib_ifg_lookup_qsize(&ifg, nullptr));
  }
  if (::ioctl(ifg.ifgCtlFd.get(), ZORVIK_QPAIR_SET, &pair) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_set_qpair_cfg: set ioctl (%s/%u) failed - %s", ifg.name.data(),
                 pair.index, errorText());
    return -1;
  }
  return 0;
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

int applyMasks(zorlib_ifg& ifg) noexcept {
  for (std::uint32_t index = 0; index < ZORLIB_MAX_QPAIRS; ++index) {
    zorvik_qpair_cfg pair{.index = index, .size = 0, .if_mask = 0, .cpu_mask = 0};
    fillMasks(ifg, pair);
    if ((pair.if_mask | pair.cpu_mask) != 0 && setQueuePair(ifg, pair) != 0) {
      return -1;
    }
  }
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
  fillMasks(*ifg, request);
  return setQueuePair(*ifg, request);
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
