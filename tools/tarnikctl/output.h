// The output of tarnikctl: errors, text for a terminal, times.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"

namespace tarnik::ctl {

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoDaemon = 3 };

// Prints "tarnikctl: TEXT" as one line on standard error and returns `status`.
int printError(const std::string& text, int status);

// Flushes standard output. The error says that it could not be written.
[[nodiscard]] Result<> flushOutput();

// A copy of `text` for a terminal: each byte or character that is not printable UTF-8 becomes "?".
[[nodiscard]] std::string printable(std::string_view text);

// "2026-03-05 07:08:09" in UTC; "-" for 0.
[[nodiscard]] std::string utcTime(std::int64_t seconds);

}  // namespace tarnik::ctl
