#include "platform/zorvik/reclaim.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <span>
#include <vector>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/ring.h"

namespace tarnik::zorvik {

namespace {

// Which of the group's descriptors are on a queue. Empty when a queue cannot be mapped.
std::vector<bool> queuedFrames(Driver& driver, Group& group) {
  std::vector<bool> queued(group.records);
  for (const Queue& queue : group.queues) {
    if (queue.life != Life::kLive) {
      continue;
    }
    const auto memory = driver.queueMemory(group, queue);
    if (memory == nullptr) {
      return {};
    }
    for (const std::uint64_t id : Ring(memory->base(), queue.slots).contents()) {
      const std::uint64_t index = id & ZORVIK_FRM_INDEX_MASK;
      if (index < group.records &&
          driver.state().records(group)[index].generation ==
              static_cast<std::uint32_t>(id) >> ZORVIK_FRM_GENERATION_SHIFT) {
        queued[index] = true;
      }
    }
  }
  return queued;
}

}  // namespace

std::uint8_t ownerNumber(Driver& driver) {
  if (!driver.hasProcess()) {
    // The number may be that of a dead process, whose frames must not become the new one's.
    for (Group& group : driver.state().groups) {
      if (group.life == Life::kLive) {
        reclaimFrames(driver, group, Reclaim::kOfDead);
      }
    }
  }
  return driver.process();
}

void reclaimFrames(Driver& driver, Group& group, Reclaim which) {
  const bool countsReferences =
      std::all_of(std::begin(group.queues), std::end(group.queues), [](const Queue& queue) {
        return queue.life != Life::kLive || queue.type == ZORVIK_Q_FANOUT ||
               queue.type == ZORVIK_Q_APP;
      });
  if (group.records == 0 || (which == Reclaim::kOfDead && !countsReferences)) {
    return;
  }
  State& state = driver.state();
  const std::span records(state.records(group), group.records);
  std::array<std::optional<bool>, kMaxProcesses + 1> dead;
  dead[0] = false;
  const auto isDead = [&](const FrameRecord& record) {
    std::optional<bool>& known = dead[record.owner];
    if (!known) {
      known = !Driver::processLives(record.owner);
    }
    return *known;
  };
  std::optional<std::vector<bool>> queued;
  zorvik_frm_desc* descriptors = driver.descriptors(group);
  for (std::uint32_t i = 1; i < group.records && descriptors != nullptr; ++i) {
    if (records[i].buffer == 0 ||
        (which == Reclaim::kOfDead &&
         (!isDead(records[i]) || std::atomic_ref(descriptors[i].qref_cnt).load() != 0))) {
      continue;
    }
    if (!queued) {
      queued = queuedFrames(driver, group);
      if (queued->empty()) {
        return;
      }
    }
    if (!(*queued)[i]) {
      returnFrame(state, group, descriptors[i], i);
    }
  }
}

}  // namespace tarnik::zorvik
