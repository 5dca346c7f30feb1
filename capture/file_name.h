// The final names of capture files: UTC time, trigger and a sequence number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace tarnik {

enum class TriggerClass { kIpsIssue, kNapRule, kUnknown };

// 1 to 65534 is the priority of a NAP rule; 0 and 65535 are unknown; all else is an IPS issue.
[[nodiscard]] TriggerClass classifyTrigger(std::int32_t triggerId);

// A longer path is truncated, also within its extension.
inline constexpr std::size_t kMaxCapturePath = 254;

// The full path of a capture file. The names of IPS captures contain `issueName` unchanged; other
// names do not.
[[nodiscard]] std::string captureFileName(const std::tm& utc, std::int32_t triggerId,
                                          const std::string& issueName, std::uint64_t sequence);

}  // namespace tarnik
