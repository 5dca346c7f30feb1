// The ".info" file that describes a finished capture.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace tarnik {

// In an info file a trigger identifier up to this one is a NAP rule priority, a larger one an IPS
// issue.
inline constexpr std::uint32_t kMaxNapPriority = 65535;

struct CaptureInfo {
  std::string infoPath;
  std::string capturePath;
  std::time_t startTime = 0;
  std::time_t endTime = 0;
  std::string timeFormat = "utc";
  std::uint32_t policyId = 0;
  std::string policyName;  // IPS issue name or NAP rule UUID
  std::int64_t flowId = 0;

  // Records the capture's final path and policy; the info path is the final path up to its first
  // ".pcap", followed by ".info".
  void set(const std::string& finalPath, std::uint32_t id, const std::string& name,
           std::int64_t flow);
};

// Writes the capture's info file: the template's lines, then times, policy and size. Sets
// info.endTime. False, with a log line, when the info file cannot be opened; a full disk cuts it
// short, with a log line. Called by the thread that closes the capture.
[[nodiscard]] bool fini(CaptureInfo& info);

}  // namespace tarnik
