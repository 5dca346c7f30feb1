#include "platform/zorvik/status.h"

#include <cinttypes>

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
    if (group.life != Life::kLive) {
      continue;
    }
    std::fprintf(out, "group %s  flags 0x%" PRIx64 "  frames %" PRIu32 ", free %" PRIu32 "\n",
                 group.name, group.flags, group.records == 0 ? 0 : group.records - 1,
                 group.freeCount);
    for (const Queue& queue : group.queues) {
      if (queue.life == Life::kLive) {
        printQueue(out, driver, group, queue);
      }
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
