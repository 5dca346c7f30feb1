// Interface groups and their queues: made, removed, looked up. The caller holds the lock.
// Results: 0 or more, or a negative errno.
#pragma once

#include <string_view>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Makes the group with its directory and nodes; without frames and queues. EEXIST, EINVAL for a
// name that cannot be a node's, ENOSPC when there are kMaxGroups.
[[nodiscard]] int createGroup(Driver& driver, std::string_view name);

// Removes the group with its queues. ENOENT, EBUSY while a process has one of its nodes in use.
[[nodiscard]] int removeGroup(Driver& driver, std::string_view name);

// The queue's id. EEXIST, EINVAL for type, size or name, ENOSPC when there are kMaxQueues.
[[nodiscard]] int createQueue(Driver& driver, Group& group, std::string_view name,
                              std::uint32_t type, std::uint32_t size);

// Removes the queue and returns the frames that are on it. ENOENT, EBUSY while a process has it
// open.
[[nodiscard]] int removeQueue(Driver& driver, Group& group, std::uint32_t id);

[[nodiscard]] Group* findGroup(State& state, std::string_view name);
[[nodiscard]] Queue* findQueue(Group& group, std::string_view name);

// Finishes what the dead holder of the lock had begun.
void recover(State& state);

}  // namespace tarnik::zorvik
