#include "base/testing/captured_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>

namespace tarnik::test {
namespace {

std::mutex mutex;  // guards lines
std::vector<LogLine> lines;
void (*lineHook)(const LogLine& line) = nullptr;

void keep(int priority, const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  try {
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    const std::lock_guard guard(mutex);
    lines.push_back({LOG_PRI(priority), std::move(text)});
    if (lineHook != nullptr) {
      lineHook(lines.back());
    }
  } catch (const std::bad_alloc&) {  // a line without memory is lost, as in a real log
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << '<' << line.priority << '>' << line.text;
}

std::vector<LogLine> logLines() {
  const std::lock_guard guard(mutex);
  return lines;
}

std::vector<LogLine> logLinesAboveDebug() {
  std::vector<LogLine> result = logLines();
  std::erase_if(result, [](const LogLine& line) { return line.priority == LOG_DEBUG; });
  return result;
}

void clearLog() {
  const std::lock_guard guard(mutex);
  lines.clear();
}

void onLogLine(void (*hook)(const LogLine& line)) {
  lineHook = hook;
}

}  // namespace tarnik::test

// These replace libc's in the whole program, including its shared libraries.
extern "C" {

void vsyslog(int priority, const char* format, va_list arguments) {
  tarnik::test::keep(priority, format, arguments);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tarnik::test::keep(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  tarnik::test::keep(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tarnik::test::keep(priority, format, arguments);
  va_end(arguments);
}
}
