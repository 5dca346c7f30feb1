// The rules of a policy file that ask for packet capture. A response asks for it when its value
// contains "tarnik:". Its key then ends in a reference (a response's name or a rule's UUID), and
// every setting whose key contains that reference belongs to the rule.
//
// Main thread. A function that reads a file returns false, with a log line, when the file cannot be
// opened or read or a line is malformed (what was found before it is kept), and ends the process
// with status 1 when the platform has no parser.
#pragma once

#include <deque>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnik {

using References = std::vector<std::string>;
using Rule = std::pair<std::string, std::string>;  // key, value
using Rules = std::vector<Rule>;
// Rules owned elsewhere.
using RuleSpan = std::span<const Rule* const>;

// Appends the file's references in their order, duplicates included.
[[nodiscard]] bool getTarnikReferences(const char* path, References& references);

// The rules of many references of one file. The file is read once: with hundreds of references in
// a large policy, one read for each would keep the main thread busy for longer than the watchdog
// allows. Each rule is kept once, however many references it contains and however often they
// repeat.
class CaptureRules {
 public:
  // `path` and `references` must outlive the object.
  CaptureRules(const char* path, const References& references);

  // Appends the rules of `reference`, one of those given, as one span in file order. The span is
  // valid as long as this object. The first call reads the file; do not call again after a failure.
  [[nodiscard]] bool getTarnikRules(const std::string& reference, std::vector<RuleSpan>& rules);

 private:
  bool read();
  void add(std::string_view key, std::string_view value);

  const char* path_;
  std::map<std::string_view, std::vector<const Rule*>> byReference_;
  std::deque<Rule> rules_;  // a deque, because byReference_ points to its elements
  bool read_ = false;
};

}  // namespace tarnik
