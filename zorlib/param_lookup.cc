// Look-ups in the parameter list. They never fail: a value that is not usable logs a warning, and
// the caller's default applies.
#include <strings.h>

#include <optional>

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

// Returns queue pair `n`'s first parameter of this rule, or null.
const Param* findMask(std::uint32_t id, const zorlib_ifg& ifg, std::uint32_t n) noexcept {
  return find(id, ifg, [n](const Param& candidate) {
    long index = 0;
    return candidate.words[1] && std::sscanf(candidate.words[1].get(), "%li", &index) == 1 &&
           index == long{n};
  });
}

// A mask as an entry gives it. Not usable: no hexadecimal number (0 bits), or more than 64 bits
// (all bits).
struct Mask {
  unsigned long bits = 0;
  bool usable = true;
};

Mask maskOf(const Param& entry) noexcept {
  const int savedErrno = errno;
  errno = 0;
  char* end = nullptr;
  Mask mask;
  mask.bits = std::strtoul(entry.value.get(), &end, 16);
  mask.usable = end != entry.value.get() && errno == 0;
  errno = savedErrno;
  return mask;
}

}  // namespace

namespace tarnik::zorlib {

std::uint32_t lookupFdCount(const zorlib_ifg& ifg) noexcept {
  constexpr std::uint32_t kMin = 1000;
  constexpr std::uint32_t kMax = 1000000;
  const Param* const entry = find(kParamFdCount, ifg, always);
  if (entry == nullptr) {
    return 0;
  }
  const std::optional<unsigned long> value = number(*entry);
  if (!value || *value < kMin || *value > kMax) {
    TARNIK_WARNING(
        "Warning: zorlib_ifg_create_frm_data: %s fd_count out of bounds (%u<=N<=%u [per IF])",
        ifg.name.data(), kMin, kMax);
    return 0;
  }
  return static_cast<std::uint32_t>(*value);
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
  const Param* const entry = checkHandle(ifg) ? findMask(kParamIfMask, *ifg, n) : nullptr;
  if (entry == nullptr) {
    return 0;
  }
  const Mask mask = maskOf(*entry);
  const unsigned long count = interfaceCount(*ifg);
  if (!mask.usable || mask.bits >> count != 0) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_if_mask: %s if_mask %lx for %lu interfaces",
                   ifg->name.data(), mask.bits, count);
    return 0;
  }
  return mask.bits;
}

unsigned long zorlib_ifg_lookup_cpu_mask(zorlib_ifg* ifg, uint32_t n) {
  const Param* const entry = checkHandle(ifg) ? findMask(kParamCpuMask, *ifg, n) : nullptr;
  if (entry == nullptr) {
    return 0;
  }
  const Mask mask = maskOf(*entry);
  if (!mask.usable) {
    TARNIK_WARNING("Warning: zorlib_ifg_lookup_cpu_mask: Unexpected parse failure? on '%s'",
                   entry->value.get());
    return 0;
  }
  return mask.bits;
}

}  // extern "C"
