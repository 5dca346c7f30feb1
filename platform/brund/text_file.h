// Small text files, read and written whole. Errors are "PATH: REASON".
#pragma once

#include <string>

#include "base/result.h"

namespace tarnik::brund {

// Only of a regular file.
[[nodiscard]] Result<std::string> readTextFile(const std::string& path);
// Replaces the file's content.
[[nodiscard]] Result<> writeTextFile(const std::string& path, const std::string& text);

}  // namespace tarnik::brund
