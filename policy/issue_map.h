// IPS issue identifiers and their names, from the analysis module's "issues.csv".
// Thread safety: as NameMap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "policy/name_map.h"

namespace tarnik {

class IssueMap {
 public:
  // Adds the file's records to the map; a later record replaces the name of an earlier one. False,
  // with a log line, when the file cannot be opened or a record cannot be read; the records
  // before it are kept.
  [[nodiscard]] bool PopulateIssueMap(const char* path);
  // As PopulateIssueMap, but discards what the map held before, also on failure.
  [[nodiscard]] bool Reload(const std::string& path);
  // Copies the issue's name out and returns true, or returns false and leaves `name` alone.
  [[nodiscard]] bool LookupIssueName(std::uint32_t id, std::string& name) const {
    return names_.lookup(id, name);
  }
  [[nodiscard]] std::size_t size() const { return names_.size(); }

 private:
  NameMap names_;
};

}  // namespace tarnik
