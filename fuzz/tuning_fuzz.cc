// Reads the input as a policy file: the NAP map, the references and their rules, and the template
// written from them.
#include <algorithm>

#include "base/log.h"
#include "fuzz/input_file.h"
#include "policy/capture_rules.h"
#include "policy/info_template.h"
#include "policy/nap_map.h"

using namespace tarnik;

namespace {

// Every rule of a reference must contain it, and the template must be written.
void checkRules(const char* path, const References& references, bool good) {
  CaptureRules captureRules(path, references);
  std::vector<RuleSpan> rules;
  for (const std::string& reference : references) {
    const bool complete = captureRules.getTarnikRules(reference, rules);
    fuzz::require(complete == good, "all readers agree on a file");
    fuzz::require(std::ranges::all_of(rules.back(),
                                      [&](const Rule* rule) {
                                        return rule->first.find(reference) != std::string::npos;
                                      }),
                  "a rule's key contains its reference");
    if (!good) {
      return;
    }
    fuzz::require(!rules.back().empty(), "a reference's own setting is a rule");
  }
  fuzz::require(writeInfoTemplate("/dev/null", rules), "a template is written");
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
  checkRules(path, references, good);
  return 0;
}
