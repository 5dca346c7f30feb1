// Look-ups in the parameter list. They never fail: a value that is not usable logs a warning, and
// the caller's default applies.
#include <strings.h>

#include "base/log.h"
#include "zorlib/param.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

// An application's rule may have the id of one of ours but fewer words.
bool wordIs(const Param& entry, std::size_t word, const char* name) noexcept {
  return entry.words[word] && ::strcasecmp(entry.words[word].get(), name) == 0;
}

// Returns the group's first parameter of this rule for which `fits` is true, or null.
template <class Fits>
const Param* find(std::uint32_t id, const zorlib_ifg& ifg, Fits fits) noexcept {
  const std::size_t count = paramCount();
  for (std::size_t i = 0; i < count; ++i) {
    const Param& entry = param(i);
    if (entry.id == id && wordIs(entry, 0, ifg.name.data()) && fits(entry)) {
      return &entry;
    }
  }
  return nullptr;
}

bool always(const Param&) noexcept {
  return true;
}

std::optional<unsigned long> number(const Param& entry) noexcept {
  long value = 0;
  if (std::sscanf(entry.value.get(), "%li", &value) != 1) {
    return std::nullopt;
  }
  return static_cast<unsigned long>(value);  // a negative one is above every bound
}

std::optional<unsigned long> queueSize(const Param& entry) noexcept {
  const std::optional<unsigned long> value = number(entry);
  if (!value) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_qsize: Unexpected parse failure? on '%s'",
                   entry.value.get());
  }
  return value;
}

unsigned long appQueueSize(const zorlib_ifg& ifg, const char* queue) noexcept {
  const Param* const entry = find(kParamQueueQSize, ifg, [queue](const Param& candidate) {
    return wordIs(candidate, 1, queue);
  });
  const std::optional<unsigned long> value = entry ? queueSize(*entry) : std::nullopt;
  if (!value) {
    return 0;
  }
  if (*value < kMinEntries || *value > kMaxEntries) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_qsize: %s q_size out of bounds (%u<=N<=%u)",
                   ifg.name.data(), kMinEntries, kMaxEntries);
    return 0;
  }
  TARNIK_DEBUG(0, "Debug: zorlib_ifg_lookup_qsize: %s Found appq %s size param (%lu)",
               ifg.name.data(), queue, *value);
  return *value;
}

// Asks the driver for the number of the group's interfaces.
unsigned long interfaceCount(zorlib_ifg& ifg) noexcept {
  refreshInterfaces(ifg);
  return ifg.numIfs;
}

unsigned long ifgQueueSize(zorlib_ifg& ifg) noexcept {
  constexpr std::uint32_t kMinPerIf = 500;
  constexpr std::uint32_t kMaxPerIf = 50000;
  const Param* const entry = find(kParamIfgQSize, ifg, always);
  const std::optional<unsigned long> value = entry ? queueSize(*entry) : std::nullopt;
  if (!value) {
    return 0;
  }
  const unsigned long count = interfaceCount(ifg);
  if (*value < kMinPerIf * count || *value > kMaxPerIf * count) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_qsize: %s q_size out of bounds (%u<=N<=%u [per IF])",
                   ifg.name.data(), kMinPerIf, kMaxPerIf);
    return 0;
  }
  TARNIK_DEBUG(0, "Debug: zorlib_ifg_lookup_qsize: %s Found q_size param (%lu)", ifg.name.data(),
               *value);
  return *value;
}

unsigned long mask(zorlib_ifg* ifg, std::uint32_t id, std::uint32_t n) noexcept {
  if (!checkHandle(ifg)) {
    return 0;
  }
  const Param* const entry = find(id, *ifg, [n](const Param& candidate) {
    long place = 0;
    return candidate.words[1] && std::sscanf(candidate.words[1].get(), "%li", &place) == 1 &&
           place == long{n};
  });
  unsigned long value = 0;
  if (entry != nullptr) {
    static_cast<void>(std::sscanf(entry->value.get(), "%lx", &value));
  }
  return value;
}

}  // namespace

namespace tarnik::zorlib {

std::optional<unsigned long> lookupFdCount(const zorlib_ifg& ifg) noexcept {
  const Param* const entry = find(kParamFdCount, ifg, always);
  return entry ? number(*entry) : std::nullopt;
}

}  // namespace tarnik::zorlib

extern "C" {

unsigned long zorlib_ifg_lookup_qsize(zorlib_ifg* ifg, const char* queue) {
  if (!checkHandle(ifg)) {
    return 0;
  }
  return queue != nullptr ? appQueueSize(*ifg, queue) : ifgQueueSize(*ifg);
}

unsigned long zorlib_ifg_lookup_if_mask(zorlib_ifg* ifg, uint32_t n) {
  const unsigned long value = mask(ifg, kParamIfMask, n);
  if (value == 0) {
    return 0;
  }
  const unsigned long count = interfaceCount(*ifg);
  if (value >> count != 0) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_if_mask: %s if_mask %lx for %lu interfaces",
                   ifg->name.data(), value, count);
    return 0;
  }
  return value;
}

unsigned long zorlib_ifg_lookup_cpu_mask(zorlib_ifg* ifg, uint32_t n) {
  return mask(ifg, kParamCpuMask, n);
}

}  // extern "C"
