#include "platform/brund/policy_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "platform/brund/text_file.h"

namespace tarnik::brund {
namespace {

// A value in double quotes keeps the blanks and backslashes of a filter.
std::string quoted(const std::string& value) {
  std::string result = "\"";
  for (const char c : value) {
    if (c == '"' || c == '\\') {
      result += '\\';
    }
    result += c;
  }
  return result + "\"";
}

// A name as the last part of a key. Readers remove one leading underscore, so a name that begins
// with one gets a second.
std::string asKey(const std::string& name) {
  return name.front() == '_' ? "_" + name : name;
}

// One filter per rule name: the filters of all lines with this name, joined.
using Filters = std::map<std::string, std::string>;

Filters filtersByName(const std::vector<Rule>& rules, RuleKind kind) {
  Filters filters;
  for (const Rule& rule : rules) {
    if (rule.trigger.kind != kind) {
      continue;
    }
    const auto [entry, added] = filters.try_emplace(rule.trigger.name, rule.expression);
    if (!added) {
      entry->second = "(" + entry->second + ") or (" + rule.expression + ")";
    }
  }
  return filters;
}

void setting(std::string& text, const std::string& key, const std::string& value) {
  text += key + " = " + value + "\n";
}

}  // namespace

std::string ipsPolicy(const std::vector<Rule>& rules) {
  std::string text = "# Intrusion-prevention policy, written by brund-sim.\n";
  setting(text, "ips.policy.enabled", "true");
  for (const auto& [name, filter] : filtersByName(rules, RuleKind::kIps)) {
    text += "\n";
    setting(text, "ips.issue.enabled." + asKey(name), "true");
    setting(text, "ips.issue.filter." + asKey(name), quoted(filter));
    setting(text, "ips.responses.object." + asKey(name), quoted("log,tarnik:capture"));
  }
  return text;
}

std::string napPolicy(const std::vector<Rule>& rules) {
  std::string text = "# Network access policy, written by brund-sim.\n";
  setting(text, "acl.policy.enabled", "true");
  std::set<std::uint32_t> priorities;
  for (const auto& [uuid, filter] : filtersByName(rules, RuleKind::kNap)) {
    text += "\n";
    for (const Rule& rule : rules) {
      if (rule.trigger.kind == RuleKind::kNap && rule.trigger.name == uuid &&
          priorities.insert(rule.trigger.id).second) {
        setting(text, "acl.rule.priority." + asKey(uuid), std::to_string(rule.trigger.id));
      }
    }
    setting(text, "acl.rule.action." + asKey(uuid), "allow");
    setting(text, "acl.rule.filter." + asKey(uuid), quoted(filter));
    setting(text, "acl.rule.responses." + asKey(uuid), quoted("log,tarnik:capture"));
  }
  return text;
}

std::string issueList(const std::vector<Rule>& rules) {
  std::string text;
  std::set<std::uint32_t> issues;
  for (const Rule& rule : rules) {
    if (rule.trigger.kind == RuleKind::kIps && issues.insert(rule.trigger.id).second) {
      const bool quote = rule.trigger.name.find(',') != std::string::npos;
      text += std::to_string(rule.trigger.id) + "," +
              (quote ? quoted(rule.trigger.name) : rule.trigger.name) + "\n";
    }
  }
  return text;
}

Result<> writePolicy(const std::vector<Rule>& rules, const std::string& directory,
                     const std::string& issuesPath) {
  if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
    return Error{directory + ": " + std::strerror(errno)};
  }
  const struct {
    std::string path;
    std::string text;
  } files[] = {{directory + "/ips.conf", ipsPolicy(rules)},
               {directory + "/acl.conf", napPolicy(rules)},
               {issuesPath, issueList(rules)}};
  for (const auto& file : files) {
    if (const auto written = writeTextFile(file.path, file.text); !written) {
      return written;
    }
  }
  return Done{};
}

}  // namespace tarnik::brund
