// The rules of a policy file that ask for packet capture. A response asks for it when its value
// holds "tarnik:"; the key then ends in a reference (a response's name or a rule's UUID), and
// every setting whose key mentions that reference belongs to the rule.
//
// Main thread. Whatever reads a file here returns false, with a log line, when the file cannot be
// opened or a line is malformed (what was found before it is kept), and ends the process with
// status 1 when no parser can be had.
#pragma once

#include <cstddef>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnik {

using References = std::vector<std::string>;
using Rule = std::pair<std::string, std::string>;  // key, value
using Rules = std::vector<Rule>;
// Rules that somebody else keeps.
using RuleSpan = std::span<const Rule* const>;

// Appends the file's references in their order, duplicates kept.
[[nodiscard]] bool getTarnikReferences(const char* path, References& references);

// Appends every setting whose key holds `reference`.
[[nodiscard]] bool getTarnikRules(const char* path, const std::string& reference, Rules& rules);

// getTarnikRules for many references of one file, with the same results and log lines, but from a
// single read: with hundreds of references in a large policy, a read for each would keep the main
// thread busy for longer than the watchdog allows. Keeps each rule once, however many references
// it mentions and however often they repeat.
class RulesByReference {
 public:
  // Both arguments are borrowed.
  RulesByReference(const char* path, const References& references);

  // As getTarnikRules for `reference`, one of those given; appends its rules as one span, which
  // lives as long as this object. The first call reads the file; when it fails, it has to be the
  // last.
  [[nodiscard]] bool get(const std::string& reference, std::vector<RuleSpan>& rules);

 private:
  struct Entry {
    std::string_view reference;
    std::size_t prefix;              // the longest other entry that this one begins with, or kNone
    std::vector<const Rule*> rules;  // those of rules_ that mention it, in file order
  };
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  bool read();
  void add(std::string_view key, std::string_view value);
  [[nodiscard]] std::size_t hash(std::string_view text) const;

  const char* path_;
  std::vector<Entry> entries_;  // ordered by reference, each once
  std::size_t window_ = 0;      // bytes of a reference's beginning that are hashed
  std::vector<bool> begins_;    // whether a reference begins with bytes of this hash
  std::deque<Rule> rules_;      // whose keys mention a reference; they stay where they are
  bool read_ = false;
};

}  // namespace tarnik
