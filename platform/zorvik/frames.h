// The frame pool: descriptors, which belong to a group, and buffers of a few sizes in the payload
// memory, which all groups share. A frame is one of each. The caller holds the lock.
//
// Results: 0 or more, or a negative errno.
#pragma once

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Gives the group a descriptor memory for `frames` frames. EEXIST when it has one,
// ENOSPC when the groups have 1048576 descriptors between them.
[[nodiscard]] int createFrameData(Driver& driver, Group& group, std::uint32_t frames);

// Takes up to `count` frames with room for `size` bytes, each with the smallest free buffer that
// holds them; their number. ENOBUFS when there is none, EMSGSIZE when no buffer is so large.
[[nodiscard]] int allocFrames(Driver& driver, Group& group, std::uint32_t size,
                              std::uint32_t* frameIds, std::uint32_t count);

// Gives a frame back. A frame that was written to several queues of types 4 and 5 has as many
// queue references; each call drops one and the last returns the frame. ENOENT when the frame is
// not allocated or the identifier is a stale one, EINVAL when no frame can have it.
[[nodiscard]] int freeFrame(Driver& driver, Group& group, std::uint32_t frameId);

// Returns every frame of the group that is on none of its queues; their number. For when no
// process has the group's frames open: they were held by processes that died.
int reclaimFrames(Driver& driver, Group& group);

// Returns every frame of a group that goes.
void releaseFrames(State& state, Group& group);

// The group's counters and what is free now.
[[nodiscard]] zorvik_ifg_stats frameStats(const State& state, const Group& group);

// Makes all free lists anew from the frame records, and puts the counters right by them.
void rebuildFreeLists(State& state);

}  // namespace tarnik::zorvik
