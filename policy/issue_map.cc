#include "policy/issue_map.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <cstdio>
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

// Puts one record into `names`. False when it has no number or no name.
bool addIssue(const CsvRecord* record, NameMap::Names& names) {
  std::uint32_t id = 0;
  const char* name = nullptr;
  if (!OrloCsvReadUInt(record, 0, &id) || !OrloCsvReadStr(record, 1, &name)) {
    return false;
  }
  names.insert_or_assign(id, name);
  return true;
}

bool readIssues(const char* path, NameMap::Names& names) {
  constexpr char kName[] = "PopulateIssueMap";
  TARNIK_DEBUG(0, "Debug: %s: %s", kName, path);
  const Stream stream = openForReading(path);
  if (!stream) {
    TARNIK_ERROR("Error: %s: Failed to open [%s]: %s", kName, path, strerror(errno));
    return false;
  }
  for (std::size_t line = 1;; ++line) {
    const Record record(CsvRecordRead(stream.get()));
    // The reader takes a read error for the end of the file, and the record may be cut short.
    const bool readError = std::ferror(stream.get()) != 0;
    if (readError || (record && !addIssue(record.get(), names))) {
      TARNIK_ERROR("Error: %s: Could not read [%s], line: %zu", kName, path, line);
      return false;
    }
    if (!record) {
      break;
    }
  }
  TARNIK_DEBUG(0, "Debug: %s: Read %zu issues", kName, names.size());
  return true;
}

}  // namespace

bool IssueMap::PopulateIssueMap(const char* path) {
  return names_.add([path](NameMap::Names& names) { return readIssues(path, names); });
}

bool IssueMap::Reload(const std::string& path) {
  return names_.refill([&path](NameMap::Names& names) { return readIssues(path.c_str(), names); });
}

}  // namespace tarnik
