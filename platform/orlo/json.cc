#include "json.h"

#include <cstdio>

namespace orlo {
namespace {

bool isContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0u) == 0x80u;
}

// The length of the UTF-8 sequence at the start of `text`, 0 if it is invalid. The range of the
// second byte excludes overlong forms, surrogates and code points above U+10FFFF.
std::size_t sequenceLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length < 2) {
    return length;
  }
  if (text.size() < length) {
    return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  const bool outOfRange = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                          (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(text[i])) {
      return 0;
    }
  }
  return outOfRange ? 0 : length;
}

void appendAscii(std::string& out, char c) {
  if (c == '"' || c == '\\') {
    out += '\\';
    out += c;
  } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
    out += escape;
  } else {
    out += c;
  }
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) {
      out += "\\ufffd";
    } else if (length == 1) {
      appendAscii(out, text[0]);
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  out += '"';
}

}  // namespace orlo
