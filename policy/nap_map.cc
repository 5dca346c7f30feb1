#include "policy/nap_map.h"

#include <orlo_sdk.h>

#include <cstdlib>

#include "base/log.h"
#include "base/owned.h"
#include "base/paths.h"
#include "policy/tuning_file.h"

namespace tarnik {

bool NapMap::populate(const char* path, Uuids& uuids) {
  const Stream stream = openForReading(path);
  if (!stream) {
    TARNIK_ERROR("Error: %s: Could not open config file: %s", "PopulateNapMap", path);
    return false;
  }
  const Tuning tuning(OrloTuningAlloc(stream.get()));
  if (!tuning) {
    TARNIK_FATAL("Fatal error: %s: tuning allocation failed", "PopulateNapMap");
    endProcess();
  }
  const bool whole = readSettings(tuning.get(), [&uuids](const char* key, const char* value) {
    // No check, as in all policy files: what is no number is 0, and -1 is the highest priority.
    const auto priority = static_cast<std::uint32_t>(std::strtol(value, nullptr, 10));
    const char* uuid = OrloMatchPrefix(key, "acl.rule.priority.");
    if (uuid == nullptr) {
      return;
    }
    uuids.insert_or_assign(priority, *uuid == '_' ? uuid + 1 : uuid);
  });
  if (!whole) {
    TARNIK_ERROR("Error: %s: Malformed tuning parameter at line %d", "PopulateNapMap",
                 OrloTuningCurrLine(tuning.get()));
  }
  return whole;
}

bool NapMap::PopulateNapMap(const char* path) {
  // Only this thread changes the map, so it is still the one copied here when it is replaced.
  Uuids uuids = snapshot();
  const bool whole = populate(path, uuids);
  replace(uuids);
  return whole;
}

bool NapMap::Load() {
  return PopulateNapMap(kNapPolicyPath);
}

bool NapMap::Reload() {
  Uuids uuids;
  const bool whole = populate(kNapPolicyPath, uuids);
  replace(uuids);
  return whole;
}

bool NapMap::LookupNapUuid(std::uint32_t priority, std::string& uuid) const {
  const std::lock_guard guard(mutex_);
  const auto found = uuids_.find(priority);
  if (found == uuids_.end()) {
    return false;
  }
  uuid = found->second;
  return true;
}

void NapMap::Dump() const {
  const Uuids uuids = snapshot();  // the log may block, so not under the guard
  TARNIK_INFO("%s: NAP map", "Dump");
  for (const auto& [priority, uuid] : uuids) {
    TARNIK_INFO("0x%x: %s", priority, uuid.c_str());
  }
}

std::size_t NapMap::size() const {
  const std::lock_guard guard(mutex_);
  return uuids_.size();
}

NapMap::Uuids NapMap::snapshot() const {
  const std::lock_guard guard(mutex_);
  return uuids_;
}

void NapMap::replace(Uuids& uuids) {
  const std::lock_guard guard(mutex_);
  uuids_.swap(uuids);  // the caller frees the old ones, when the guard is gone
}

}  // namespace tarnik
