// Owners of descriptors, streams and mappings. Each releases its resource in its destructor;
// moving transfers it. None is thread-safe.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <utility>

namespace tarnik {

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
  // Releases ownership without closing.
  int release() noexcept { return std::exchange(fd_, -1); }
  // Closes the current descriptor (errno is preserved) and owns `fd`.
  void reset(int fd = -1) noexcept;

 private:
  int fd_ = -1;
};

// A shared read-write mapping.
class Mapping {
 public:
  Mapping() noexcept = default;
  Mapping(void* base, std::size_t size) noexcept : base_(base), size_(size) {}
  Mapping(Mapping&& other) noexcept
      : base_(std::exchange(other.base_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  Mapping& operator=(Mapping&& other) noexcept {
    if (this != &other) {
      reset();
      base_ = std::exchange(other.base_, nullptr);
      size_ = std::exchange(other.size_, 0);
    }
    return *this;
  }
  ~Mapping() { reset(); }

  // Maps `size` bytes of `fd` from offset 0, shared, for reading and writing. Empty, with errno,
  // on failure.
  [[nodiscard]] static Mapping shared(int fd, std::size_t size) noexcept;

  [[nodiscard]] void* base() const noexcept { return base_; }
  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] explicit operator bool() const noexcept { return base_ != nullptr; }
  // Unmaps (errno is preserved).
  void reset() noexcept;

 private:
  void* base_ = nullptr;
  std::size_t size_ = 0;
};

struct StreamCloser {
  void operator()(std::FILE* stream) const noexcept;  // errno is preserved
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// Closes the stream and reports the result: false, with errno, when fclose fails. `stream` is empty
// afterwards, because fclose frees it in any case.
[[nodiscard]] bool closeStream(Stream& stream) noexcept;

// Opens a file like fopen(path, "r"), but only a regular one or /dev/null: a directory fails with
// EISDIR, and a pipe, socket or other device with EINVAL, because reading one may never end. Never
// blocks. Close-on-exec. Empty, with errno, on failure.
[[nodiscard]] Stream openForReading(const char* path) noexcept;

}  // namespace tarnik
