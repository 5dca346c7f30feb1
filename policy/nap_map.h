// NAP rule priorities and the rules' UUIDs, from the access-control policy "/etc/acl.conf".
// Thread safety: as NameMap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "policy/name_map.h"

namespace tarnik {

class NapMap {
 public:
  // Adds the file's "acl.rule.priority." settings to the map; of two rules with one priority the
  // later replaces the earlier. False, with a log line, when the file cannot be opened or read or a
  // line is malformed; the lines before it are kept. Ends the process with status 1 when the
  // platform has no parser.
  [[nodiscard]] bool PopulateNapMap(const char* path);
  // Populates from the sensor's policy file.
  [[nodiscard]] bool Load();
  // As Load, but discards what the map held before, also on failure.
  [[nodiscard]] bool Reload();
  // Copies the rule's UUID out and returns true, or returns false and leaves `uuid` alone.
  [[nodiscard]] bool LookupNapUuid(std::uint32_t priority, std::string& uuid) const {
    return uuids_.lookup(priority, uuid);
  }
  // Writes the map to the log. Any thread.
  void Dump() const;
  [[nodiscard]] std::size_t size() const { return uuids_.size(); }

 private:
  NameMap uuids_;
};

}  // namespace tarnik
