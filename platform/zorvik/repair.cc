#include "platform/zorvik/repair.h"

#include <cerrno>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/ring.h"
#include "platform/zorvik/waits.h"

namespace tarnik::zorvik {

namespace {

// What keeps the users of a ring from going on, if anything.
struct Stuck {
  bool reading = false;  // the next slot to empty is claimed but not filled
  bool writing = false;  // the next slot to fill is claimed but not emptied
  std::uint32_t slot = 0;
  std::uint64_t entry = 0;
  bool operator==(const Stuck&) const = default;
};

Stuck stuckAt(const Ring& ring) {
  const std::uint32_t next = ring.dequeue();
  if (ring.used() != 0 && ring.entry(next).load() == 0) {
    return {.reading = true, .slot = next};
  }
  const std::uint32_t end = ring.enqueue();
  if (const std::uint64_t entry = ring.entry(end).load(); !ring.full() && entry != 0) {
    return {.writing = true, .slot = end, .entry = entry};
  }
  return {};
}

}  // namespace

int repairQueue(Driver& driver, Group& group, Queue& queue) {
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  const Ring ring(memory->base(), queue.slots);
  ring.restore();
  const std::uint32_t first = ring.dequeue();
  const std::uint32_t used = ring.used();
  int repaired = 0;
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < queue.slots; ++i) {
    const std::uint64_t entry = ring.entry(first + i).load();
    const bool claimed = i < used;
    if (claimed == (entry != 0)) {
      if (claimed && kept++ != i) {
        ring.entry(first + i).store(0);
        ring.entry(first + kept - 1).store(entry);
      }
      continue;
    }
    ++repaired;
    if (entry != 0) {
      ring.entry(first + i).store(0);
      (void)freeFrame(driver, group, static_cast<std::uint32_t>(entry));
    }
  }
  ring.setEnqueue(first + kept);
  ring.setDequeue(first);
  return repaired;
}

int unstickQueue(Driver& driver, Group& group, Queue& queue) {
  constexpr std::uint64_t kNoFrame = std::uint64_t{1} << ZORVIK_FRM_GENERATION_SHIFT;
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  const Ring ring(memory->base(), queue.slots);
  Stuck stuck = stuckAt(ring);
  pauseMs(200);
  if (!(stuck.reading || stuck.writing) || stuckAt(ring) != stuck ||
      !ring.entry(stuck.slot).compare_exchange_strong(stuck.entry, stuck.reading ? kNoFrame : 0)) {
    return 0;
  }
  if (stuck.writing) {
    (void)freeFrame(driver, group, static_cast<std::uint32_t>(stuck.entry));
  }
  return 1;
}

}  // namespace tarnik::zorvik
