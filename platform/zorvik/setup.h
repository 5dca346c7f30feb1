// What zorvikctl does with the driver: load, unload, put faults on queues. Results: 0 or a
// negative errno.
#pragma once

#include <span>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// A size of buffers and how many the driver has of it.
struct ClassSize {
  std::uint32_t bufSize;  // bytes, a multiple of 64, 64 to 65536
  std::uint32_t count;
};

inline constexpr ClassSize kDefaultClasses[] = {{2048, 8192}, {16384, 512}, {65536, 256}};

// Creates the driver's control node and the payload node. EEXIST when the driver is loaded; EINVAL
// unless there are 1 to kMaxClasses rising sizes with less than 4 GiB and at most kMaxFrames
// buffers in all; otherwise the system's error.
[[nodiscard]] int load(std::span<const ClassSize> classes);

// Removes every group and the driver's nodes. ENODEV when the driver is not loaded, EBUSY while a
// process has a group in use (the other groups may be removed then).
[[nodiscard]] int unload();

// What a faulty peer does to a queue.
enum class QueueFault {
  kEntry,       // puts `entry` on the ring
  kDeadWriter,  // claims a slot and never fills it
  kDeadReader,  // claims the oldest entry and never empties its slot
};
// The caller holds the lock. ENOSPC when the ring is full, ENODATA when it is empty.
[[nodiscard]] int injectFault(Driver& driver, const Group& group, const Queue& queue,
                              QueueFault fault, std::uint64_t entry = 0);

}  // namespace tarnik::zorvik
