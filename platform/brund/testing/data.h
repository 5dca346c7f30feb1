// Where the tests find captures, and where they write.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace tarnik::test {

// The folder of the recorded captures; empty when there is none. Tests then skip with kNoCaptures.
inline std::string dataDir() {
  const char* given = std::getenv("TARNIK_DATA");
  return given != nullptr ? given : "";
}
inline constexpr char kNoCaptures[] = "no capture files: set TARNIK_DATA to a folder of them";

// A directory of the test's own.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "brund-XXXXXX").string();
    path_ = mkdtemp(name.data()) != nullptr ? name : "";
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tarnik::test
