#include "tools/tarnikctl/output.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace tarnik::ctl {

int complain(ExitStatus status, const char* format, ...) {
  std::fputs("tarnikctl: ", stderr);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  return status;
}

std::string jsonString(std::string_view text) {
  std::string result = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
      result += '\\';
      result += character;
    } else if (byte < 0x20 || byte >= 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      result += escape;
    } else {
      result += character;
    }
  }
  return result + '"';
}

std::string utcTime(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm utc{};
  char text[32];
  if (seconds == 0 || gmtime_r(&time, &utc) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc) == 0) {
    return "-";
  }
  return text;
}

}  // namespace tarnik::ctl
