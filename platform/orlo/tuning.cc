#include <array>
#include <climits>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "include/orlo_sdk.h"
#include "internal.h"

struct OrloTuning {
  FILE* stream = nullptr;
  int line = 0;
  std::string text;  // the current line; key and value point into it
  std::array<char, 65536> block;
  std::string_view ahead;  // the unread rest of the block
};

namespace {

using orlo::isSpace;

constexpr std::size_t kMaxKeyBytes = 1023;

enum class Line { End, Readable, Unreadable };

// Adds a part of a line. False when the line is not readable: a NUL byte, too long, or no memory.
bool keep(std::string& text, std::string_view part) noexcept {
  if (part.find('\0') != std::string_view::npos ||
      part.size() > orlo::kMaxLineBytes - text.size()) {
    return false;
  }
  try {
    text += part;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Reads the next line, without its line end. Skips the rest of an unreadable line.
Line readLine(OrloTuning& tuning) {
  tuning.text.clear();
  bool any = false;
  bool readable = true;
  for (bool ended = false; !ended;) {
    if (tuning.ahead.empty()) {
      char* const block = tuning.block.data();
      tuning.ahead = {block, fread_unlocked(block, 1, tuning.block.size(), tuning.stream)};
      if (tuning.ahead.empty()) {
        if (!any || ferror(tuning.stream) != 0) {
          return Line::End;
        }
        break;
      }
    }
    const std::string_view part = tuning.ahead.substr(0, tuning.ahead.find('\n'));
    ended = part.size() < tuning.ahead.size();
    tuning.ahead.remove_prefix(part.size() + (ended ? 1 : 0));
    any = true;
    readable = readable && keep(tuning.text, part);
  }
  if (tuning.line == 0 && tuning.text.starts_with("\xEF\xBB\xBF")) {
    tuning.text.erase(0, 3);
  }
  if (tuning.line < INT_MAX) {
    ++tuning.line;
  }
  return readable ? Line::Readable : Line::Unreadable;
}

char* skipSpace(char* at) {
  while (isSpace(*at)) {
    ++at;
  }
  return at;
}

// Unescapes, in place, the quoted value whose opening quote is at `quote`. Null when the quote is
// not closed or is followed by anything but a comment.
char* quotedValue(char* quote) {
  char* out = quote;
  char* in = quote + 1;
  for (; *in != '"'; ++in) {
    if (*in == '\0') {
      return nullptr;
    }
    if (in[0] == '\\' && (in[1] == '"' || in[1] == '\\')) {
      ++in;
    }
    *out++ = *in;
  }
  char* const after = in + 1;
  char* const rest = skipSpace(after);
  if (*rest != '\0' && (*rest != '#' || rest == after)) {
    return nullptr;
  }
  *out = '\0';
  return quote;
}

// Removes the comment and the white space after an unquoted value. value[-1] is readable: it is
// white space or the equals sign.
char* bareValue(char* value) {
  char* end = value;
  for (; *end != '\0'; ++end) {
    if (*end == '#' && isSpace(end[-1])) {
      break;
    }
  }
  while (end > value && isSpace(end[-1])) {
    --end;
  }
  *end = '\0';
  return value;
}

// Splits the setting that starts at `key`.
int parseSetting(char* key, const char** keyText, const char** valueText) {
  char* keyEnd = key;
  while (*keyEnd != '\0' && !isSpace(*keyEnd) && *keyEnd != '=' && *keyEnd != '#' &&
         *keyEnd != '"') {
    ++keyEnd;
  }
  const auto keyBytes = static_cast<std::size_t>(keyEnd - key);
  if (keyBytes == 0 || keyBytes > kMaxKeyBytes || *keyEnd == '#' || *keyEnd == '"') {
    return ORLO_TUNING_MALFORMED;
  }
  char* value = skipSpace(keyEnd);
  if (*value == '=') {
    value = skipSpace(value + 1);
  } else if (*value == '\0' || *value == '#') {
    return ORLO_TUNING_MALFORMED;
  }
  value = *value == '"' ? quotedValue(value) : bareValue(value);
  if (value == nullptr) {
    return ORLO_TUNING_MALFORMED;
  }
  *keyEnd = '\0';
  *keyText = key;
  *valueText = value;
  return ORLO_TUNING_SETTING;
}

}  // namespace

OrloTuning* OrloTuningAlloc(FILE* stream) {
  if (stream == nullptr) {
    return nullptr;
  }
  std::unique_ptr<OrloTuning> tuning(new (std::nothrow) OrloTuning);
  if (tuning) {
    tuning->stream = stream;
  }
  return tuning.release();
}

int OrloTuningParseLine(OrloTuning* tuning, const char** key, const char** value) {
  if (tuning == nullptr || key == nullptr || value == nullptr) {
    return ORLO_TUNING_END;
  }
  for (;;) {
    const Line line = readLine(*tuning);
    if (line == Line::End) {
      return ORLO_TUNING_END;
    }
    if (line == Line::Unreadable) {
      return ORLO_TUNING_MALFORMED;
    }
    char* const start = skipSpace(tuning->text.data());
    if (*start != '\0' && *start != '#') {
      return parseSetting(start, key, value);
    }
  }
}

int OrloTuningCurrLine(const OrloTuning* tuning) {
  return tuning == nullptr ? 0 : tuning->line;
}

void OrloTuningRelease(OrloTuning* tuning) {
  std::unique_ptr<OrloTuning>{tuning}.reset();
}
