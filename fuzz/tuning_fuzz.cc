// The tuning parser under all that reads policy files: the NAP map, references, rules, and the
// rules of many references from one read, which must find what a read for each finds.
#include <algorithm>

#include "base/log.h"
#include "fuzz/input_file.h"
#include "policy/capture_info.h"
#include "policy/capture_rules.h"
#include "policy/nap_map.h"

using namespace tarnik;

namespace {

constexpr std::size_t kReferencesTried = 12;  // each costs a read

void compareRules(const char* path, const References& references) {
  RulesByReference byReference(path, references);
  for (const std::string& reference : references) {
    Rules expected;
    std::vector<RuleSpan> found;
    fuzz::require(getTarnikRules(path, reference, expected), "a good file stays good");
    fuzz::require(byReference.get(reference, found), "a good file is good in one read");
    fuzz::require(found.size() == 1 && std::ranges::equal(found[0], expected, {},
                                                          [](const Rule* rule) { return *rule; }),
                  "one read finds what a read for each reference finds");
    fuzz::require(writeInfoTemplate("/dev/null", found), "a template is written");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  setDebugLevel(4);
  const char* path = fuzz::inputFile(data, size);
  NapMap map;
  const bool good = map.PopulateNapMap(path);
  map.Dump();
  References references;
  fuzz::require(getTarnikReferences(path, references) == good, "all readers agree on a file");
  for (const std::string& reference : references) {
    fuzz::require(reference.find_first_of("\n =#\"") == std::string::npos, "a reference is a word");
  }
  references.resize(std::min(references.size(), kReferencesTried));
  if (good) {
    compareRules(path, references);
  } else {
    Rules rules;
    fuzz::require(!getTarnikRules(path, "a", rules), "a malformed file stays malformed");
  }
  return 0;
}
