#include "tools/tarnikctl/output.h"

#include <locale.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>

namespace tarnik::ctl {

int printError(const std::string& text, int status) {
  std::fprintf(stderr, "tarnikctl: %s\n", printable(text).c_str());
  return status;
}

Result<> flushOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return {};
  }
  return Error{std::string("cannot write the output: ") + std::strerror(errno)};
}

std::string printable(std::string_view text) {
  // The user's locale may not be UTF-8, but the daemon's names are.
  static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = ::uselocale(utf8);
  std::string result;
  while (!text.empty()) {
    wchar_t wide = 0;
    std::mbstate_t state{};
    const std::size_t size = std::mbrtowc(&wide, text.data(), text.size(), &state);
    const bool valid = size >= 1 && size <= text.size();
    const std::string_view character = text.substr(0, valid ? size : 1);
    const bool shown = valid && std::iswprint(static_cast<std::wint_t>(wide)) != 0;
    result += shown ? character : "?";
    text.remove_prefix(character.size());
  }
  ::uselocale(before);
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
