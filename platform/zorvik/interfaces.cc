#include "platform/zorvik/interfaces.h"

#include <net/if.h>

#include <cerrno>
#include <climits>

namespace tarnik::zorvik {

namespace {

bool sameSettings(const zorvik_if_record& one, const zorvik_if_record& two) {
  return one.mode == two.mode && one.sub_mode == two.sub_mode && one.mtu == two.mtu &&
         one.speed == two.speed && one.duplex == two.duplex;
}

// Whether the numbers are such as can be; nothing of the kernel or other groups is asked.
bool isSound(const zorvik_ifg_config& wanted) {
  if (wanted.num_ifs == 0 || wanted.num_ifs > ZORVIK_IF_MAX || wanted.num_ifs % 2 != 0) {
    return false;
  }
  constexpr std::uint32_t kFullDuplex = 2;
  for (std::uint32_t i = 0; i < wanted.num_ifs; ++i) {
    const zorvik_if_record& each = wanted.ifs[i];
    if (each.duplex > kFullDuplex || each.mate != (i ^ 1u) || each.mode < ZORVIK_IF_INLINE ||
        each.mode > ZORVIK_IF_BYPASS || each.sub_mode > ZORVIK_IF_SUB_MODE_MAX ||
        !sameSettings(each, wanted.ifs[i ^ 1u])) {
      return false;
    }
  }
  const std::uint32_t link = wanted.link_config;
  return wanted.fwd_unanalyzed <= 1 && wanted.prop_link <= 1 &&
         (wanted.prop_link == 0 || wanted.prop_link_time >= ZORVIK_PROP_LINK_TIME_MIN) &&
         (link == ZORVIK_LINK_CONFIG_KEEP || (link & ~ZORVIK_LINK_CONFIG_BITS) == 0);
}

bool has(const zorvik_ifg_config& config, std::uint32_t count, std::uint32_t kernIf) {
  for (std::uint32_t i = 0; i < count; ++i) {
    if (config.ifs[i].kern_if == kernIf) {
      return true;
    }
  }
  return false;
}

int checkKernelInterfaces(const State& state, const Group& group, const zorvik_ifg_config& wanted) {
  for (std::uint32_t i = 0; i < wanted.num_ifs; ++i) {
    const std::uint32_t kernIf = wanted.ifs[i].kern_if;
    char name[IF_NAMESIZE];
    if (::if_indextoname(kernIf, name) == nullptr) {
      return -ENXIO;
    }
    if (has(wanted, i, kernIf)) {
      return -EEXIST;
    }
    for (const Group& other : state.groups) {
      const zorvik_ifg_config& theirs = other.settings().config;
      if (&other != &group && other.life == Life::kLive && has(theirs, theirs.num_ifs, kernIf)) {
        return -EBUSY;
      }
    }
  }
  return 0;
}

// A bit for each of `count` interfaces.
std::uint64_t maskOf(std::uint32_t count) {
  return (std::uint64_t{1} << count) - 1;
}

}  // namespace

int configure(State& state, Group& group, const zorvik_ifg_config& wanted) {
  if (!isSound(wanted)) {
    return -EINVAL;
  }
  if (const int result = checkKernelInterfaces(state, group, wanted); result != 0) {
    return result;
  }
  const Settings& now = group.settings();
  Settings next = now;
  next.config = wanted;
  if (wanted.link_config == ZORVIK_LINK_CONFIG_KEEP) {
    next.config.link_config = now.config.link_config;
  }
  next.cookie = now.cookie == INT_MAX ? 1 : now.cookie + 1;
  for (zorvik_qpair_cfg& pair : next.queuePairs) {
    pair.if_mask &= maskOf(wanted.num_ifs);
  }
  group.putInForce(next);
  return 0;
}

int setQueuePair(Group& group, const zorvik_qpair_cfg& wanted) {
  if (wanted.index >= ZORVIK_QPAIR_MAX || wanted.size > kMaxQueueSize ||
      (wanted.if_mask & ~maskOf(group.settings().config.num_ifs)) != 0) {
    return -EINVAL;
  }
  Settings next = group.settings();
  next.queuePairs[wanted.index] = wanted;
  group.putInForce(next);
  return 0;
}

}  // namespace tarnik::zorvik
