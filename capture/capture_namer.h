// Gives captures their final names, from the current time, the trigger and a sequence number.
//
// Thread safety: the main thread loads the two maps, which guard themselves. The capture thread
// calls everything else. restart is called before the capture thread exists.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "capture/pcap_writer.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"

namespace tarnik {

class CaptureNamer {
 public:
  // Whether an open capture has this path as its final name.
  using IsReserved = std::function<bool(const std::string& path)>;

  IssueMap& issueMap() { return issueMap_; }
  NapMap& napMap() { return napMap_; }

  // Makes the current second begin with the sequence number 1.
  void restart();

  // Names the writer's file. Skips the names of existing files and of open captures. A name that is
  // truncated before its sequence number may have no free alternative; the writer then gets a taken
  // name, and its Close keeps the working file instead of replacing another one. Logs a line and
  // returns false when the issue or rule is unknown. May throw std::bad_alloc; the writer then has
  // no name.
  [[nodiscard]] bool UpdateWriter(PcapWriter& writer, std::int32_t triggerId, std::uint64_t flowId,
                                  const IsReserved& isReserved);

 private:
  [[nodiscard]] bool LookupIssueName(std::int32_t issueId, std::string& name) const;
  [[nodiscard]] bool LookupNapUuid(std::int32_t priority, std::string& uuid) const;
  void nextSequence(std::time_t now);
  [[nodiscard]] std::string choosePath(const std::tm& utc, std::int32_t triggerId,
                                       const std::string& issueName, const IsReserved& isReserved);

  IssueMap issueMap_;
  NapMap napMap_;
  std::time_t nameTime_ = 0;        // second of the last name
  std::uint64_t nameSeq_ = 0;       // sequence number of the last name within that second
  std::time_t latestNameTime_ = 0;  // latest second of all names
  bool secondRepeats_ = false;      // the clock was set back: nameTime_ may have had names before
};

}  // namespace tarnik
