#include "platform/brund/rules.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <sstream>
#include <string_view>

#include "base/owned.h"

namespace tarnik::brund {
namespace {

constexpr std::uint32_t kMaxPriority = 65534;
constexpr std::uint32_t kMinIssue = 65536;
constexpr std::uint32_t kMaxIssue = 4294967295;
constexpr char kBlanks[] = " \t\r";

// Decimal digits only; numbers too large for the type come out as the largest.
std::optional<std::uint64_t> parseNumber(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (end != text.data() + text.size() || error == std::errc::invalid_argument) {
    return std::nullopt;
  }
  return error == std::errc{} ? value : UINT64_MAX;
}

// Why a word cannot be the name of an issue or rule; empty when it can.
std::string refuseName(const std::string& name, bool uuid) {
  const std::string what = uuid ? "UUID" : "name";
  if (name == "." || name == "..") {
    return what + " '" + name + "' is no file name";
  }
  if (name.size() > kMaxNameLength) {
    return what + " is longer than " + std::to_string(kMaxNameLength) + " characters";
  }
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      return what + " holds a control character";
    }
    if (c == '/') {
      return what + " '" + name + "' holds '/' and is no file name";
    }
    const bool plain = std::isalnum(byte) != 0 || c == '-' || c == '_' || c == '.';
    const bool special = byte < 0x80 && std::strchr("\"$&'()*;<=>?[\\]`{|}~", c) != nullptr;
    if (uuid ? !plain : special) {
      return what + " '" + name + "' holds '" + std::string(1, c) + "'" +
             (uuid ? ": letters, digits, '-', '_' and '.' are allowed"
                   : ", which a policy file or the shell would not leave alone");
    }
  }
  if (name.find(".pcap") != std::string::npos) {
    return what + " '" + name + "' holds '.pcap', by which capture files are known";
  }
  return {};
}

std::string refuseTrigger(RuleKind kind, const std::string& text,
                          const std::optional<std::uint64_t>& number) {
  if (kind == RuleKind::kIps) {
    if (!number) {
      return "ips identifier '" + text + "' is not a decimal number";
    }
    if (*number < kMinIssue) {
      return "ips identifier " + text +
             " would be read as a rule priority or as unknown: 65536 to 4294967295 are allowed";
    }
    if (*number > kMaxIssue) {
      return "ips identifier " + text + " is above 4294967295";
    }
    return {};
  }
  if (!number) {
    return "nap priority '" + text + "' is not a decimal number";
  }
  if (*number < 1 || *number > kMaxPriority) {
    return "nap priority " + text + " is outside 1 to 65534";
  }
  return {};
}

// Takes the next word off the front of `rest`.
std::string takeWord(std::string_view& rest) {
  const auto begin = std::min(rest.find_first_not_of(kBlanks), rest.size());
  rest.remove_prefix(begin);
  const auto end = std::min(rest.find_first_of(kBlanks), rest.size());
  std::string word(rest.substr(0, end));
  rest.remove_prefix(end);
  return word;
}

std::string trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) {
    return {};
  }
  return std::string(text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1));
}

std::optional<std::string> readAll(const std::string& path, std::string& error) {
  const Stream stream = openForReading(path.c_str());
  std::string text;
  char chunk[65536];
  while (stream != nullptr) {
    const std::size_t got = std::fread(chunk, 1, sizeof chunk, stream.get());
    text.append(chunk, got);
    if (got < sizeof chunk) {
      break;
    }
  }
  if (stream == nullptr || std::ferror(stream.get()) != 0) {
    error = std::strerror(errno);
    return std::nullopt;
  }
  return text;
}

}  // namespace

const char* toText(RuleKind kind) {
  return kind == RuleKind::kIps ? "ips" : "nap";
}

// Adds the rule of one line; the reason when it is refused.
std::string RuleSet::parseLine(const std::string& line) {
  std::string_view rest = line;
  const std::string keyword = takeWord(rest);
  if (keyword.empty()) {
    return {};
  }
  if (keyword != "ips" && keyword != "nap") {
    return "'" + keyword + "' is neither 'ips' nor 'nap'";
  }
  const RuleKind kind = keyword == "ips" ? RuleKind::kIps : RuleKind::kNap;
  const std::string trigger = takeWord(rest);
  const std::string name = takeWord(rest);
  std::string expression = trimmed(rest);
  if (expression.empty()) {
    return kind == RuleKind::kIps ? "expected: ips ID NAME FILTER..."
                                  : "expected: nap PRIORITY UUID FILTER...";
  }
  const auto number = parseNumber(trigger);
  if (std::string reason = refuseTrigger(kind, trigger, number); !reason.empty()) {
    return reason;
  }
  if (std::string reason = refuseName(name, kind == RuleKind::kNap); !reason.empty()) {
    return reason;
  }
  const auto id = static_cast<std::uint32_t>(*number);
  const auto [known, added] = names_.try_emplace({kind, id}, name);
  if (!added && known->second != name) {
    return keyword + " " + trigger + " already has the " +
           (kind == RuleKind::kIps ? "name '" : "UUID '") + known->second + "'";
  }
  std::string error;
  Filter filter = Filter::compile(expression, error);
  if (!filter) {
    return "filter '" + expression + "' does not compile: " + error;
  }
  rules_.push_back({kind, id, name, std::move(expression), std::move(filter)});
  return {};
}

RuleSet RuleSet::parse(const std::string& name, const std::string& text) {
  RuleSet set;
  std::istringstream lines(text);
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    const std::string where = name + ":" + std::to_string(number) + ": ";
    if (line.find('\0') != std::string::npos) {
      set.problems_.push_back(where + "the line holds a NUL byte");
      continue;
    }
    const std::string reason = set.parseLine(line.substr(0, line.find('#')));
    if (!reason.empty()) {
      set.problems_.push_back(where + reason);
    }
  }
  return set;
}

RuleSet RuleSet::load(const std::string& path) {
  std::string error;
  const auto text = readAll(path, error);
  if (!text) {
    RuleSet set;
    set.problems_.push_back(path + ": " + error);
    return set;
  }
  return parse(path, *text);
}

const Rule* RuleSet::match(const Frame& frame) const {
  const auto found = std::find_if(rules_.begin(), rules_.end(),
                                  [&](const Rule& rule) { return rule.filter.matches(frame); });
  return found == rules_.end() ? nullptr : &*found;
}

}  // namespace tarnik::brund
