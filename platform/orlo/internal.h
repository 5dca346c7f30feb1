// Shared by the SDK's source files; not exported.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>

namespace orlo {

class OwnedFd {
 public:
  OwnedFd() noexcept = default;
  explicit OwnedFd(int fd) noexcept : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    if (this != &other) {
      reset(std::exchange(other.fd_, -1));
    }
    return *this;
  }
  ~OwnedFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }
  // Closes the held descriptor (errno is preserved) and holds `fd` from now on.
  void reset(int fd = -1) noexcept;

 private:
  int fd_ = -1;
};

// A file that is written under a temporary name and renamed when it is complete, so that a reader
// sees the old content or the new content, never a part. Removed if it is not published.
class ReplacementFile {
 public:
  ReplacementFile() noexcept = default;
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;
  ~ReplacementFile();

  // Creates "DIRECTORY/.NAME.XXXXXX" with mode 0644. False with errno.
  [[nodiscard]] bool create(const char* directory, std::string_view name) noexcept;
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  // Renames the file to "DIRECTORY/NAME". False with errno.
  [[nodiscard]] bool publish() noexcept;

 private:
  OwnedFd fd_;
  char temporary_[192] = {};
  char final_[192] = {};
};

// Creates the directory `path` (mode 0755) unless it exists. False with errno.
[[nodiscard]] bool makeDirectory(const char* path) noexcept;

// Whether `name` can be a file name under ORLO_RUN_DIR: 1 to 64 letters, digits, '.', '_' and '-',
// not starting with '.'.
[[nodiscard]] bool validName(const char* name) noexcept;

// Takes the lock by which instances of the daemon `name` exclude each other, ORLO_RUN_DIR
// "/NAME.lock". It is held until the descriptor is closed. Empty with errno; EWOULDBLOCK when
// another process has it.
[[nodiscard]] OwnedFd lockInstance(const char* name) noexcept;

// The name given to OrloLogInit, or the program's name before. Any thread.
[[nodiscard]] const char* logIdent() noexcept;
// Whether log lines go to standard error as well. Any thread.
[[nodiscard]] bool logForeground() noexcept;

// The longest line of a tuning file and the longest CSV record, so that a hostile file cannot use
// up the memory.
inline constexpr std::size_t kMaxLineBytes = std::size_t{16} << 20;

// White space, independent of the locale.
[[nodiscard]] constexpr bool isSpace(char c) noexcept {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
// `text` without the white space around it.
[[nodiscard]] std::string_view trimmed(std::string_view text) noexcept;

}  // namespace orlo
