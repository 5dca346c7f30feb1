// Sniffs an interface.
#pragma once

#include "platform/brund/account.h"
#include "platform/brund/delivery.h"
#include "platform/brund/options.h"
#include "platform/brund/progress.h"
#include "platform/brund/rules.h"
#include "platform/brund/source.h"

namespace tarnik::brund {

// Sniffs until options.seconds have passed or a signal comes. False when the interface or the
// queue failed, which then is a problem in the account.
[[nodiscard]] bool sniff(const Options& options, LiveSource& source, const RuleSet& rules,
                         Delivery& delivery, Account& account, Progress& progress);

}  // namespace tarnik::brund
