// The check of a group's description, before the driver sees it.
//
// Each refusal names the function that was called. Both of its lines are written out, so that grep
// finds the line of the log.
#include <net/if.h>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

bool refused(int error) noexcept {
  errno = error;
  return false;
}

bool checkCount(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  if (config.num_ifs == 0 || config.num_ifs > ZORVIK_IF_MAX || config.num_ifs % 2 != 0) {
    logLine(LOG_ERR,
            caller == DescriptionOf::kCreate
                ? "Error: zorlib_ifg_create: Invalid num_ifs %u (0 < N <= %u && (N %% 2) == 0)"
                : "Error: zorlib_ifg_configure: Invalid num_ifs %u (0 < N <= %u && (N %% 2) == 0)",
            config.num_ifs, ZORVIK_IF_MAX);
    return refused(EINVAL);
  }
  return true;
}

bool checkKernelInterfaces(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const std::uint32_t wanted = config.ifs[i].kern_if;
    std::array<char, IF_NAMESIZE> name;
    if (::if_indextoname(wanted, name.data()) == nullptr) {
      logLine(LOG_ERR,
              caller == DescriptionOf::kCreate
                  ? "Error: zorlib_ifg_create: Invalid kern IF %u [if#%u] failed - %s"
                  : "Error: zorlib_ifg_configure: Invalid kern IF %u [if#%u] failed - %s",
              wanted, i, errorText());
      return false;
    }
    for (std::uint32_t other = 0; other < i; ++other) {
      if (config.ifs[other].kern_if == wanted) {
        errno = EEXIST;
        logLine(LOG_ERR,
                caller == DescriptionOf::kCreate
                    ? "Error: zorlib_ifg_create: Duplicate kern IF %u [if#%u & %u] failed - %s"
                    : "Error: zorlib_ifg_configure: Duplicate kern IF %u [if#%u & %u] failed - %s",
                wanted, other, i, errorText());
        return false;
      }
    }
  }
  return true;
}

bool checkModes(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const zorvik_if_record& each = config.ifs[i];
    if (each.mode < ZORVIK_IF_INLINE || each.mode > ZORVIK_IF_BYPASS) {
      logLine(LOG_ERR,
              caller == DescriptionOf::kCreate
                  ? "Error: zorlib_ifg_create: Idx %u unsupported mode %u"
                  : "Error: zorlib_ifg_configure: Idx %u unsupported mode %u",
              i, each.mode);
      return refused(EINVAL);
    }
    if (each.sub_mode > ZORVIK_IF_SUB_MODE_MAX) {
      logLine(LOG_ERR,
              caller == DescriptionOf::kCreate
                  ? "Error: zorlib_ifg_create: Idx %u unsupported sub_mode %u"
                  : "Error: zorlib_ifg_configure: Idx %u unsupported sub_mode %u",
              i, each.sub_mode);
      return refused(EINVAL);
    }
  }
  return true;
}

bool checkMates(DescriptionOf caller, std::uint32_t pair,
                const zorvik_ifg_config& config) noexcept {
  for (const std::uint32_t i : {pair * 2, pair * 2 + 1}) {
    if (config.ifs[i].mate != (i ^ 1u)) {
      logLine(
          LOG_ERR,
          caller == DescriptionOf::kCreate
              ? "Error: zorlib_ifg_create: Port not properly mated (%u %u) should be (%u %u)"
              : "Error: zorlib_ifg_configure: Port not properly mated (%u %u) should be (%u %u)",
          i, config.ifs[i].mate, i, i ^ 1u);
      return refused(EINVAL);
    }
  }
  return true;
}

bool checkPairs(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  for (std::uint32_t pair = 0; pair < config.num_ifs / 2; ++pair) {
    if (!checkMates(caller, pair, config)) {
      return false;
    }
    const zorvik_if_record& one = config.ifs[pair * 2];
    const zorvik_if_record& two = config.ifs[pair * 2 + 1];
    if (one.mode != two.mode || one.sub_mode != two.sub_mode || one.mtu != two.mtu ||
        one.speed != two.speed || one.duplex != two.duplex) {
      logLine(LOG_ERR,
              caller == DescriptionOf::kCreate
                  ? "Error: zorlib_ifg_create: port pair mismatch, pair %u (%u %u %u %u %u vs %u "
                    "%u %u %u %u)"
                  : "Error: zorlib_ifg_configure: port pair mismatch, pair %u (%u %u %u %u %u vs "
                    "%u %u %u %u %u)",
              pair, one.mode, one.sub_mode, one.mtu, one.speed, one.duplex, two.mode, two.sub_mode,
              two.mtu, two.speed, two.duplex);
      return refused(EINVAL);
    }
  }
  return true;
}

bool checkSettings(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  const bool create = caller == DescriptionOf::kCreate;
  if (config.fwd_unanalyzed > 1) {
    logLine(LOG_ERR,
            create ? "Error: zorlib_ifg_create: fwd_unanalyzed setting not 0 or 1 (%u)"
                   : "Error: zorlib_ifg_configure: fwd_unanalyzed setting not 0 or 1 (%u)",
            config.fwd_unanalyzed);
    return refused(EINVAL);
  }
  if (config.prop_link > 1) {
    logLine(LOG_ERR,
            create ? "Error: zorlib_ifg_create: prop_link setting not 0 or 1 (%u)"
                   : "Error: zorlib_ifg_configure: prop_link setting not 0 or 1 (%u)",
            config.prop_link);
    return refused(EINVAL);
  }
  if (config.prop_link == 1 && config.prop_link_time < ZORVIK_PROP_LINK_TIME_MIN) {
    logLine(LOG_ERR,
            create ? "Error: zorlib_ifg_create: prop_link_time setting too low (%u) min %u"
                   : "Error: zorlib_ifg_configure: prop_link_time setting too low (%u) min %u",
            config.prop_link_time, ZORVIK_PROP_LINK_TIME_MIN);
    return refused(EINVAL);
  }
  const unsigned link = config.link_config;
  if (link != ZORVIK_LINK_CONFIG_KEEP && (link & ~ZORVIK_LINK_CONFIG_BITS) != 0) {
    logLine(LOG_ERR,
            create ? "Error: zorlib_ifg_create: Unsupported link config bits (%x vs %x)"
                   : "Error: zorlib_ifg_configure: Unsupported link config bits (%x vs %x)",
            link, ZORVIK_LINK_CONFIG_BITS);
    return refused(EINVAL);
  }
  return true;
}

}  // namespace

namespace tarnik::zorlib {

bool checkDescription(DescriptionOf caller, const zorvik_ifg_config& config) noexcept {
  return checkCount(caller, config) && checkKernelInterfaces(caller, config) &&
         checkModes(caller, config) && checkPairs(caller, config) && checkSettings(caller, config);
}

}  // namespace tarnik::zorlib
