// The sensor's policy files that go with a rules file: those in which the daemon looks up the names
// of the triggers and the rules that ask for capture.
#pragma once

#include <string>
#include <vector>

#include "platform/brund/rules.h"

namespace tarnik::brund {

// The texts of "ips.conf", "acl.conf" and "issues.csv". Each issue name, rule UUID or identifier
// stands there once, however many lines of the rules file share it.
[[nodiscard]] std::string ipsPolicy(const std::vector<Rule>& rules);
[[nodiscard]] std::string napPolicy(const std::vector<Rule>& rules);
[[nodiscard]] std::string issueList(const std::vector<Rule>& rules);

// Writes `directory`/ips.conf and `directory`/acl.conf (the directory is made when it is missing)
// and the issue list at `issuesPath`, replacing what is there. False with "PATH: REASON" in
// `error`; files written before stay.
[[nodiscard]] bool writePolicy(const std::vector<Rule>& rules, const std::string& directory,
                               const std::string& issuesPath, std::string& error);

}  // namespace tarnik::brund
