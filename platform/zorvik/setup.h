// What an administrator does with the driver: loading, unloading, misbehaviour. Results: 0 or
// more, or a negative errno.
#pragma once

#include <span>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Buffers of one size that the driver is loaded with.
struct ClassSize {
  std::uint32_t bufSize;  // bytes, a multiple of 64, 64 to 65536
  std::uint32_t count;
};

inline constexpr ClassSize kDefaultClasses[] = {{2048, 8192}, {16384, 512}, {65536, 256}};

// Makes the driver's control node and the payload node. EEXIST when the driver is loaded; EINVAL
// unless there are 1 to kMaxClasses sizes, rising, that make up less than 4 GiB and at most
// kMaxFrames buffers; else the system's reason.
[[nodiscard]] int load(std::span<const ClassSize> classes);

// Removes every group and the driver's nodes. EBUSY while a process has a group in use (groups
// that nobody uses are gone then all the same), ENODEV when the driver is not loaded.
[[nodiscard]] int unload();

// Act on a queue as a faulty peer would: put `entry` on the ring (0: claim a slot and never fill
// it), claim the oldest entry and never empty it. The caller holds the lock. ENOSPC when the ring
// is full, ENODATA when it is empty.
[[nodiscard]] int putEntry(Driver& driver, Group& group, Queue& queue, std::uint64_t entry);
[[nodiscard]] int dieReading(Driver& driver, Group& group, Queue& queue);

}  // namespace tarnik::zorvik
