// Putting right what processes that died left in a queue. The caller holds the lock. Results: 0 or
// more, or a negative errno.
#pragma once

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Makes the ring whole again after a process died between claiming a slot and filling or emptying
// it: a slot that was claimed but not filled is taken out, a frame that was taken but not removed
// is returned. Nobody else may be using the queue. The number of slots put right.
[[nodiscard]] int repairQueue(Driver& driver, Group& group, Queue& queue);

// Frees the one slot at which the users of the queue are stuck because a process died there: fills
// it with an identifier that names no frame, or empties it. The slot must look the same for 200
// ms. 1 when there was such a slot, else 0.
[[nodiscard]] int unstickQueue(Driver& driver, Group& group, Queue& queue);

}  // namespace tarnik::zorvik
