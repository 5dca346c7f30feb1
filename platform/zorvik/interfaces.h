// What a group is told to do: its interfaces, its settings and its queue pairs. Nothing is
// captured from the interfaces; they are kept, and told to who asks. The caller holds the lock.
// Results: 0, or a negative errno as zorvik_layout.h says.
#pragma once

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Puts the description into force, whole or not at all.
[[nodiscard]] int configure(State& state, Group& group, const zorvik_ifg_config& wanted);

[[nodiscard]] int setQueuePair(Group& group, const zorvik_qpair_cfg& wanted);

}  // namespace tarnik::zorvik
