// Replays capture files: all of them form one input, in the order given.
#pragma once

#include "platform/brund/account.h"
#include "platform/brund/delivery.h"
#include "platform/brund/options.h"
#include "platform/brund/progress.h"
#include "platform/brund/rules.h"

namespace tarnik::brund {

// Reads the input once to know each flow's last frame, then plays it options.loops times. What
// cannot be read is a problem in the account; what was read before it is played. False when
// delivery failed or a signal came.
[[nodiscard]] bool replay(const Options& options, const RuleSet& rules, Delivery& delivery,
                          Account& account, Progress& progress);

}  // namespace tarnik::brund
