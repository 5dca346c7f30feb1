// The sensor's policy files for a rules file. In them the daemon finds the names of the triggers
// and the rules that ask for capture.
#pragma once

#include <string>
#include <vector>

#include "base/result.h"
#include "platform/brund/rules.h"

namespace tarnik::brund {

// The texts of "ips.conf", "acl.conf" and "issues.csv". Each issue name, rule UUID and identifier
// appears once, even if several lines of the rules file share it.
[[nodiscard]] std::string ipsPolicy(const std::vector<Rule>& rules);
[[nodiscard]] std::string napPolicy(const std::vector<Rule>& rules);
[[nodiscard]] std::string issueList(const std::vector<Rule>& rules);

// Writes `directory`/ips.conf and `directory`/acl.conf (creating the directory) and the issue list
// at `issuesPath`; replaces existing files. The error is "PATH: REASON"; files written before it
// are kept.
[[nodiscard]] Result<> writePolicy(const std::vector<Rule>& rules, const std::string& directory,
                                   const std::string& issuesPath);

}  // namespace tarnik::brund
