// What the driver stand-in holds of the operating system: descriptors, mappings, file locks.
// Functions return 0 or more, or a negative errno, as a driver does.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace tarnik::zorvik {

class Fd {
 public:
  Fd() noexcept = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd();

  // Opens an existing node for reading and writing, or makes a new file with mode 0660 whatever
  // the umask. Close-on-exec. Empty, with errno, on failure.
  [[nodiscard]] static Fd open(const std::string& path) noexcept;
  [[nodiscard]] static Fd create(const std::string& path) noexcept;

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// A shared read-write mapping from a file's start. Neither copied nor moved: it is held by
// pointer, because sleepers keep it alive.
class Mapping {
 public:
  // Empty, with errno, when the file cannot be mapped.
  Mapping(int fd, std::size_t size) noexcept;
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  [[nodiscard]] std::byte* base() const noexcept { return base_; }
  [[nodiscard]] explicit operator bool() const noexcept { return base_ != nullptr; }

 private:
  std::byte* base_ = nullptr;
  std::size_t size_ = 0;
};

// Commits `size` bytes at `offset` of the file, so that touching them later cannot fail.
[[nodiscard]] int commit(int fd, std::size_t offset, std::size_t size) noexcept;

// The inode number of an open file, 0 on failure.
[[nodiscard]] unsigned long long inodeOf(int fd) noexcept;

// Marks the file as in use through the caller's open descriptor. The mark belongs to the open
// file: the kernel drops it when the last descriptor and mapping of it are gone, or with the
// process.
void markInUse(int fd) noexcept;

// True when nobody has the node marked as in use (or it cannot be opened, being gone).
[[nodiscard]] bool isIdle(const std::string& path) noexcept;

}  // namespace tarnik::zorvik
