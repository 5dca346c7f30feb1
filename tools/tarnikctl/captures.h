// Finished captures, as their PCAP and info files describe them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"

namespace tarnik::ctl {

struct Capture {
  std::string file;                       // name in its directory
  std::string trigger;                    // "ips NAME (ID)", "nap PRIORITY (UUID)" or "unknown"
  std::string flow;                       // the endpoints of the first frame
  std::string flowId;                     // from the info file; empty without one
  std::string ended;                      // "whole", or what is wrong with the files
  std::int64_t start = 0;                 // time of the first frame, in seconds since the epoch
  std::chrono::microseconds duration{0};  // from the first frame to the last
  std::uint64_t frames = 0;               // whole records
  std::uint64_t bytes = 0;                // of frame data
};

// Reads all files "*.pcap" of `directory`, sorted by name. A file that cannot be read is in the
// list too; `ended` has the reason.
[[nodiscard]] Result<std::vector<Capture>> readCaptures(const std::string& directory);

// A table for a terminal, and a JSON array. Each ends in a newline.
[[nodiscard]] std::string toTable(const std::vector<Capture>& captures);
[[nodiscard]] std::string toJson(const std::vector<Capture>& captures);

}  // namespace tarnik::ctl
