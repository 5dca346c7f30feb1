// How a name and a value are matched against a rule of the parameter registry.
#pragma once

#include <array>
#include <cstdint>

#include "zorlib/zorlib.h"

namespace tarnik::zorlib {

using Rule = zorlib_param_spec;

// Returns the first character of the text that is no white space.
[[nodiscard]] const char* skipSpace(const char* text) noexcept;

// A value without the white space around it, in the caller's text.
struct Value {
  const char* text;  // white space may follow; sscanf skips it
  int length;

  explicit Value(const char* given) noexcept;
};

// The words of a name, which point into its text.
struct Name {
  std::array<char, 128> text{};
  std::array<char*, 4> words{};
  std::uint32_t count = 0;
};

// Splits `rest`, the name after its prefix, into words. False with a log line that shows `full`,
// the whole name.
[[nodiscard]] bool splitName(Name& name, const char* full, const char* rest) noexcept;

enum class Verdict { kAccepted, kRefused, kUnknownType };

// Matches a pair against a rule. `place` is the rule's position in the registry, for the debug log.
[[nodiscard]] Verdict applyRule(const Rule& rule, std::uint32_t place, const Name& name,
                                const char* full, const Value& value) noexcept;

}  // namespace tarnik::zorlib
