// Finished captures: what their PCAP and info files tell.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnik::ctl {

struct Capture {
  std::string file;          // name in its directory
  std::string trigger;       // "ips NAME (ID)", "nap PRIORITY (UUID)" or "unknown"
  std::string flow;          // endpoints as the first frame shows them
  std::string flowId;        // as the info file gives it; empty without one
  std::string ended;         // "whole", or what is wrong with the files
  std::int64_t start = 0;    // seconds since the epoch, of the first frame
  double duration = 0;       // seconds from the first frame to the last
  std::uint64_t frames = 0;  // whole records
  std::uint64_t bytes = 0;   // of frame data
};

// Reads every file "*.pcap" of `directory`, in order of their names. False with errno when it
// cannot be listed; a file that cannot be read is listed with its reason in `ended`.
[[nodiscard]] bool readCaptures(const std::string& directory, std::vector<Capture>& captures);

[[nodiscard]] std::string toTable(const std::vector<Capture>& captures);
// One JSON array.
[[nodiscard]] std::string toJson(const std::vector<Capture>& captures);

}  // namespace tarnik::ctl
