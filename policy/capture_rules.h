// The rules of a policy file that ask for packet capture. A response asks for it when its value
// holds "tarnik:"; the key then ends in a reference (a response's name or a rule's UUID), and
// every setting whose key mentions that reference belongs to the rule.
//
// Main thread. Both functions end the process when no parser can be had.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarnik {

using References = std::vector<std::string>;
using Rules = std::vector<std::pair<std::string, std::string>>;  // key, value

// Appends the file's references in their order. False, with a log line, when the file cannot be
// opened or a line is malformed; what was found before it is kept.
[[nodiscard]] bool getTarnikReferences(const char* path, References& references);

// Appends every setting whose key holds `reference`. False as above.
[[nodiscard]] bool getTarnikRules(const char* path, const std::string& reference, Rules& rules);

}  // namespace tarnik
