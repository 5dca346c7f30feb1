#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <exception>

#include "include/orlo_sdk.h"
#include "internal.h"
#include "json.h"

unsigned OrloLogDebugLevel = 0;

namespace {

char ident[64];                       // openlog keeps a pointer to it
std::atomic<bool> foreground{false};  // read by the watchdog's signal handler

orlo::OwnedFd openJournal() noexcept {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  orlo::OwnedFd journal(::open(ORLO_EVENT_JOURNAL, kFlags, 0644));
  if (!journal && errno == ENOENT && orlo::makeDirectory(ORLO_RUN_DIR)) {
    journal.reset(::open(ORLO_EVENT_JOURNAL, kFlags, 0644));
  }
  return journal;
}

std::string journalLine(const char* event, const char* category, const char* arguments) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  ::gmtime_r(&now.tv_sec, &utc);
  char time[64];
  const std::size_t length = std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(time + length, sizeof time - length, ".%06ldZ", now.tv_nsec / 1000);
  std::string line = "{\"time\":";
  orlo::appendJsonString(line, time);
  line += ",\"ident\":";
  orlo::appendJsonString(line, orlo::logIdent());
  line += ",\"pid\":" + std::to_string(::getpid());
  line += ",\"event\":";
  orlo::appendJsonString(line, event);
  line += ",\"category\":";
  orlo::appendJsonString(line, category);
  line += ",\"args\":";
  orlo::appendJsonString(line, arguments);
  line += "}\n";
  return line;
}

void raiseEvent(const char* event, const char* category, const char* arguments) noexcept {
  event = event == nullptr ? "" : event;
  category = category == nullptr ? "" : category;
  if (arguments[0] == '\0') {
    ::syslog(LOG_NOTICE, "Event: %s: %s", category, event);
  } else {
    ::syslog(LOG_NOTICE, "Event: %s: %s: %s", category, event, arguments);
  }
  try {
    const std::string line = journalLine(event, category, arguments);
    // Opened for each event, so that the journal can be rotated. One write per line, so that
    // lines of several processes do not mix.
    const orlo::OwnedFd journal = openJournal();
    if (journal && ::write(journal.get(), line.data(), line.size()) < 0) {
      return;
    }
  } catch (const std::exception&) {
    return;  // out of memory: the event is in syslog
  }
}

}  // namespace

namespace orlo {

const char* logIdent() noexcept {
  return ident[0] != '\0' ? ident : program_invocation_short_name;
}

bool logForeground() noexcept {
  return foreground.load(std::memory_order_relaxed);
}

}  // namespace orlo

int OrloLogInit(const char* name, unsigned inForeground) {
  if (name == nullptr || name[0] == '\0') {
    return -1;
  }
  std::snprintf(ident, sizeof ident, "%s", name);
  foreground.store(inForeground != 0, std::memory_order_relaxed);
  struct sigaction pipe {};
  if (inForeground != 0 && ::sigaction(SIGPIPE, nullptr, &pipe) == 0 &&
      pipe.sa_handler == SIG_DFL) {
    pipe.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &pipe, nullptr);
  }
  ::openlog(ident, LOG_PID | (inForeground != 0 ? LOG_PERROR : 0), LOG_DAEMON);
  return 0;
}

void OrloLogEvent(const char* event, const char* category, const char* format, ...) {
  const int savedErrno = errno;
  char arguments[4096] = "";
  if (format != nullptr) {
    va_list list;
    va_start(list, format);
    if (std::vsnprintf(arguments, sizeof arguments, format, list) < 0) {
      arguments[0] = '\0';
    }
    va_end(list);
  }
  raiseEvent(event, category, arguments);
  errno = savedErrno;
}

void OrloLogEventNoArg(const char* event, const char* category) {
  const int savedErrno = errno;
  raiseEvent(event, category, "");
  errno = savedErrno;
}
