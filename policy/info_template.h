// Info templates: the policy's part of the info files, written at start and on reload.
#pragma once

#include <span>

#include "policy/capture_rules.h"

namespace tarnik {

// Writes the rules of all spans as "key=value" lines, replacing the file. False, with a log line,
// when it cannot be opened. A full disk cuts the file short, with a log line.
[[nodiscard]] bool writeInfoTemplate(const char* path, std::span<const RuleSpan> rules);

// Main thread. Write the template of all IPS captures, and one template for each NAP rule that
// asks for capture. Without such rules they succeed and write nothing.
[[nodiscard]] bool createIpsInfoTemplate();
[[nodiscard]] bool createNapInfoTemplates();

}  // namespace tarnik
