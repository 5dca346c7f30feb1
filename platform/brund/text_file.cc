#include "platform/brund/text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/owned.h"

namespace tarnik::brund {

bool writeTextFile(const std::string& path, const std::string& text, std::string& error) {
  const OwnedFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  std::size_t written = 0;
  ssize_t n = fd ? 0 : -1;
  while (n >= 0 && written < text.size()) {
    n = write(fd.get(), text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) {
      n = 0;
    }
    written += static_cast<std::size_t>(n > 0 ? n : 0);
  }
  if (n < 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace tarnik::brund
