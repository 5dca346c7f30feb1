// Tuning parameters: the registry of rules, and the list of the pairs that a rule accepted.
#include "zorlib/param.h"

#include <strings.h>

#include <cctype>
#include <iterator>

#include "base/log.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

using Rule = zorlib_param_spec;

struct Registry {
  std::array<Rule, 32> rules{};
  std::uint32_t count = 0;

  // Appends up to `wanted` rules, as many as fit.
  void append(const Rule* specs, std::uint32_t wanted) noexcept {
    for (std::uint32_t i = 0; i < wanted && count < rules.size(); ++i) {
      rules[count++] = specs[i];
    }
  }
};

Registry libraryRules() noexcept {
  constexpr const char* kAny = ZORLIB_WORD_ANY;
  const char* const number = ZORLIB_WORD_NUMBER;
  const Rule rules[] = {
      {kParamIfgQSize, 2, {kAny, "q_size", {}, {}}, ZORLIB_VALUE_NUMBER},
      {kParamCpuMask, 3, {kAny, number, "cpu_mask", {}}, ZORLIB_VALUE_BITMASK},
      {kParamIfMask, 3, {kAny, number, "if_mask", {}}, ZORLIB_VALUE_BITMASK},
      {kParamQueueQSize, 3, {kAny, kAny, "q_size", {}}, ZORLIB_VALUE_NUMBER},
      {kParamFdCount, 2, {kAny, "fd_count", {}, {}}, ZORLIB_VALUE_NUMBER},
  };
  Registry result;
  result.append(rules, std::size(rules));
  return result;
}

// The mutex guards the registry and the list. Look-ups read the list without it: an entry is
// complete before `paramTotal` counts it.
//
// A static initialiser of the application may run before any of this file's. So the list is
// initialised at compile time, and the registry on first use.
constinit std::mutex mutex;
constinit std::array<Param, 128> params;
constinit std::atomic<std::size_t> paramTotal{0};

// Needs the mutex.
Registry& registry() noexcept {
  static Registry instance = libraryRules();
  return instance;
}

const char* skipSpace(const char* text) noexcept {
  while (std::isspace(static_cast<unsigned char>(*text)) != 0) {
    ++text;
  }
  return text;
}

// The length without white space at the end.
std::size_t trimmedLength(const char* text) noexcept {
  std::size_t length = std::strlen(text);
  while (length > 0 && std::isspace(static_cast<unsigned char>(text[length - 1])) != 0) {
    --length;
  }
  return length;
}

// A value without the white space around it, in the caller's text.
struct Value {
  const char* text;  // white space may follow; sscanf skips it
  int length;

  explicit Value(const char* given) noexcept
      : text(skipSpace(given)), length(static_cast<int>(trimmedLength(text))) {}
};

// The words of a name, which point into its text.
struct Name {
  std::array<char, 128> text{};
  std::array<char*, 4> words{};
  std::uint32_t count = 0;
};

// Splits `rest`, the name after its prefix, into words. False with a log line that shows `full`,
// the whole name.
bool split(Name& name, const char* full, const char* rest) noexcept {
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

enum class Verdict { kAccepted, kRefused, kUnknownType };

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

Verdict apply(const Rule& rule, std::uint32_t place, const Name& name, const char* full,
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

// Returns the first rule that accepts the pair, or null. Needs the mutex.
const Rule* findRule(const Name& name, const char* full, const Value& value) noexcept {
  const Registry& known = registry();
  for (std::uint32_t i = 0; i < known.count; ++i) {
    switch (apply(known.rules[i], i, name, full, value)) {
      case Verdict::kAccepted:
        return &known.rules[i];
      case Verdict::kRefused:
        break;
      case Verdict::kUnknownType:
        return nullptr;
    }
  }
  return nullptr;
}

Text duplicate(const char* text, std::size_t length) noexcept {
  Text copy(static_cast<char*>(std::calloc(length + 1, 1)));
  if (!copy) {
    TARNIK_ERROR("Error: zorlib_set_param: strdup failed - %s", errorText());
    return copy;
  }
  std::memcpy(copy.get(), text, length);
  return copy;
}

// Needs the mutex.
int store(const Rule& rule, const Name& name, const Value& value) noexcept {
  Param entry;
  entry.id = rule.id;
  entry.numComps = name.count;
  for (std::uint32_t word = 0; word < name.count; ++word) {
    entry.words[word] = duplicate(name.words[word], std::strlen(name.words[word]));
    if (!entry.words[word]) {
      return -1;
    }
  }
  entry.value = duplicate(value.text, static_cast<std::size_t>(value.length));
  if (!entry.value) {
    return -1;
  }
  const std::size_t place = paramTotal.load(std::memory_order_relaxed);  // changed under the mutex
  params[place] = std::move(entry);
  paramTotal.store(place + 1, std::memory_order_release);  // pairs with paramCount
  return 0;
}

}  // namespace

namespace tarnik::zorlib {

std::size_t paramCount() noexcept {
  return paramTotal.load(std::memory_order_acquire);  // pairs with store
}

const Param& param(std::size_t place) noexcept {
  return params[place];
}

}  // namespace tarnik::zorlib

extern "C" {

int zorlib_register_params(uint32_t count, const zorlib_param_spec* specs) {
  const std::lock_guard guard(mutex);
  registry().append(specs, specs != nullptr ? count : 0);
  // Only the library's own rules, which came first, are expected.
  TARNIK_ERROR("Error: zorlib_register_params: Too many param specs!");
  return 0;
}

int zorlib_set_param(const char* name, const char* value) {
  constexpr char kPrefix[] = "zorvik.";
  constexpr std::size_t kPrefixLength = sizeof kPrefix - 1;
  if (name == nullptr || value == nullptr) {
    TARNIK_ERROR("Error: zorlib_set_param: Nil name or value (%p %p)",
                 static_cast<const void*>(name), static_cast<const void*>(value));
    return -1;
  }
  const std::lock_guard guard(mutex);
  if (paramCount() >= params.size()) {
    TARNIK_ERROR("Error: zorlib_set_param: Too many parameters, list full (%u)",
                 static_cast<unsigned>(paramCount()));
    return -1;
  }
  name = skipSpace(name);
  if (::strncasecmp(name, kPrefix, kPrefixLength) != 0) {
    TARNIK_ERROR("Error: zorlib_set_param: Not a zorvik parameter (%s)", name);
    return -1;
  }
  Name parts;
  if (!split(parts, name, name + kPrefixLength)) {
    return -1;
  }
  const Value trimmed(value);
  const Rule* const rule = findRule(parts, name, trimmed);
  if (rule == nullptr) {
    TARNIK_WARNING("Warning: zorlib_set_param: Unrecognized param %s/%.*s", name, trimmed.length,
                   trimmed.text);
    return -1;
  }
  return store(*rule, parts, trimmed);
}

}  // extern "C"
