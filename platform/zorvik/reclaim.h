// Frames of processes that died. The caller holds the lock.
#pragma once

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// The number of this process as the owner of frames that it allocates, see Driver::process().
[[nodiscard]] std::uint8_t ownerNumber(Driver& driver);

// Frees the frames of processes that died, except those on a queue.
enum class Reclaim {
  // Of the frames that dead processes allocated, those without a queue reference: a living process
  // may have read a frame with one from a queue, and will free it. None while the group has queues
  // of types other than 4 and 5, because those do not count references.
  kOfDead,
  kAll,  // no process has the group open
};
void reclaimFrames(Driver& driver, Group& group, Reclaim which);

}  // namespace tarnik::zorvik
