// The rules file: which traffic starts a capture, and as whose doing it is recorded.
//
//   ips ID NAME FILTER...         an intrusion-prevention issue, by identifier and name
//   nap PRIORITY UUID FILTER...   an access-policy rule, by priority and UUID
//
// `#` starts a comment. FILTER is a pcap-filter(7) expression up to the end of the line. The order
// of the rules is that in which they are tried. Several lines may share an ID and NAME, or a
// PRIORITY and UUID.
//
// Refused are an identifier that the daemon would read as another kind of trigger (an ID up to
// 65535, a PRIORITY outside 1 to 65534), an ID or PRIORITY that has two names, a filter that does
// not compile, and a NAME or UUID that cannot be part of a file's name or that policy files and
// the daemon's shell command ("cp TEMPLATE INFO", unquoted) would not carry unchanged.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/brund/filter.h"

namespace tarnik::brund {

enum class RuleKind : std::uint8_t { kIps, kNap };
[[nodiscard]] const char* toText(RuleKind kind);  // "ips", "nap"

struct Rule {
  RuleKind kind;
  std::uint32_t trigger;  // issue identifier or rule priority
  std::string name;       // issue name or rule UUID
  std::string expression;
  Filter filter;
};

inline constexpr std::size_t kMaxNameLength = 180;

class RuleSet {
 public:
  // Reads the rules file. Every refused line leaves a text "PATH:LINE: REASON" in problems();
  // when there is one, the rules are not to be used.
  [[nodiscard]] static RuleSet load(const std::string& path);
  [[nodiscard]] static RuleSet parse(const std::string& name, const std::string& text);

  [[nodiscard]] const std::vector<Rule>& rules() const { return rules_; }
  [[nodiscard]] const std::vector<std::string>& problems() const { return problems_; }
  // The first rule that matches the frame, or null. Lives as long as the rule set.
  [[nodiscard]] const Rule* match(const Frame& frame) const;

 private:
  std::string parseLine(const std::string& line);

  std::vector<Rule> rules_;
  std::vector<std::string> problems_;
  std::map<std::pair<RuleKind, std::uint32_t>, std::string> names_;
};

}  // namespace tarnik::brund
