// Small text files, written whole.
#pragma once

#include <string>

namespace tarnik::brund {

// Replaces the file's content. False with "PATH: REASON" in `error`.
[[nodiscard]] bool writeTextFile(const std::string& path, const std::string& text,
                                 std::string& error);

}  // namespace tarnik::brund
