// The rules of one reference, copied.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "policy/capture_rules.h"

namespace tarnik::test {

inline Rules copied(const std::vector<RuleSpan>& spans) {
  Rules rules;
  for (const RuleSpan span : spans) {
    for (const Rule* rule : span) {
      rules.push_back(*rule);
    }
  }
  return rules;
}

enum class Reading { kSucceeds, kFails };

// Reads the file and expects that to succeed or fail.
inline Rules rulesOf(const std::string& path, const std::string& reference,
                     Reading expected = Reading::kSucceeds) {
  const References references = {reference};
  CaptureRules captureRules(path.c_str(), references);
  std::vector<RuleSpan> spans;
  EXPECT_EQ(captureRules.getTarnikRules(reference, spans), expected == Reading::kSucceeds);
  return copied(spans);
}

}  // namespace tarnik::test
