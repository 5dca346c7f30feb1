// The daemon's statistics area, as any other process reads it.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "tools/tarnikctl/output.h"

namespace tarnik::ctl {

inline constexpr std::size_t kCounters = 6;
using Counters = std::array<std::uint64_t, kCounters>;

// Names in the order of the area.
inline constexpr std::array<const char*, kCounters> kCounterNames = {
    "files_used_sum",  "disk_used_sum",  "frames_read",
    "frames_accepted", "frames_refused", "frames_invalid"};

struct Stats {
  std::chrono::steady_clock::time_point readAt;
  Counters counters{};
  std::int32_t ownerPid = 0;
  bool ownerAlive = false;
};

// Reads the area at `path`. An exit status: kNoDaemon when there is no area, kFailed when it cannot
// be read; it has complained when that is not kDone.
[[nodiscard]] ExitStatus readStats(const std::string& path, Stats& stats);

[[nodiscard]] std::string toText(const Stats& stats);
[[nodiscard]] std::string toJson(const Stats& stats);
// The text exposition format of Prometheus, version 0.0.4.
[[nodiscard]] std::string toPrometheus(const Stats& stats);
// What was counted between two readings, by the second.
[[nodiscard]] std::string toRates(const Stats& before, const Stats& after);

}  // namespace tarnik::ctl
