// Whether a group can be as it is described. The log lines name the function that was called.
#include <net/if.h>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

bool refuse(int error) noexcept {
  errno = error;
  return false;
}

bool checkCount(const char* caller, const zorvik_ifg_config& config) noexcept {
  if (config.num_ifs == 0 || config.num_ifs > ZORVIK_IF_MAX || config.num_ifs % 2 != 0) {
    TARNIK_ERROR("Error: %s: Invalid num_ifs %u (0 < N <= %u && (N %% 2) == 0)", caller,
                 config.num_ifs, ZORVIK_IF_MAX);
    return refuse(EINVAL);
  }
  return true;
}

bool checkKernelInterfaces(const char* caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const std::uint32_t wanted = config.ifs[i].kern_if;
    std::array<char, IF_NAMESIZE> name;
    if (::if_indextoname(wanted, name.data()) == nullptr) {
      TARNIK_ERROR("Error: %s: Invalid kern IF %u [if#%u] failed - %s", caller, wanted, i,
                   errorText());
      return false;
    }
    for (std::uint32_t other = 0; other < i; ++other) {
      if (config.ifs[other].kern_if == wanted) {
        errno = EEXIST;
        TARNIK_ERROR("Error: %s: Duplicate kern IF %u [if#%u & %u] failed - %s", caller, wanted,
                     other, i, errorText());
        return false;
      }
    }
  }
  return true;
}

bool checkModes(const char* caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const zorvik_if_record& each = config.ifs[i];
    if (each.mode < ZORVIK_IF_INLINE || each.mode > ZORVIK_IF_BYPASS) {
      TARNIK_ERROR("Error: %s: Idx %u unsupported mode %u", caller, i, each.mode);
      return refuse(EINVAL);
    }
    if (each.sub_mode > ZORVIK_IF_SUB_MODE_MAX) {
      TARNIK_ERROR("Error: %s: Idx %u unsupported sub_mode %u", caller, i, each.sub_mode);
      return refuse(EINVAL);
    }
  }
  return true;
}

bool checkPair(const char* caller, std::uint32_t pair, const zorvik_ifg_config& config) noexcept {
  for (const std::uint32_t i : {pair * 2, pair * 2 + 1}) {
    if (config.ifs[i].mate != (i ^ 1u)) {
      TARNIK_ERROR("Error: %s: Port not properly mated (%u %u) should be (%u %u)", caller, i,
                   config.ifs[i].mate, i, i ^ 1u);
      return refuse(EINVAL);
    }
  }
  const zorvik_if_record& one = config.ifs[pair * 2];
  const zorvik_if_record& two = config.ifs[pair * 2 + 1];
  if (one.mode != two.mode || one.sub_mode != two.sub_mode || one.mtu != two.mtu ||
      one.speed != two.speed || one.duplex != two.duplex) {
    TARNIK_ERROR("Error: %s: port pair mismatch, pair %u (%u %u %u %u %u vs %u %u %u %u %u)",
                 caller, pair, one.mode, one.sub_mode, one.mtu, one.speed, one.duplex, two.mode,
                 two.sub_mode, two.mtu, two.speed, two.duplex);
    return refuse(EINVAL);
  }
  return true;
}

bool checkPairs(const char* caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t pair = 0; pair < config.num_ifs / 2; ++pair) {
    if (!checkPair(caller, pair, config)) {
      return false;
    }
  }
  return true;
}

bool checkSettings(const char* caller, const zorvik_ifg_config& config) noexcept {
  if (config.fwd_unanalyzed > 1) {
    TARNIK_ERROR("Error: %s: fwd_unanalyzed setting not 0 or 1 (%u)", caller,
                 config.fwd_unanalyzed);
    return refuse(EINVAL);
  }
  if (config.prop_link > 1) {
    TARNIK_ERROR("Error: %s: prop_link setting not 0 or 1 (%u)", caller, config.prop_link);
    return refuse(EINVAL);
  }
  if (config.prop_link == 1 && config.prop_link_time < ZORVIK_PROP_LINK_TIME_MIN) {
    TARNIK_ERROR("Error: %s: prop_link_time setting too low (%u) min %u", caller,
                 config.prop_link_time, ZORVIK_PROP_LINK_TIME_MIN);
    return refuse(EINVAL);
  }
  const unsigned link = config.link_config;
  if (link != ZORVIK_LINK_CONFIG_KEEP && (link & ~ZORVIK_LINK_CONFIG_BITS) != 0) {
    TARNIK_ERROR("Error: %s: Unsupported link config bits (%x vs %x)", caller, link,
                 ZORVIK_LINK_CONFIG_BITS);
    return refuse(EINVAL);
  }
  return true;
}

}  // namespace

namespace tarnik::zorlib {

bool checkDescription(const char* caller, const zorvik_ifg_config& config) noexcept {
  return checkCount(caller, config) && checkKernelInterfaces(caller, config) &&
         checkModes(caller, config) && checkPairs(caller, config) && checkSettings(caller, config);
}

}  // namespace tarnik::zorlib
