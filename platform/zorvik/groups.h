// Creating, removing and finding interface groups and their queues. The caller holds the lock.
// Results: 0 or more, or a negative errno.
#pragma once

#include <string_view>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Creates the group with its directory and nodes, without frames and queues. EEXIST, EINVAL or
// ENAMETOOLONG for a name that no node can have, ENOSPC when there are kMaxGroups.
[[nodiscard]] int createGroup(Driver& driver, std::string_view name);

// Removes the group with its queues. ENOENT, EBUSY while a process has one of its nodes in use.
[[nodiscard]] int removeGroup(Driver& driver, std::string_view name);

// Returns the queue's id. EEXIST, EINVAL for type, size or name, ENAMETOOLONG, ENOSPC when there
// are kMaxQueues.
[[nodiscard]] int createQueue(Driver& driver, Group& group, std::string_view name,
                              std::uint32_t type, std::uint32_t size);

// Removes the queue and frees the frames on it. ENOENT, EBUSY while a process has it in use.
[[nodiscard]] int removeQueue(Driver& driver, Group& group, std::uint32_t id);

// Makes the ring of a queue that no process has open consistent again after a process died between
// claiming a slot and filling or emptying it: removes the slots that were claimed but not filled,
// and frees the frames that were claimed but not removed.
void repairQueue(Driver& driver, Group& group, const Queue& queue);

[[nodiscard]] Group* findGroup(State& state, std::string_view name);
[[nodiscard]] Queue* findQueue(Group& group, std::string_view name);

// Completes or undoes what a process was changing when it died with the lock.
void recover(State& state);

}  // namespace tarnik::zorvik
