// Copies an info template to the beginning of an info file.
#pragma once

#include <string>

namespace tarnik {

// Runs "cp TEMPLATE INFO" through the shell and returns the result of runShell: negative when no
// shell could be started. The names in these paths come from policy files and are not trusted, so
// the shell never gets a path with a character that is special to it, and cp never gets a pipe,
// where it would wait. Such a template is copied here instead, with the same effect, and the result
// is 0. Nothing is read from a pipe, and a pipe without a reader gets nothing. Logs the command for
// `fini` in every case.
[[nodiscard]] int copyTemplate(const std::string& templatePath, const std::string& infoPath);

}  // namespace tarnik
