// A whole run: opens queue, daemon and input, feeds the frames, writes the account.
#pragma once

#include "platform/brund/options.h"
#include "platform/brund/rules.h"

namespace tarnik::brund {

// Creates the queue when it is not there. False after a line on standard error.
[[nodiscard]] bool createQueue(const Options& options);

// Replays or sniffs, as options.action says. False, after lines on standard error that say what
// was wrong, when not all of the input was read and queued or refused by the rules of its mode.
[[nodiscard]] bool run(const Options& options, const RuleSet& rules);

}  // namespace tarnik::brund
