#include "capture/capture_namer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/log.h"
#include "capture/file_name.h"

namespace tarnik {

void CaptureNamer::restart() {
  nameTime_ = std::time(nullptr);
  nameSeq_ = 0;
  latestNameTime_ = std::max(nameTime_, latestNameTime_);
}

bool CaptureNamer::UpdateWriter(PcapWriter& writer, std::int32_t triggerId, std::uint64_t flowId,
                                const IsReserved& isReserved) {
  TARNIK_DEBUG(3, "Debug: %s: triggerId=%d", "UpdateWriter", triggerId);
  const std::time_t now = std::time(nullptr);
  nextSequence(now);
  std::tm utc{};
  if (::gmtime_r(&now, &utc) == nullptr) {
    TARNIK_ERROR("Error: %s: Failed to get timestamp: %d", "UpdateWriter", errno);
    return false;
  }
  std::string policyName;  // an issue's name, a rule's UUID, or nothing
  switch (classifyTrigger(triggerId)) {
    case TriggerClass::kIpsIssue:
      if (!LookupIssueName(triggerId, policyName)) {
        return false;
      }
      break;
    case TriggerClass::kNapRule:
      if (!LookupNapUuid(triggerId, policyName)) {
        return false;
      }
      break;
    case TriggerClass::kUnknown:
      break;
  }
  const std::string path = choosePath(utc, triggerId, policyName, isReserved);
  TARNIK_DEBUG(0, "Debug: %s: %s", "UpdateWriter", path.c_str());
  writer.Update(path, static_cast<std::uint32_t>(triggerId), policyName,
                static_cast<std::int64_t>(flowId));
  return true;
}

bool CaptureNamer::LookupIssueName(std::int32_t issueId, std::string& name) const {
  const auto id = static_cast<std::uint32_t>(issueId);
  TARNIK_DEBUG(3, "Debug: %s: issueId=0x%x", "LookupIssueName", id);
  if (!issueMap_.LookupIssueName(id, name)) {
    TARNIK_DEBUG(0, "Debug: %s: No UUID for issueId %d", "LookupIssueName", issueId);
    TARNIK_ERROR("Error: %s: Failed issue name lookup: 0x%x", "UpdateWriter", id);
    return false;
  }
  TARNIK_DEBUG(0, "Debug: %s: %d=%s ", "LookupIssueName", issueId, name.c_str());
  return true;
}

bool CaptureNamer::LookupNapUuid(std::int32_t priority, std::string& uuid) const {
  const auto id = static_cast<std::uint32_t>(priority);
  TARNIK_DEBUG(3, "Debug: %s: rulePriority=0x%x", "LookupNapUuid", id);
  if (!napMap_.LookupNapUuid(id, uuid)) {
    TARNIK_DEBUG(0, "Debug: %s: No UUID for NAP rule %d", "LookupNapUuid", priority);
    TARNIK_ERROR("Error: %s: Failed nap name lookup: 0x%x", "UpdateWriter", id);
    return false;
  }
  TARNIK_DEBUG(0, "Debug: %s: %d=%s ", "LookupNapUuid", priority, uuid.c_str());
  return true;
}

void CaptureNamer::nextSequence(std::time_t now) {
  if (now == nameTime_) {
    ++nameSeq_;
    return;
  }
  nameTime_ = now;
  nameSeq_ = 0;
  secondRepeats_ = now <= latestNameTime_;
  latestNameTime_ = std::max(now, latestNameTime_);
}

// The first name from nameSeq_ on that is free. Skipping a name uses up its number.
std::string CaptureNamer::choosePath(const std::tm& utc, std::int32_t triggerId,
                                     const std::string& issueName, const IsReserved& isReserved) {
  // The names of open captures are not in the directory yet. The sequence distinguishes them unless
  // the clock was set back.
  const auto isTaken = [&](const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 || (secondRepeats_ && isReserved(path));
  };
  std::string path = captureFileName(utc, triggerId, issueName, nameSeq_);
  while (isTaken(path)) {
    std::string next = captureFileName(utc, triggerId, issueName, nameSeq_ + 1);
    if (next == path) {
      break;  // truncated before the number, so no number helps
    }
    ++nameSeq_;
    path = std::move(next);
  }
  return path;
}

}  // namespace tarnik
