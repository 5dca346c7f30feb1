// The daemon's statistics area, read from another process.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "base/result.h"

namespace tarnik::ctl {

inline constexpr std::size_t kCounters = 6;
using Counters = std::array<std::uint64_t, kCounters>;

// In the order of the area.
inline constexpr std::array<const char*, kCounters> kCounterNames = {
    "files_used_sum",  "disk_used_sum",  "frames_read",
    "frames_accepted", "frames_refused", "frames_invalid"};

struct Stats {
  std::chrono::steady_clock::time_point readAt;
  Counters counters{};
  std::int32_t ownerPid = 0;
  bool ownerAlive = false;
};

// Reads the area at `path`. The error has exit status kNoDaemon when there is no area.
[[nodiscard]] Result<Stats> readStats(const std::string& path);

// Each of these ends in a newline.
[[nodiscard]] std::string toText(const Stats& stats);
[[nodiscard]] std::string toJson(const Stats& stats);
// The text exposition format of Prometheus, version 0.0.4.
[[nodiscard]] std::string toPrometheus(const Stats& stats);
// The changes per second between two readings.
[[nodiscard]] std::string toRates(const Stats& before, const Stats& after);

}  // namespace tarnik::ctl
