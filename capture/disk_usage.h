// How much of the capture directory is used: the bytes of all its entries, "." and ".." included,
// and the number of entries whose name holds ".pcap". Links are followed, subdirectories are not
// descended into.
#pragma once

#include <cstdint>

#include "capture/usage_ledger.h"

namespace tarnik {

// The measurement itself: lists the directory and asks for every entry's status. An entry that has
// none counts nowhere and gets a warning. A directory that cannot be opened is an error and leaves
// both counters as they were. Any thread.
void scanDiskUsage(std::uint64_t& diskUsed, std::uint64_t& filesUsed);

// The same measurement, repeated after every frame at a cost that does not grow with the number
// of files. Not thread-safe.
class DiskUsage {
 public:
  // Sets the counters to what scanDiskUsage would set them to at this moment, and logs what it
  // would log. Scans where no ledger can be kept.
  void update(std::uint64_t& diskUsed, std::uint64_t& filesUsed);

 private:
  UsageLedger ledger_;
};

}  // namespace tarnik
