// Owned descriptors and mappings, and the file locks by which the driver knows which nodes are in
// use. The driver library does not link base/, so it needs its own types.
// Functions that return int return 0 or a negative errno.
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
  ~Fd();  // preserves errno

  // Opens an existing node for reading and writing, or creates a file with mode 0660 whatever the
  // umask is. Close-on-exec. Empty, with errno, on failure. Both make the system call themselves,
  // because the library replaces open().
  [[nodiscard]] static Fd open(const std::string& path) noexcept;
  [[nodiscard]] static Fd create(const std::string& path) noexcept;

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// A shared read-write mapping from the start of a file.
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
  std::size_t size_;
};

// Allocates the file's storage, so that a later access cannot fail because the disk is full.
[[nodiscard]] int commit(int fd, std::size_t offset, std::size_t size) noexcept;

// The inode number of an open file, 0 on failure.
[[nodiscard]] unsigned long long inodeOf(int fd) noexcept;

// Marks the file as in use through the caller's descriptor. The mark belongs to the open file
// description: the kernel removes it when the last descriptor and mapping are gone, so also when
// the process dies.
void markInUse(int fd) noexcept;

// True when no process has the node marked as in use, or the node does not exist.
[[nodiscard]] bool isIdle(const std::string& path) noexcept;

// Locks one byte of the file for the open file description, as long as that exists. False when
// another one has locked it.
[[nodiscard]] bool lockByte(int fd, unsigned offset) noexcept;

// True when another open file description has locked the byte.
[[nodiscard]] bool isByteLocked(int fd, unsigned offset) noexcept;

}  // namespace tarnik::zorvik
