#include "policy/nap_map.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <cstdlib>

#include "base/log.h"
#include "base/paths.h"
#include "policy/tuning_file.h"

namespace tarnik {
namespace {

void addRule(const char* key, const char* value, NameMap::Names& uuids) {
  const char* const uuid = OrloMatchPrefix(key, "acl.rule.priority.");
  if (uuid == nullptr) {
    return;
  }
  // The value is not checked: text that is no number is 0, and -1 is the highest priority.
  const auto priority = static_cast<std::uint32_t>(std::strtol(value, nullptr, 10));
  uuids.insert_or_assign(priority, *uuid == '_' ? uuid + 1 : uuid);
}

bool readRules(const char* path, NameMap::Names& uuids) {
  constexpr char kName[] = "PopulateNapMap";
  const TuningOutcome outcome =
      readTuningFile(path, MalformedLines::kStop, [&uuids](const char* key, const char* value) {
        addRule(key, value, uuids);
        return true;
      });
  switch (outcome.status) {
    case TuningStatus::kCannotOpen:
      TARNIK_ERROR("Error: %s: Could not open config file: %s", kName, path);
      return false;
    case TuningStatus::kNoParser:
      TARNIK_FATAL("Fatal error: %s: tuning allocation failed", kName);
      endProcess();
    case TuningStatus::kReadError:
      TARNIK_ERROR("Error: %s: Failed to read: %s, errno=%d", kName, path, errno);
      return false;
    case TuningStatus::kMalformed:
      TARNIK_ERROR("Error: %s: Malformed tuning parameter at line %d", kName, outcome.line);
      return false;
    case TuningStatus::kEnd:
    case TuningStatus::kStopped:
      break;
  }
  return true;
}

}  // namespace

bool NapMap::PopulateNapMap(const char* path) {
  return uuids_.add([path](NameMap::Names& uuids) { return readRules(path, uuids); });
}

bool NapMap::Load() {
  return PopulateNapMap(kNapPolicyPath);
}

bool NapMap::Reload() {
  return uuids_.refill([](NameMap::Names& uuids) { return readRules(kNapPolicyPath, uuids); });
}

void NapMap::Dump() const {
  TARNIK_INFO("%s: NAP map", "Dump");
  for (const auto& [priority, uuid] : uuids_.copy()) {  // a copy: the log may block
    TARNIK_INFO("0x%x: %s", priority, uuid.c_str());
  }
}

}  // namespace tarnik
