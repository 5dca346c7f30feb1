// IPS issue identifiers and their names, from the analysis module's "issues.csv".
//
// Thread safety: one thread, the main thread, fills the map; any thread looks up. A mutex guards
// it. A load fills a map aside and swaps it in, so that a look-up waits for no file and never
// meets a map that is half filled.
#pragma once

#include <cstddef>
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
  // As PopulateIssueMap, but what the map held before goes, also on failure.
  [[nodiscard]] bool Reload(const std::string& path);
  // Copies the issue's name out and returns true, or returns false and leaves `name` alone.
  [[nodiscard]] bool LookupIssueName(std::uint32_t id, std::string& name) const;
  [[nodiscard]] std::size_t size() const;

 private:
  using Names = std::map<std::uint32_t, std::string>;
  static bool populate(const char* path, Names& names);
  Names snapshot() const;
  void replace(Names& names);

  mutable std::mutex mutex_;  // guards names_
  Names names_;
};

}  // namespace tarnik
