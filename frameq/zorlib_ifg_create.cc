// Making an interface group: its description is checked, then the driver is asked.
#include <net/if.h>
#include <sys/ioctl.h>

#include "base/log.h"
#include "frameq/zorlib_param.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

bool refuse(int error) noexcept {
  errno = error;
  return false;
}

bool checkCount(const zorvik_ifg_config& config) noexcept {
  if (config.num_ifs == 0 || config.num_ifs > ZORVIK_IF_MAX || config.num_ifs % 2 != 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create: Invalid num_ifs %u (0 < N <= %u && (N %% 2) == 0)",
                 config.num_ifs, ZORVIK_IF_MAX);
    return refuse(EINVAL);
  }
  return true;
}

bool checkKernelInterfaces(const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const std::uint32_t wanted = config.ifs[i].kern_if;
    std::array<char, IF_NAMESIZE> name;
    if (::if_indextoname(wanted, name.data()) == nullptr) {
      TARNIK_ERROR("Error: zorlib_ifg_create: Invalid kern IF %u [if#%u] failed - %s", wanted, i,
                   errorText());
      return false;
    }
    for (std::uint32_t other = 0; other < i; ++other) {
      if (config.ifs[other].kern_if == wanted) {
        errno = EEXIST;
        TARNIK_ERROR("Error: zorlib_ifg_create: Duplicate kern IF %u [if#%u & %u] failed - %s",
                     wanted, other, i, errorText());
        return false;
      }
    }
  }
  return true;
}

bool checkModes(const zorvik_ifg_config& config) noexcept {
  constexpr std::uint32_t kMaxSubMode = 4;
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const zorvik_if_record& each = config.ifs[i];
    if (each.mode < ZORVIK_IF_INLINE || each.mode > ZORVIK_IF_BYPASS) {
      TARNIK_ERROR("Error: zorlib_ifg_create: Idx %u unsupported mode %u", i, each.mode);
      return refuse(EINVAL);
    }
    if (each.sub_mode > kMaxSubMode) {
      TARNIK_ERROR("Error: zorlib_ifg_create: Idx %u unsupported sub_mode %u", i, each.sub_mode);
      return refuse(EINVAL);
    }
  }
  return true;
}

bool checkPairs(const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const zorvik_if_record& one = config.ifs[i];
    if (one.mate != (i ^ 1u)) {
      TARNIK_ERROR("Error: zorlib_ifg_create: Port not properly mated (%u %u) should be (%u %u)", i,
                   one.mate, i, i ^ 1u);
      return refuse(EINVAL);
    }
    const zorvik_if_record& two = config.ifs[i ^ 1u];
    if (one.mode != two.mode || one.sub_mode != two.sub_mode || one.mtu != two.mtu ||
        one.speed != two.speed || one.duplex != two.duplex) {
      TARNIK_ERROR(
          "Error: zorlib_ifg_create: port pair mismatch, pair %u (%u %u %u %u %u vs %u %u %u %u "
          "%u)",
          i / 2, one.mode, one.sub_mode, one.mtu, one.speed, one.duplex, two.mode, two.sub_mode,
          two.mtu, two.speed, two.duplex);
      return refuse(EINVAL);
    }
  }
  return true;
}

bool checkSettings(const zorvik_ifg_config& config) noexcept {
  constexpr std::uint32_t kMinPropLinkTime = 5000;  // milliseconds
  constexpr unsigned kLinkConfigBits = 0x3f;
  constexpr unsigned kLinkConfigKept = 0xffff;
  if (config.fwd_unanalyzed > 1) {
    TARNIK_ERROR("Error: zorlib_ifg_create: fwd_unanalyzed setting not 0 or 1 (%u)",
                 config.fwd_unanalyzed);
    return refuse(EINVAL);
  }
  if (config.prop_link > 1) {
    TARNIK_ERROR("Error: zorlib_ifg_create: prop_link setting not 0 or 1 (%u)", config.prop_link);
    return refuse(EINVAL);
  }
  if (config.prop_link == 1 && config.prop_link_time < kMinPropLinkTime) {
    TARNIK_ERROR("Error: zorlib_ifg_create: prop_link_time setting too low (%u) min %u",
                 config.prop_link_time, kMinPropLinkTime);
    return refuse(EINVAL);
  }
  const unsigned link = config.link_config;
  if (link != kLinkConfigKept && (link & ~kLinkConfigBits) != 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create: Unsupported link config bits (%x vs %x)", link,
                 kLinkConfigBits);
    return refuse(EINVAL);
  }
  return true;
}

zorvik_ifg_create named(const char* name) noexcept {
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

// Makes the group of a handle that has only the driver's control node, and opens its nodes. The
// driver is left without it on failure.
int makeGroup(zorlib_ifg& ifg) noexcept {
  zorvik_ifg_create request = named(ifg.name.data());
  if (::ioctl(ifg.ctlFd.get(), ZORVIK_IFG_CREATE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_create: Create ifg %s failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  if (waitForNodes(ifg) == 0 && openControl(ifg) == 0 && zorlib_ifg_create_frm_data(&ifg) == 0 &&
      openFrameDescriptors(ifg) == 0) {
    return 0;
  }
  const int savedErrno = errno;
  ifg.ifgCtlFd.reset();  // a group in use is not removed
  static_cast<void>(::ioctl(ifg.ctlFd.get(), ZORVIK_IFG_REMOVE, &request));
  errno = savedErrno;
  return -1;
}

}  // namespace

extern "C" {

int zorlib_ifg_create(const char* name, const zorvik_ifg_config* config, zorlib_ifg** ifg) {
  if (!checkCount(*config) || !checkKernelInterfaces(*config) || !checkModes(*config) ||
      !checkPairs(*config) || !checkSettings(*config)) {
    return -1;
  }
  zorlib_ifg* const made = zorlib_ifg_alloc(name);
  if (made == nullptr) {
    return -1;
  }
  made->numIfs = config->num_ifs;
  if (makeGroup(*made) != 0) {
    static_cast<void>(zorlib_ifg_close(made));
    return -1;
  }
  *ifg = made;
  return 0;
}

int zorlib_ifg_create_frm_data(zorlib_ifg* ifg) {
  constexpr std::uint32_t kMin = 1000;
  constexpr std::uint32_t kMax = 1000000;
  constexpr std::uint32_t kDefault = 16384;
  if (!valid(ifg)) {
    return -1;
  }
  std::uint32_t count = kDefault;
  if (const std::optional<unsigned long> given = lookupFdCount(*ifg)) {
    if (*given >= kMin && *given <= kMax) {
      count = static_cast<std::uint32_t>(*given);
    } else {
      TARNIK_WARNING(
          "Warning: zorlib_ifg_create_frm_data: %s fd_count out of bounds (%u<=N<=%u [per IF])",
          ifg->name.data(), kMin, kMax);
    }
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
  zorvik_ifg_create request = named(name);
  const int result = ::ioctl(driver->ctlFd.get(), ZORVIK_IFG_REMOVE, &request);
  if (result < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_remove: Remove ifg %s failed - %s", name, errorText());
  }
  static_cast<void>(zorlib_ifg_close(driver));
  return result < 0 ? -1 : 0;
}

}  // extern "C"
