// The parameter list, for the look-ups.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

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

// The parameters in the order in which they were accepted. Those that a look at the count has
// seen never change and stay where they are. Any thread.
[[nodiscard]] std::size_t paramCount() noexcept;
[[nodiscard]] const Param& param(std::size_t place) noexcept;

// The value of the group's fd_count parameter.
[[nodiscard]] std::optional<unsigned long> lookupFdCount(const zorlib_ifg& ifg) noexcept;

}  // namespace tarnik::zorlib
