// NAP rule priorities and the rules' UUIDs, from the access-control policy "/etc/acl.conf".
//
// Thread safety: as IssueMap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace tarnik {

class NapMap {
 public:
  // Adds the file's "acl.rule.priority." settings to the map; of two rules with one priority the
  // later stays. False, with a log line, when the file cannot be opened or a line is malformed;
  // the lines before it are kept. Ends the process with status 1 when no parser can be had.
  [[nodiscard]] bool PopulateNapMap(const char* path);
  // Populates from the sensor's policy file.
  [[nodiscard]] bool Load();
  // As Load, but what the map held before goes, also on failure.
  [[nodiscard]] bool Reload();
  // Copies the rule's UUID out and returns true, or returns false and leaves `uuid` alone.
  [[nodiscard]] bool LookupNapUuid(std::uint32_t priority, std::string& uuid) const;
  // Writes the map to the log. Any thread.
  void Dump() const;
  [[nodiscard]] std::size_t size() const;

 private:
  using Uuids = std::map<std::uint32_t, std::string>;
  static bool populate(const char* path, Uuids& uuids);
  Uuids snapshot() const;
  void replace(Uuids& uuids);

  mutable std::mutex mutex_;  // guards uuids_
  Uuids uuids_;
};

}  // namespace tarnik
