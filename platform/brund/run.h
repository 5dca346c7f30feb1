// A whole run: makes group and queue, finds the daemon, feeds the frames of the input, writes the
// account, removes what it made.
#pragma once

#include "platform/brund/options.h"
#include "platform/brund/rules.h"

namespace tarnik::brund {

// Replays or sniffs, as options.action says. False, after lines on standard error that say what
// was wrong, when not all of the input was read and queued or refused by the rules of its mode.
[[nodiscard]] bool run(const Options& options, const RuleSet& rules);

}  // namespace tarnik::brund
