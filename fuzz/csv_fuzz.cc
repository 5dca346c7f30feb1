// Reads the input as CSV and as an issue map.
#include <orlo_sdk.h>

#include "base/log.h"
#include "base/owned.h"
#include "fuzz/input_file.h"
#include "policy/issue_map.h"

using namespace tarnik;

namespace {

// Reads every column of every record as a number and as a text.
void readColumns(const char* path) {
  const Stream stream = openForReading(path);
  fuzz::require(stream != nullptr, "the input file can be opened");
  while (CsvRecord* record = CsvRecordRead(stream.get())) {
    const char* text = nullptr;
    std::size_t bytes = 0;
    std::uint32_t number = 0;
    std::size_t column = 0;
    for (; OrloCsvReadStr(record, column, &text); ++column) {
      bytes += std::string(text).size();
      (void)OrloCsvReadUInt(record, column, &number);
    }
    fuzz::require(!OrloCsvReadUInt(record, column, &number), "no number where there is no text");
    fuzz::require(bytes <= 16u << 20, "a record is bounded");
    CsvRecordDestroy(record);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  setDebugLevel(4);
  const char* path = fuzz::inputFile(data, size);
  readColumns(path);
  IssueMap map;
  const bool good = map.PopulateIssueMap(path);
  const std::size_t issues = map.size();
  fuzz::require(map.Reload(path) == good && map.size() == issues, "a reload is a load");
  fuzz::require(map.PopulateIssueMap(path) == good && map.size() == issues,
                "what is loaded twice is there once");
  std::string name = "before";
  fuzz::require(map.LookupIssueName(65536, name) || name == "before", "a miss changes no name");
  return 0;
}
