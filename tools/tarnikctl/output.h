// What tarnikctl prints and how it ends.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnik::ctl {

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoDaemon = 3 };

// Prints "tarnikctl: ..." on one line of standard error, whatever the arguments hold, and returns
// `status`.
[[gnu::format(printf, 2, 3)]] int complain(ExitStatus status, const char* format, ...);

// Writes out what was printed: kDone, or kFailed with a complaint.
[[nodiscard]] int flushOutput();

// `text` as a JSON string, quotes included. Bytes that are no UTF-8 are taken for Latin-1, so the
// result is valid whatever a file name holds.
[[nodiscard]] std::string jsonString(std::string_view text);

// `text` for a terminal: what is no printable character of UTF-8 becomes "?".
[[nodiscard]] std::string printable(std::string_view text);

// "2026-03-05 07:08:09" in UTC; "-" for 0.
[[nodiscard]] std::string utcTime(std::int64_t seconds);

}  // namespace tarnik::ctl
