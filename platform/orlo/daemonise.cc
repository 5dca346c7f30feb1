#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "include/orlo_sdk.h"
#include "internal.h"

namespace {

using orlo::OwnedFd;

// Opens /dev/null for each closed descriptor from 0 to 2. Otherwise the next opened file could
// become standard error.
[[nodiscard]] bool fillStandardDescriptors() noexcept {
  int fd = -1;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  const OwnedFd spare(fd);
  return fd > STDERR_FILENO;
}

[[nodiscard]] bool detachStandardDescriptors() noexcept {
  const OwnedFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null) {
    return false;
  }
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::dup2(null.get(), fd) < 0) {
      return false;
    }
  }
  return true;
}

// Writes the process's registration file. A daemon that may not write there, or that is a second
// instance, learns it when it opens its command socket; the file of the first instance stays. The
// lock is released at once: the command socket takes it for good.
void registerProcess(const char* name, const char* description) noexcept {
  if (!orlo::makeDirectory(ORLO_RUN_DIR)) {
    return;
  }
  const OwnedFd lock = orlo::lockInstance(name);
  if (!lock && errno == EWOULDBLOCK) {
    return;
  }
  char text[512];
  const int length = std::snprintf(text, sizeof text, "%d\n%s\n%s\n", ::getpid(), name,
                                   description == nullptr ? "" : description);
  char fileName[80];
  std::snprintf(fileName, sizeof fileName, "%s.pid", name);
  const auto size = static_cast<std::size_t>(length) < sizeof text
                        ? static_cast<std::size_t>(length)
                        : sizeof text - 1;
  orlo::ReplacementFile file;
  if (!file.create(ORLO_RUN_DIR, fileName) ||
      ::write(file.fd(), text, size) != static_cast<ssize_t>(size)) {
    return;
  }
  static_cast<void>(file.publish());
}

// Runs in the first child: starts a session and forks again, so that the daemon cannot acquire a
// terminal. Reports the result, 0 or an errno, through `report`.
void becomeDaemon(const char* name, const char* description, int report) noexcept {
  const auto finish = [report](int error) {
    const bool reported = ::write(report, &error, sizeof error) == sizeof error;
    if (error != 0 || !reported) {
      ::_exit(1);
    }
  };
  if (::setsid() < 0) {
    finish(errno);
  }
  const pid_t daemon = ::fork();
  if (daemon < 0) {
    finish(errno);
  }
  if (daemon > 0) {
    ::_exit(0);
  }
  if (::chdir("/") != 0 || !detachStandardDescriptors()) {
    finish(errno);
  }
  registerProcess(name, description);
  finish(0);
}

}  // namespace

int OrloWatchdogDaemon(const char* name, const char* description, unsigned flags) {
  if (!orlo::validName(name)) {
    errno = EINVAL;
    return -1;
  }
  if (!fillStandardDescriptors()) {
    return -1;
  }
  if ((flags & ORLO_FOREGROUND) != 0) {
    registerProcess(name, description);
    return 0;
  }
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return -1;
  }
  OwnedFd reader(ends[0]);
  OwnedFd writer(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) {
    return -1;
  }
  if (child == 0) {
    becomeDaemon(name, description, writer.get());
    return 0;
  }
  writer.reset();
  int error = 0;
  ssize_t length = 0;
  do {
    length = ::read(reader.get(), &error, sizeof error);
  } while (length < 0 && errno == EINTR);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (length == sizeof error && error == 0) {
    ::_exit(0);  // exit handlers and unflushed streams belong to the daemon now
  }
  errno = length == sizeof error ? error : ECHILD;
  return -1;
}
