#include <strings.h>

#include <charconv>
#include <cstring>
#include <limits>

#include "include/orlo_sdk.h"
#include "internal.h"

namespace {

struct BoolWord {
  std::string_view word;
  bool value;
};

constexpr BoolWord kBoolWords[] = {
    {"true", true},    {"false", false},    {"yes", true},    {"no", false},
    {"on", true},      {"off", false},      {"enable", true}, {"disable", false},
    {"enabled", true}, {"disabled", false}, {"1", true},      {"0", false},
};

// The whole of `digits` as a number in `base`.
bool parseMagnitude(std::string_view digits, int base, uint64_t* result) noexcept {
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, *result, base);
  return error == std::errc() && stop == end;
}

}  // namespace

const char* OrloMatchPrefix(const char* key, const char* prefix) {
  if (key == nullptr || prefix == nullptr) {
    return nullptr;
  }
  const std::size_t length = std::strlen(prefix);
  return std::strncmp(key, prefix, length) == 0 ? key + length : nullptr;
}

bool OrloParseBool(const char* text, bool* result) {
  if (text == nullptr || result == nullptr) {
    return false;
  }
  const std::string_view word = orlo::trimmed(text);
  for (const BoolWord& known : kBoolWords) {
    if (word.size() == known.word.size() &&
        ::strncasecmp(word.data(), known.word.data(), word.size()) == 0) {
      *result = known.value;
      return true;
    }
  }
  return false;
}

bool OrloParseInt(const char* text, int64_t minimum, int64_t maximum, int64_t* result) {
  if (text == nullptr || result == nullptr) {
    return false;
  }
  std::string_view digits = orlo::trimmed(text);
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) {
    digits.remove_prefix(1);
  }
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    base = 16;
    digits.remove_prefix(2);
  }
  uint64_t magnitude = 0;
  if (!parseMagnitude(digits, base, &magnitude)) {
    return false;
  }
  constexpr auto kMaximum = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (magnitude > kMaximum + (negative ? 1 : 0)) {
    return false;
  }
  // Two's complement: also right for the most negative number, which has no positive counterpart.
  const auto value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  if (value < minimum || value > maximum) {
    return false;
  }
  *result = value;
  return true;
}
