// The parameter list, as the look-ups read it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "zorlib/internal.h"

namespace tarnik::zorlib {

// The rules that the library registers.
enum ParamId : std::uint32_t {
  kParamIfgQSize = 1000,
  kParamQueueQSize = 1001,
  kParamFdCount = 1002,
  kParamCpuMask = 1003,
  kParamIfMask = 1004,
};

using Text = std::unique_ptr<char, Free>;

struct Param {
  std::uint32_t id = 0;  // of the rule that accepted it
  std::uint32_t numComps = 0;
  std::array<Text, 4> words;
  Text value;
};

// The parameters in the order in which they were accepted: places 0 to paramCount() - 1. An entry
// never changes. Any thread.
[[nodiscard]] std::size_t paramCount() noexcept;
[[nodiscard]] const Param& param(std::size_t place) noexcept;

// Returns the group's fd_count parameter, or 0 when there is none or it is not usable (1000 to
// 1000000).
[[nodiscard]] std::uint32_t lookupFdCount(const zorlib_ifg& ifg) noexcept;

}  // namespace tarnik::zorlib
