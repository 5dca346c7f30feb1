// The final names of capture files: UTC time, what triggered the capture, and a sequence number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace tarnik {

enum class TriggerClass { kIpsIssue, kNapRule, kUnknown };

// 1 to 65534 is the priority of a NAP rule, 0 and 65535 say nothing, all else is an IPS issue.
[[nodiscard]] TriggerClass classifyTrigger(std::int32_t triggerId);

// A longer path is cut, whatever its end.
inline constexpr std::size_t kMaxCapturePath = 254;

// The full path of a capture file. `issueName` goes into the names of IPS captures as it stands
// and is not looked at for others.
[[nodiscard]] std::string captureFileName(const std::tm& utc, std::int32_t triggerId,
                                          const std::string& issueName, std::uint64_t sequence);

}  // namespace tarnik
