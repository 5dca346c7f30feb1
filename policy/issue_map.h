// IPS issue identifiers and their names, from the analysis module's "issues.csv".
//
// Thread safety: filled on the main thread, looked up on the capture thread; a mutex guards the
// map. A reload fills a map of its own and swaps it in, so that a look-up never meets one that is
// half filled, and no guard is held while a file is read.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace tarnik {

class IssueMap {
 public:
  // Adds the file's records to the map; a later record replaces the name of an earlier one. False,
  // with a log line, when the file cannot be opened or a record cannot be read; the records
  // before it are kept.
  [[nodiscard]] bool PopulateIssueMap(const char* path);
  // Empties the map, then populates it.
  [[nodiscard]] bool Reload(const std::string& path);
  // Copies the issue's name out and returns true, or returns false and leaves `name` alone.
  [[nodiscard]] bool LookupIssueName(std::uint32_t id, std::string& name) const;
  [[nodiscard]] std::size_t size() const;

 private:
  using Names = std::map<std::uint32_t, std::string>;
  static bool populate(const char* path, Names& names);

  mutable std::mutex mutex_;  // guards names_
  Names names_;
};

}  // namespace tarnik
