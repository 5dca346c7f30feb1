#include "policy/info_template.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/owned.h"
#include "base/paths.h"
#include "policy/output_file.h"

namespace tarnik {
namespace {

// Stops at the first failure: writing on would leave a gap in the file.
void writeRules(std::FILE* stream, std::span<const RuleSpan> rules) {
  for (const RuleSpan span : rules) {
    for (const Rule* rule : span) {
      if (std::fprintf(stream, "%s=%s\n", rule->first.c_str(), rule->second.c_str()) < 0) {
        return;
      }
    }
  }
}

}  // namespace

bool writeInfoTemplate(const char* path, std::span<const RuleSpan> rules) {
  Stream stream = openForWriting(path, WriteMode::kReplace);
  if (!stream) {
    TARNIK_ERROR("Error: %s: Failed to open: %s, errno=%d", "writeInfoTemplate", path, errno);
    return false;
  }
  writeRules(stream.get(), rules);
  finishWriting("writeInfoTemplate", path, stream);
  return true;
}

bool createIpsInfoTemplate() {
  References references;
  if (!getTarnikReferences(kIpsPolicyPath, references)) {
    return false;
  }
  if (references.empty()) {
    return true;
  }
  CaptureRules captureRules(kIpsPolicyPath, references);
  std::vector<RuleSpan> rules;
  for (const std::string& reference : references) {
    if (!captureRules.getTarnikRules(reference, rules)) {
      return false;
    }
  }
  return writeInfoTemplate(kIpsTemplatePath, rules);
}

bool createNapInfoTemplates() {
  References references;
  if (!getTarnikReferences(kNapPolicyPath, references)) {
    return false;
  }
  CaptureRules captureRules(kNapPolicyPath, references);
  for (const std::string& reference : references) {
    std::vector<RuleSpan> rules;
    const std::string path = kNapTemplatePrefix + reference;
    if (!captureRules.getTarnikRules(reference, rules) || !writeInfoTemplate(path.c_str(), rules)) {
      return false;
    }
  }
  return true;
}

}  // namespace tarnik
