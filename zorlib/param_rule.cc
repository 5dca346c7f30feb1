#include "zorlib/param_rule.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "base/log.h"

namespace tarnik::zorlib {
namespace {

// The length without white space at the end.
std::size_t trimmedLength(const char* text) noexcept {
  std::size_t length = std::strlen(text);
  while (length > 0 && std::isspace(static_cast<unsigned char>(text[length - 1])) != 0) {
    --length;
  }
  return length;
}

bool isNumber(const char* text) noexcept {
  long number = 0;
  std::array<char, 2> more{};
  return std::sscanf(text, "%li%1s", &number, more.data()) == 1;
}

bool isBitmask(const char* text) noexcept {
  unsigned long mask = 0;
  std::array<char, 2> more{};
  return std::sscanf(text, "%lx%1s", &mask, more.data()) == 1;
}

bool wordMatches(const Rule& rule, std::uint32_t place, const Name& name,
                 const char* full) noexcept {
  const char* const matcher = rule.comp[place];
  const char* const word = name.words[place];
  if (matcher == ZORLIB_WORD_ANY) {
    TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Matched component %u (%s) - any", rule.id,
                 place, word);
    return true;
  }
  if (matcher == ZORLIB_WORD_NUMBER) {
    if (!isNumber(word)) {
      TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Failed numeric match (%u) in param %s",
                   rule.id, place, full);
      return false;
    }
    TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Matched component %u (%s) - num", rule.id,
                 place, word);
    return true;
  }
  if (::strcasecmp(matcher, word) != 0) {
    TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u No match to word '%s'", rule.id, word);
    return false;
  }
  TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Matched component %u (%s) - exact", rule.id,
               place, word);
  return true;
}

Verdict checkValue(const Rule& rule, const Value& value) noexcept {
  switch (rule.type) {
    case ZORLIB_VALUE_NUMBER:
      if (isNumber(value.text)) {
        return Verdict::kAccepted;
      }
      TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Numeric value mismatch (%.*s)", rule.id,
                   value.length, value.text);
      return Verdict::kRefused;
    case ZORLIB_VALUE_STRING:
      if (value.length == 0) {
        return Verdict::kRefused;
      }
      TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u String value accepted (%.*s)", rule.id,
                   value.length, value.text);
      return Verdict::kAccepted;
    case ZORLIB_VALUE_BITMASK:
      if (isBitmask(value.text)) {
        return Verdict::kAccepted;
      }
      TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Bitmask value mismatch (%.*s)", rule.id,
                   value.length, value.text);
      return Verdict::kRefused;
    case ZORLIB_VALUE_ANY:
      if (value.length == 0) {
        return Verdict::kRefused;
      }
      TARNIK_DEBUG(0, "Debug: zorlib_set_param: Rule %u Any value accepted (%.*s)", rule.id,
                   value.length, value.text);
      return Verdict::kAccepted;
    default:
      TARNIK_ERROR("Error: zorlib_set_param: Unknown param value type %u in spec list", rule.type);
      return Verdict::kUnknownType;
  }
}

}  // namespace

const char* skipSpace(const char* text) noexcept {
  while (std::isspace(static_cast<unsigned char>(*text)) != 0) {
    ++text;
  }
  return text;
}

Value::Value(const char* given) noexcept
    : text(skipSpace(given)), length(static_cast<int>(trimmedLength(text))) {}

bool splitName(Name& name, const char* full, const char* rest) noexcept {
  static_cast<void>(std::snprintf(name.text.data(), name.text.size(), "%s", rest));
  name.text[trimmedLength(name.text.data())] = '\0';
  if (name.text[0] == '\0') {
    TARNIK_ERROR("Error: zorlib_set_param: No name components (%s)", full);
    return false;
  }
  for (char* cursor = name.text.data(); cursor != nullptr;) {
    char* const word = ::strsep(&cursor, ".");
    if (std::strpbrk(word, " \t") != nullptr) {
      TARNIK_ERROR("Error: zorlib_set_param: embedded space in name component (%s)", full);
      return false;
    }
    if (*word == '\0') {
      TARNIK_ERROR("Error: zorlib_set_param: null name component (%s)", full);
      return false;
    }
    if (name.count == name.words.size()) {
      TARNIK_ERROR("Error: zorlib_set_param: Too many parameter components (%s)", full);
      return false;
    }
    name.words[name.count++] = word;
  }
  return true;
}

Verdict applyRule(const Rule& rule, std::uint32_t place, const Name& name, const char* full,
                  const Value& value) noexcept {
  TARNIK_DEBUG(0, "Debug: zorlib_set_param: Spec [%u] id %u comp %u / %p %p %p %p type %u", place,
               rule.id, rule.num_comps, static_cast<const void*>(rule.comp[0]),
               static_cast<const void*>(rule.comp[1]), static_cast<const void*>(rule.comp[2]),
               static_cast<const void*>(rule.comp[3]), rule.type);
  if (rule.num_comps != name.count) {
    TARNIK_DEBUG(0,
                 "Debug: zorlib_set_param: Rule %u did not match due to num_comps (%u) vs param "
                 "words (%u)",
                 rule.id, rule.num_comps, name.count);
    return Verdict::kRefused;
  }
  for (std::uint32_t word = 0; word < name.count; ++word) {
    if (!wordMatches(rule, word, name, full)) {
      return Verdict::kRefused;
    }
  }
  return checkValue(rule, value);
}

}  // namespace tarnik::zorlib
