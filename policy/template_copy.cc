#include "policy/template_copy.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "base/log.h"
#include "base/owned.h"
#include "base/shell.h"

namespace tarnik {
namespace {

// Not isalnum(), which depends on the locale.
bool isPlain(char character) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:@%+=,-";
  return kPlain.find(character) != std::string_view::npos;
}

bool isPlain(const std::string& path) {
  return std::all_of(path.begin(), path.end(), [](char character) { return isPlain(character); });
}

// Opening a pipe waits for its other end.
bool isPipe(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// Whether the path has no special meaning to the shell and cp does not wait there.
bool isOrdinary(const std::string& path) {
  return isPlain(path) && !isPipe(path);
}

bool sameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Like cp, overwrites an existing file in place, gives a new one the mode of its source, and
// neither writes through a dangling link nor copies a file onto itself. Does not wait at a pipe.
Stream openTarget(const char* path, const struct stat& source) {
  OwnedFd fd(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd && errno == ENOENT) {
    fd.reset(
        ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOCTTY | O_CLOEXEC, source.st_mode & 0777));
  }
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || sameFile(status, source)) {
    return nullptr;
  }
  if (S_ISREG(status.st_mode) && ::ftruncate(fd.get(), 0) != 0) {
    return nullptr;
  }
  Stream stream(::fdopen(fd.get(), "w"));
  if (stream) {
    fd.release();
  }
  return stream;
}

void copyFile(const char* from, const char* to) {
  const Stream source = openForReading(from);
  struct stat status {};
  if (!source || ::fstat(::fileno(source.get()), &status) != 0) {
    return;
  }
  const Stream target = openTarget(to, status);
  if (!target) {
    return;
  }
  std::array<char, 16384> buffer;
  while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), source.get())) {
    if (std::fwrite(buffer.data(), 1, got, target.get()) != got) {
      return;
    }
  }
}

}  // namespace

int copyTemplate(const std::string& templatePath, const std::string& infoPath) {
  const std::string command = "cp " + templatePath + " " + infoPath;
  TARNIK_DEBUG(0, "Debug: %s: Executing [%s]", "fini", command.c_str());
  if (isOrdinary(templatePath) && isOrdinary(infoPath)) {
    return runShell(command.c_str());
  }
  copyFile(templatePath.c_str(), infoPath.c_str());
  return 0;
}

}  // namespace tarnik
