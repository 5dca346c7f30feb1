// Tuning parameters: the registry of rules, and the list of the pairs that a rule accepted.
#include "zorlib/param.h"

#include <strings.h>

#include <iterator>

#include "base/log.h"
#include "zorlib/param_rule.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

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

// Returns the first rule that accepts the pair, or null. Needs the mutex.
const Rule* findRule(const Name& name, const char* full, const Value& value) noexcept {
  const Registry& known = registry();
  for (std::uint32_t i = 0; i < known.count; ++i) {
    switch (applyRule(known.rules[i], i, name, full, value)) {
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
  if (!splitName(parts, name, name + kPrefixLength)) {
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
