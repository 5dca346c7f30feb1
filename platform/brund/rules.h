// The rules file: which traffic starts a capture, and which trigger the capture is recorded under.
//
//   ips ID NAME FILTER...         an intrusion-prevention issue, by identifier and name
//   nap PRIORITY UUID FILTER...   an access-policy rule, by priority and UUID
//
// `#` starts a comment. FILTER is a pcap-filter(7) expression up to the end of the line. Rules are
// tried in the order of the file. Several lines may share an ID and NAME, or a PRIORITY and UUID.
//
// Refused are:
//   - an ID or PRIORITY that the daemon reads as another kind of trigger (an ID up to 65535, a
//     PRIORITY outside 1 to 65534);
//   - an ID or PRIORITY with two names;
//   - a filter that does not compile;
//   - a NAME or UUID that cannot be part of a file name, that policy files cannot hold, or that the
//     shell changes: the daemon's command "cp TEMPLATE INFO" does not quote it.
//
// One thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "packet/frame.h"

struct bpf_program;

namespace tarnik::brund {

// A compiled filter for Ethernet frames.
class Filter {
 public:
  [[nodiscard]] static Result<Filter> compile(const std::string& expression);
  [[nodiscard]] bool matches(const Frame& frame) const;

 private:
  struct Release {
    void operator()(bpf_program* program) const noexcept;
  };
  using Program = std::unique_ptr<bpf_program, Release>;

  explicit Filter(Program program) : program_(std::move(program)) {}

  Program program_;
};

enum class RuleKind : std::uint8_t { kIps, kNap };
[[nodiscard]] const char* toText(RuleKind kind);  // "ips", "nap"

// What starts a capture.
struct Trigger {
  RuleKind kind = RuleKind::kIps;
  std::uint32_t id = 0;  // issue identifier or rule priority
  std::string name;      // issue name or rule UUID
};

struct Rule {
  Trigger trigger;
  std::string expression;
  Filter filter;
};

inline constexpr std::size_t kMaxNameLength = 180;

class RuleSet {
 public:
  // Reads a rules file. The error has a line "PATH:LINE: REASON" for each refused line.
  [[nodiscard]] static Result<RuleSet> load(const std::string& path);
  // The same for the text of a rules file; `name` takes the place of the path.
  [[nodiscard]] static Result<RuleSet> parse(const std::string& name, const std::string& text);

  [[nodiscard]] const std::vector<Rule>& rules() const { return rules_; }
  // The first rule that matches the frame, or null. Valid as long as the rule set.
  [[nodiscard]] const Rule* match(const Frame& frame) const;

 private:
  [[nodiscard]] Result<> addLine(const std::string& line);

  std::vector<Rule> rules_;
  std::map<std::pair<RuleKind, std::uint32_t>, std::string> names_;
};

}  // namespace tarnik::brund
