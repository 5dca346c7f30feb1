#include "policy/capture_rules.h"

#include <orlo_sdk.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "policy/tuning_file.h"

namespace tarnik {
namespace {

// A response's value that contains this asks for packet capture.
constexpr char kMarker[] = "tarnik:";

constexpr const char* kResponsePrefixes[] = {"acl.rule.responses.", "ips.responses.object.",
                                             "ips.filter.responses."};

bool readPolicy(const char* operation, const char* path, const TuningVisitor& visit) {
  const TuningOutcome outcome = readTuningFile(path, MalformedLines::kStop, visit);
  switch (outcome.status) {
    case TuningStatus::kCannotOpen:
      TARNIK_ERROR("Error: Failed to open: %s", path);
      return false;
    case TuningStatus::kNoParser:
      TARNIK_FATAL("Fatal error: %s: Failed to allocate memory", operation);
      endProcess();
    case TuningStatus::kReadError:
      TARNIK_ERROR("Error: %s: Failed to read: %s, errno=%d", operation, path, errno);
      return false;
    case TuningStatus::kMalformed:
      TARNIK_ERROR("Error: %s: Malformed tuning param (line=%d)", operation, outcome.line);
      return false;
    case TuningStatus::kEnd:
    case TuningStatus::kStopped:
      break;
  }
  return true;
}

// The reference in a response's key; null when the key is not that of a response.
const char* referenceOf(const char* key) {
  for (const char* prefix : kResponsePrefixes) {
    if (const char* reference = OrloMatchPrefix(key, prefix)) {
      return *reference == '_' ? reference + 1 : reference;
    }
  }
  return nullptr;
}

}  // namespace

bool getTarnikReferences(const char* path, References& references) {
  TARNIK_DEBUG(3, "Debug: %s: %s", "getTarnikReferences", path);
  const auto visit = [&references](const char* key, const char* value) {
    const char* reference = referenceOf(key);
    if (reference != nullptr && std::strstr(value, kMarker) != nullptr) {
      TARNIK_DEBUG(0, "Debug: %s: Add %s", "getTarnikReferences", reference);
      references.emplace_back(reference);
    }
    return true;
  };
  if (!readPolicy("getTarnikReferences", path, visit)) {
    return false;
  }
  if (references.empty()) {
    TARNIK_DEBUG(3, "Debug: %s: No references found", "getTarnikReferences");
  }
  return true;
}

CaptureRules::CaptureRules(const char* path, const References& references) : path_(path) {
  for (const std::string& reference : references) {
    byReference_.try_emplace(reference);
  }
}

bool CaptureRules::getTarnikRules(const std::string& reference, std::vector<RuleSpan>& rules) {
  TARNIK_DEBUG(3, "Debug: %s: %s", "getTarnikRules", path_);
  const bool complete = read_ || read();
  rules.emplace_back(byReference_.at(reference));
  return complete;
}

bool CaptureRules::read() {
  read_ = readPolicy("getTarnikRules", path_, [this](const char* key, const char* value) {
    add(key, value);
    return true;
  });
  return read_;
}

void CaptureRules::add(std::string_view key, std::string_view value) {
  const Rule* rule = nullptr;
  for (auto& [reference, rules] : byReference_) {
    if (key.find(reference) != std::string_view::npos) {
      if (rule == nullptr) {
        rule = &rules_.emplace_back(key, value);
      }
      rules.push_back(rule);
    }
  }
}

}  // namespace tarnik
