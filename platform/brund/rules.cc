#include "platform/brund/rules.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <sstream>
#include <string_view>

#include "platform/brund/text_file.h"

namespace tarnik::brund {
namespace {

constexpr char kBlanks[] = " \t\r";

struct IdRange {
  std::uint64_t least;
  std::uint64_t most;
};
constexpr IdRange kIpsIds{65536, 4294967295};
constexpr IdRange kNapPriorities{1, 65534};

Result<std::uint32_t> readId(RuleKind kind, const std::string& text) {
  const char* what = kind == RuleKind::kIps ? "ips identifier" : "nap priority";
  const IdRange range = kind == RuleKind::kIps ? kIpsIds : kNapPriorities;
  const auto isDigit = [](unsigned char c) { return std::isdigit(c) != 0; };
  if (!std::all_of(text.begin(), text.end(), isDigit)) {
    return Error{std::string(what) + " '" + text + "' is not a decimal number"};
  }
  std::uint64_t value = 0;  // stays 0 when the number does not fit
  std::from_chars(text.data(), text.data() + text.size(), value);
  if (value < range.least || value > range.most) {
    return Error{std::string(what) + " " + text + " is outside " + std::to_string(range.least) +
                 " to " + std::to_string(range.most)};
  }
  return static_cast<std::uint32_t>(value);
}

Result<> checkName(RuleKind kind, const std::string& name) {
  const bool uuid = kind == RuleKind::kNap;
  const std::string what = uuid ? "UUID" : "name";
  const std::string quoted = what + " '" + name + "'";
  if (name == "." || name == "..") {
    return Error{quoted + " cannot be a file name"};
  }
  if (name.size() > kMaxNameLength) {
    return Error{what + " is longer than " + std::to_string(kMaxNameLength) + " characters"};
  }
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      return Error{what + " contains a control character"};
    }
    if (c == '/') {
      return Error{quoted + " contains '/' and cannot be a file name"};
    }
    const bool plain = std::isalnum(byte) != 0 || c == '-' || c == '_' || c == '.';
    const bool special = byte < 0x80 && std::strchr("\"$&'()*;<=>?[\\]`{|}~", c) != nullptr;
    if (uuid ? !plain : special) {
      return Error{quoted + " contains '" + c + "'" +
                   (uuid ? ": only letters, digits, '-', '_' and '.' are allowed"
                         : ", which is special to policy files or to the shell")};
    }
  }
  if (name.find(".pcap") != std::string::npos) {
    return Error{quoted + " contains '.pcap', the suffix of capture files"};
  }
  return Done{};
}

// Removes the first word of `rest` and returns it.
std::string takeWord(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  std::string word(rest.substr(0, rest.find_first_of(kBlanks)));
  rest.remove_prefix(word.size());
  return word;
}

std::string trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return std::string(text.substr(0, text.find_last_not_of(kBlanks) + 1));
}

}  // namespace

void Filter::Release::operator()(bpf_program* program) const noexcept {
  pcap_freecode(program);
  std::default_delete<bpf_program>{}(program);
}

Result<Filter> Filter::compile(const std::string& expression) {
  constexpr int kSnaplen = 262144;
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap(pcap_open_dead(DLT_EN10MB, kSnaplen),
                                                            pcap_close);
  if (!pcap) {
    return Error{"out of memory"};
  }
  Program program(std::make_unique<bpf_program>().release());
  if (pcap_compile(pcap.get(), program.get(), expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    return Error{pcap_geterr(pcap.get())};
  }
  return Filter(std::move(program));
}

bool Filter::matches(const Frame& frame) const {
  pcap_pkthdr header{};
  header.caplen = static_cast<bpf_u_int32>(frame.data.size());
  header.len = frame.wireLength;
  return pcap_offline_filter(program_.get(), &header, frame.data.data()) != 0;
}

const char* toText(RuleKind kind) {
  return kind == RuleKind::kIps ? "ips" : "nap";
}

Result<> RuleSet::addLine(const std::string& line) {
  std::string_view rest = line;
  const std::string keyword = takeWord(rest);
  if (keyword.empty()) {
    return Done{};
  }
  if (keyword != "ips" && keyword != "nap") {
    return Error{"'" + keyword + "' is neither 'ips' nor 'nap'"};
  }
  const RuleKind kind = keyword == "ips" ? RuleKind::kIps : RuleKind::kNap;
  const std::string idText = takeWord(rest);
  const std::string name = takeWord(rest);
  std::string expression = trimmed(rest);
  if (expression.empty()) {
    return Error{kind == RuleKind::kIps ? "expected: ips ID NAME FILTER..."
                                        : "expected: nap PRIORITY UUID FILTER..."};
  }
  const auto id = readId(kind, idText);
  if (!id) {
    return Error{id.error()};
  }
  if (const auto checked = checkName(kind, name); !checked) {
    return checked;
  }
  const auto [known, added] = names_.try_emplace({kind, *id}, name);
  if (!added && known->second != name) {
    return Error{keyword + " " + idText + " already has the " +
                 (kind == RuleKind::kIps ? "name '" : "UUID '") + known->second + "'"};
  }
  auto filter = Filter::compile(expression);
  if (!filter) {
    return Error{"filter '" + expression + "' does not compile: " + filter.error()};
  }
  rules_.push_back({{kind, *id, name}, std::move(expression), std::move(*filter)});
  return Done{};
}

Result<RuleSet> RuleSet::parse(const std::string& name, const std::string& text) {
  RuleSet set;
  std::string problems;
  std::istringstream lines(text);
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    const Result<> added = line.find('\0') != std::string::npos
                               ? Error{"the line contains a NUL byte"}
                               : set.addLine(line.substr(0, line.find('#')));
    if (!added) {
      problems += (problems.empty() ? "" : "\n") + name + ":" + std::to_string(number) + ": " +
                  added.error();
    }
  }
  if (!problems.empty()) {
    return Error{problems};
  }
  return set;
}

Result<RuleSet> RuleSet::load(const std::string& path) {
  const auto text = readTextFile(path);
  return text ? parse(path, *text) : Error{text.error()};
}

const Rule* RuleSet::match(const Frame& frame) const {
  const auto found = std::find_if(rules_.begin(), rules_.end(),
                                  [&](const Rule& rule) { return rule.filter.matches(frame); });
  return found == rules_.end() ? nullptr : &*found;
}

}  // namespace tarnik::brund
