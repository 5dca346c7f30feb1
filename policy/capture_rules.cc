#include "policy/capture_rules.h"

#include <orlo_sdk.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "base/log.h"
#include "base/owned.h"
#include "policy/tuning_file.h"

namespace tarnik {
namespace {

// What in a response's value asks for packet capture.
constexpr char kMarker[] = "tarnik:";

constexpr const char* kResponsePrefixes[] = {"acl.rule.responses.", "ips.responses.object.",
                                             "ips.filter.responses."};

template <typename Visit>
bool readPolicy(const char* operation, const char* path, Visit visit) {
  const Stream stream = openForReading(path);
  if (!stream) {
    TARNIK_ERROR("Error: Failed to open: %s", path);
    return false;
  }
  const Tuning tuning(OrloTuningAlloc(stream.get()));
  if (!tuning) {
    TARNIK_FATAL("Fatal error: %s: Failed to allocate memory", operation);
    endProcess();
  }
  if (!readSettings(tuning.get(), visit)) {
    TARNIK_ERROR("Error: %s: Malformed tuning param (line=%d)", operation,
                 OrloTuningCurrLine(tuning.get()));
    return false;
  }
  return true;
}

// The reference in a response's key; null when the key is no response's.
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
    if (reference == nullptr || std::strstr(value, kMarker) == nullptr) {
      return;
    }
    TARNIK_DEBUG(0, "Debug: %s: Add %s", "getTarnikReferences", reference);
    references.emplace_back(reference);
  };
  if (!readPolicy("getTarnikReferences", path, visit)) {
    return false;
  }
  if (references.empty()) {
    TARNIK_DEBUG(3, "Debug: %s: No references found", "getTarnikReferences");
  }
  return true;
}

bool getTarnikRules(const char* path, const std::string& reference, Rules& rules) {
  TARNIK_DEBUG(3, "Debug: %s: %s", "getTarnikRules", path);
  return readPolicy("getTarnikRules", path, [&](const char* key, const char* value) {
    if (std::strstr(key, reference.c_str()) != nullptr) {
      rules.emplace_back(key, value);
    }
  });
}

RulesByReference::RulesByReference(const char* path, const References& references) : path_(path) {
  std::vector<std::string_view> sorted(references.begin(), references.end());
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  entries_.reserve(sorted.size());
  for (const std::string_view reference : sorted) {
    // Whatever an entry begins with is its predecessor or among the prefixes of that.
    std::size_t prefix = entries_.empty() ? kNone : entries_.size() - 1;
    while (prefix != kNone && !reference.starts_with(entries_[prefix].reference)) {
      prefix = entries_[prefix].prefix;
    }
    entries_.push_back({reference, prefix, {}});
  }
  window_ = sizeof(std::uint64_t);
  for (const Entry& entry : entries_) {
    window_ = std::min(window_, entry.reference.size());
  }
  begins_.resize(std::bit_ceil(16 * entries_.size() + 1024));
  for (const Entry& entry : entries_) {
    begins_[hash(entry.reference)] = true;
  }
}

std::size_t RulesByReference::hash(std::string_view text) const {
  std::uint64_t word = 0;
  std::memcpy(&word, text.data(), window_);
  const std::uint64_t mixed = word * 0x9e3779b97f4a7c15;
  return static_cast<std::size_t>(mixed >> 32) & (begins_.size() - 1);
}

bool RulesByReference::get(const std::string& reference, std::vector<RuleSpan>& rules) {
  TARNIK_DEBUG(3, "Debug: %s: %s", "getTarnikRules", path_);
  const bool whole = read_ || read();
  const auto entry = std::ranges::lower_bound(entries_, reference, {}, &Entry::reference);
  if (entry != entries_.end() && entry->reference == reference) {
    rules.emplace_back(entry->rules);
  }
  return whole;
}

bool RulesByReference::read() {
  read_ = readPolicy("getTarnikRules", path_,
                     [this](const char* key, const char* value) { add(key, value); });
  return read_;
}

// Finds every reference in the key. Where none can begin, as almost everywhere, the hash tells so.
// Elsewhere the order of the entries finds them: the references that a text begins with are all
// prefixes of the last entry that is not behind the text in the order, or that entry itself: what
// lies in the order between a prefix of the text and the text begins with that prefix, too.
void RulesByReference::add(std::string_view key, std::string_view value) {
  const Rule* rule = nullptr;
  for (std::string_view text = key; !text.empty() && text.size() >= window_;
       text.remove_prefix(1)) {
    if (!begins_[hash(text)]) {
      continue;
    }
    const auto behind = std::ranges::upper_bound(entries_, text, {}, &Entry::reference);
    auto at = static_cast<std::size_t>(behind - entries_.begin()) - 1;  // kNone before the first
    for (; at != kNone; at = entries_[at].prefix) {
      Entry& entry = entries_[at];
      if (!text.starts_with(entry.reference)) {
        continue;
      }
      if (rule == nullptr) {
        rule = &rules_.emplace_back(key, value);
      }
      if (entry.rules.empty() || entry.rules.back() != rule) {
        entry.rules.push_back(rule);
      }
    }
  }
}

}  // namespace tarnik
