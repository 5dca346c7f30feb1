#include "policy/output_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "base/log.h"

namespace tarnik {

Stream openForWriting(const char* path, WriteMode mode) noexcept {
  const bool append = mode == WriteMode::kAppend;
  const int flag = append ? O_APPEND : O_TRUNC;
  OwnedFd fd(::open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flag, 0666));
  if (!fd) {
    return nullptr;
  }
  Stream stream(::fdopen(fd.get(), append ? "a" : "w"));
  if (stream) {
    fd.release();
  }
  return stream;
}

void finishWriting(const char* operation, const char* path, Stream& stream) noexcept {
  const bool failed = std::ferror(stream.get()) != 0;
  if (!closeStream(stream) || failed) {
    TARNIK_ERROR("Error: %s: Failed to write: %s, errno=%d", operation, path, errno);
  }
}

}  // namespace tarnik
