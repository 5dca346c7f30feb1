#include "platform/zorvik/status.h"

#include <net/if.h>

#include <cinttypes>
#include <string>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/ring.h"

namespace tarnik::zorvik {

namespace {

void printSide(std::FILE* out, const Ring& ring, bool producer) {
  const std::uint32_t flags = ring.flags(producer).load();
  std::fprintf(out, "  %s%s%s", producer ? "producer" : "consumer",
               (flags & ZORVIK_RESQ_WOKEN) != 0 ? " woken" : "",
               (flags & ZORVIK_RESQ_SHUTDOWN) != 0 ? " shut-down" : "");
}

void printQueue(std::FILE* out, Driver& driver, const Group& group, const Queue& queue) {
  std::fprintf(
      out, "  queue %s  id %" PRIu32 "  type %" PRIu32 "  entries %" PRIu32 "  requested %" PRIu32,
      queue.name, queue.id, queue.type, queue.slots, queue.requested);
  if (const auto memory = driver.queueMemory(group, queue); memory != nullptr) {
    const Ring ring(memory->base(), queue.slots);
    std::fprintf(out, "  queued %" PRIu32, ring.used());
    printSide(out, ring, true);
    printSide(out, ring, false);
  }
  std::fprintf(out, "  %s\n", isIdle(nodePath(group, queue.name)) ? "closed" : "open");
}

std::string kernelName(std::uint32_t kernIf) {
  char name[IF_NAMESIZE];
  return ::if_indextoname(kernIf, name) == nullptr ? "(gone)" : name;
}

const char* modeName(std::uint32_t mode) {
  constexpr const char* kNames[] = {"inline", "passive", "bypass"};
  return mode >= ZORVIK_IF_INLINE && mode <= ZORVIK_IF_BYPASS ? kNames[mode - ZORVIK_IF_INLINE]
                                                              : "?";
}

void printSettings(std::FILE* out, const Settings& settings) {
  const zorvik_ifg_config& config = settings.config;
  if (settings.cookie == 0) {
    std::fprintf(out, "  no interfaces\n");
  } else {
    std::fprintf(out, "  configuration %" PRIu32 "  link 0x%x  fwd-unanalyzed %" PRIu32,
                 settings.cookie, unsigned{config.link_config}, config.fwd_unanalyzed);
    std::fprintf(out, "  prop-link %" PRIu32 " after %" PRIu32 " ms\n", config.prop_link,
                 config.prop_link_time);
  }
  for (std::uint32_t i = 0; i < config.num_ifs; ++i) {
    const zorvik_if_record& each = config.ifs[i];
    std::fprintf(out, "  interface %" PRIu32 " %s  kernel %" PRIu32 "  mate %" PRIu32, i,
                 kernelName(each.kern_if).c_str(), each.kern_if, each.mate);
    std::fprintf(out, "  %s/%" PRIu32 "  mtu %" PRIu32 "  speed %" PRIu32 "  duplex %" PRIu32 "\n",
                 modeName(each.mode), each.sub_mode, each.mtu, each.speed, each.duplex);
  }
  for (const zorvik_qpair_cfg& pair : settings.queuePairs) {
    if (pair.size != 0 || pair.if_mask != 0 || pair.cpu_mask != 0) {
      std::fprintf(out,
                   "  queue pair %" PRIu32 "  size %" PRIu32 "  interfaces 0x%" PRIx64
                   "  processors 0x%" PRIx64 "\n",
                   pair.index, pair.size, pair.if_mask, pair.cpu_mask);
    }
  }
}

void printGroup(std::FILE* out, Driver& driver, const Group& group) {
  const zorvik_ifg_stats stats = frameStats(driver.state(), group);
  std::fprintf(out, "group %s  flags 0x%" PRIx64 "  frames %" PRIu32 ", free %" PRIu32 "\n",
               group.name, group.flags, stats.frm_count, stats.frm_free);
  std::fprintf(out,
               "  frames given out %" PRIu64 ", taken back %" PRIu64
               "; requests that found none %" PRIu64 ", that asked too much %" PRIu64 "\n",
               stats.frm_allocs, stats.frm_frees, stats.alloc_empty, stats.alloc_too_large);
  printSettings(out, group.settings());
  for (const Queue& queue : group.queues) {
    if (queue.life == Life::kLive) {
      printQueue(out, driver, group, queue);
    }
  }
}

}  // namespace

void printStatus(std::FILE* out, Driver& driver) {
  const State& state = driver.state();
  std::fprintf(out, "payload %" PRIu32 " bytes, logging mask 0x%" PRIx64 "\n", state.payloadSize,
               state.logMask);
  for (std::uint32_t i = 0; i < state.classes; ++i) {
    const FrameClass& each = state.frameClasses[i];
    std::fprintf(out, "buffers of %" PRIu32 " bytes: %" PRIu32 ", free %" PRIu32 "\n", each.bufSize,
                 each.count, each.freeCount);
  }
  for (const Group& group : state.groups) {
    if (group.life == Life::kLive) {
      printGroup(out, driver, group);
    }
  }
  const Faults& faults = state.faults;
  if (faults.slowWakeMs != 0 || faults.dropWakes != 0 || faults.eintrIn != 0) {
    std::fprintf(out,
                 "faults: slow-wake %" PRIu32 " ms, drop-wakes %" PRIu32 ", eintr in %" PRIu32
                 " waits\n",
                 faults.slowWakeMs, faults.dropWakes, faults.eintrIn);
  }
  if (state.deaths != 0) {
    std::fprintf(out, "%" PRIu64 " processes died inside the driver; it was put right\n",
                 state.deaths);
  }
}

}  // namespace tarnik::zorvik
