// The log of a fuzz target. Formats every line, so that a wrong argument is found, and drops it.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

extern "C" {

void vsyslog(int, const char* format, va_list arguments) {
  char line[1024];
  std::vsnprintf(line, sizeof line, format, arguments);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  vsyslog(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}
}
