#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/owned.h"
#include "base/paths.h"
#include "policy/capture_info.h"
#include "policy/output_file.h"

namespace tarnik {
namespace {

// Stops at what cannot be written: more of it would leave a hole.
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
  Stream stream = openForWriting(path, O_TRUNC);
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
  RulesByReference byReference(kIpsPolicyPath, references);
  std::vector<RuleSpan> rules;
  for (const std::string& reference : references) {
    if (!byReference.get(reference, rules)) {
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
  RulesByReference byReference(kNapPolicyPath, references);
  for (const std::string& reference : references) {
    std::vector<RuleSpan> rules;
    const std::string path = kNapTemplatePrefix + reference;
    if (!byReference.get(reference, rules) || !writeInfoTemplate(path.c_str(), rules)) {
      return false;
    }
  }
  return true;
}

}  // namespace tarnik
