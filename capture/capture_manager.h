// Turns the stream of frames into one PCAP file a capture, within the limits on disk space, number
// of files and size of a file.
//
// Thread safety: the capture thread consumes frames, expires and closes writers. The main thread
// calls Init before that thread exists, and Reload while it runs: limits and maps are guarded, and
// no guard is held across a write to a file.
#pragma once

#include <cstdint>
#include <string>

namespace tarnik {

class CaptureManager {
 public:
  static CaptureManager& instance();

  // Loads the NAP map and the issue map and takes the limits: maxTimeout and eventInterval in
  // seconds, diskSpace and maxFileSize in bytes. 0, or 7 (NAP map) or 8 (issue map) when a map
  // could not be loaded; the limits are then as before.
  int Init(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
           std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
           std::uint32_t eventThreshold);
  // The same while frames flow. Open writers keep their size limit.
  int Reload(const std::string& issuesPath, std::int64_t maxTimeout, std::uint64_t diskSpace,
             std::uint64_t fileCount, std::int64_t maxFileSize, std::int64_t eventInterval,
             std::uint32_t eventThreshold);
};

}  // namespace tarnik
