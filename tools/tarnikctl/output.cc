#include "tools/tarnikctl/output.h"

#include <locale.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>

namespace tarnik::ctl {
namespace {

struct Character {
  std::string_view bytes;
  bool printable;
};

// The first character of a text that is not empty; one byte when it is no UTF-8.
Character firstCharacter(std::string_view text) {
  static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = ::uselocale(utf8);
  wchar_t wide = 0;
  std::mbstate_t state{};
  const std::size_t size = std::mbrtowc(&wide, text.data(), text.size(), &state);
  const bool good = size >= 1 && size <= text.size();
  const Character result{text.substr(0, good ? size : 1),
                         good && std::iswprint(static_cast<std::wint_t>(wide)) != 0};
  ::uselocale(before);
  return result;
}

}  // namespace

int complain(ExitStatus status, const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "tarnikctl: %s\n", printable(text).c_str());
  return status;
}

int flushOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return kDone;
  }
  return complain(kFailed, "cannot write the output: %s; send it elsewhere or make room",
                  std::strerror(errno));
}

std::string jsonString(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    if (next.bytes == "\"" || next.bytes == "\\") {
      (result += '\\') += next.bytes;
    } else if (next.printable) {
      result += next.bytes;
    } else {
      for (const char byte : next.bytes) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(byte));
        result += escape;
      }
    }
    text.remove_prefix(next.bytes.size());
  }
  return result + '"';
}

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    result += next.printable ? next.bytes : "?";
    text.remove_prefix(next.bytes.size());
  }
  return result;
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
