// How an info template becomes the beginning of an info file.
#pragma once

#include <string>

namespace tarnik {

// Runs "cp TEMPLATE INFO" through the shell and returns the result of runShell: negative when no
// shell could be started. A path with a character that a shell might take for more than itself
// never reaches one, nor does a pipe, where cp would wait: the template is then copied here, with
// the same effect, and the result is 0; a pipe without a reader gets nothing, and none is read
// from. The names in these paths come from policy files and are not trusted. Logs the command for
// `fini`.
[[nodiscard]] int copyTemplate(const std::string& templatePath, const std::string& infoPath);

}  // namespace tarnik
