// Info templates, made from the policy at start and on reload, and the ".info" file that
// describes a finished capture.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>

#include "policy/capture_rules.h"

namespace tarnik {

// Trigger identifiers up to this one are NAP rule priorities in info files, above it IPS issues.
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
  // ".pcap", with ".info" behind it.
  void set(const std::string& finalPath, std::uint32_t id, const std::string& name,
           std::int64_t flow);
};

// Writes the rules of all spans as "key=value" lines, replacing the file. False, with a log line,
// when it cannot be opened. A full disk cuts the file short, with a log line.
[[nodiscard]] bool writeInfoTemplate(const char* path, std::span<const RuleSpan> rules);

// Main thread. Write the template of all IPS captures, and one template for each NAP rule that
// asks for capture; without such rules nothing is written, which is success.
[[nodiscard]] bool createIpsInfoTemplate();
[[nodiscard]] bool createNapInfoTemplates();

// Writes the capture's info file: the template's lines, then times, policy and size. Sets
// info.endTime. False, with a log line, when the info file cannot be opened; a full disk cuts it
// short, with a log line. The thread that closes the capture.
[[nodiscard]] bool fini(CaptureInfo& info);

}  // namespace tarnik
