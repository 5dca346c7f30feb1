#include "policy/issue_map.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "base/owned.h"

namespace tarnik {
namespace {

struct RecordDestroyer {
  void operator()(CsvRecord* record) const noexcept { CsvRecordDestroy(record); }
};
using Record = std::unique_ptr<CsvRecord, RecordDestroyer>;

}  // namespace

bool IssueMap::populate(const char* path, Names& names) {
  TARNIK_DEBUG(0, "Debug: %s: %s", "PopulateIssueMap", path);
  const Stream stream = openForReading(path);
  if (!stream) {
    TARNIK_ERROR("Error: %s: Failed to open [%s]: %s", "PopulateIssueMap", path, strerror(errno));
    return false;
  }
  std::size_t line = 0;
  while (const Record record{CsvRecordRead(stream.get())}) {
    ++line;
    std::uint32_t id = 0;
    const char* name = nullptr;
    if (!OrloCsvReadUInt(record.get(), 0, &id) || !OrloCsvReadStr(record.get(), 1, &name)) {
      TARNIK_ERROR("Error: %s: Could not read [%s], line: %zu", "PopulateIssueMap", path, line);
      return false;
    }
    names.insert_or_assign(id, name);
  }
  TARNIK_DEBUG(0, "Debug: %s: Read %zu issues", "PopulateIssueMap", names.size());
  return true;
}

bool IssueMap::PopulateIssueMap(const char* path) {
  // Only this thread changes the map, so it is still the one copied here when it is replaced.
  Names names = snapshot();
  const bool whole = populate(path, names);
  replace(names);
  return whole;
}

bool IssueMap::Reload(const std::string& path) {
  Names names;
  const bool whole = populate(path.c_str(), names);
  replace(names);
  return whole;
}

bool IssueMap::LookupIssueName(std::uint32_t id, std::string& name) const {
  const std::lock_guard guard(mutex_);
  const auto found = names_.find(id);
  if (found == names_.end()) {
    return false;
  }
  name = found->second;
  return true;
}

std::size_t IssueMap::size() const {
  const std::lock_guard guard(mutex_);
  return names_.size();
}

IssueMap::Names IssueMap::snapshot() const {
  const std::lock_guard guard(mutex_);
  return names_;
}

void IssueMap::replace(Names& names) {
  const std::lock_guard guard(mutex_);
  names_.swap(names);  // the caller frees the old names, when the guard is gone
}

}  // namespace tarnik
