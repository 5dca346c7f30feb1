// Files and temporary directories of tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace tarnik::test {

// A new directory under the system's temporary directory, removed with the object.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "tarnik-XXXXXX").string();
    path_ = ::mkdtemp(name.data()) != nullptr ? name : "";
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  // The path of `name` in it.
  [[nodiscard]] std::string operator/(std::string_view name) const {
    return path_ + "/" + std::string(name);
  }

 private:
  std::string path_;
};

// Writes a file, replacing what was there.
inline void writeFile(const std::string& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

// The whole file, or nothing when it cannot be opened.
[[nodiscard]] inline std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace tarnik::test
