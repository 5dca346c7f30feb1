// The frame pool. A frame is a descriptor, which belongs to a group, and a buffer in the payload
// memory, which all groups share. The rest of the driver uses the pool through these functions
// only. The caller holds the lock. Results: 0 or more, or a negative errno.
#pragma once

#include <span>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Creates the descriptor memory of the group. EEXIST when it has one, EINVAL for 0 frames or more
// than kMaxFrames.
[[nodiscard]] int createFrameData(Driver& driver, Group& group, std::uint32_t frames);

// Allocates frames with room for `size` bytes for the process `owner`, each with the smallest free
// buffer that is large enough, until `frameIds` is full or the pool has no more; returns their
// number. ENOBUFS when there is none, EMSGSIZE when no buffer is that large.
[[nodiscard]] int allocFrames(Driver& driver, Group& group, std::uint32_t size,
                              std::span<std::uint32_t> frameIds, std::uint8_t owner);

// Frees a frame. A frame that was written to several queues of types 4 and 5 has as many queue
// references: each call drops one and the last call frees the frame. ENOENT when the frame is not
// allocated or the identifier is an old one, EINVAL when the group has no such frame.
[[nodiscard]] int freeFrame(Driver& driver, Group& group, std::uint32_t frameId);

// Frees an allocated frame whatever its queue references are.
void returnFrame(State& state, Group& group, zorvik_frm_desc& descriptor, std::uint32_t index);

// Frees all buffers of a group that is being removed.
void releaseFrames(State& state, Group& group);

[[nodiscard]] zorvik_ifg_stats frameStats(const State& state, const Group& group);

// Builds the free lists from the records of the frames.
void rebuildFreeLists(State& state);

}  // namespace tarnik::zorvik
