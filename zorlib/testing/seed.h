// The seed of randomised tests.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>

namespace tarnik::test {

// A new seed for each run, or that of the variable TARNIK_SEED. Printed, so that a run can be
// repeated as far as the scheduling allows.
inline unsigned chosenSeed() {
  const char* const variable = std::getenv("TARNIK_SEED");
  const unsigned seed = variable != nullptr
                            ? static_cast<unsigned>(std::strtoul(variable, nullptr, 10))
                            : std::random_device()();
  std::printf("TARNIK_SEED=%u\n", seed);
  return seed;
}

}  // namespace tarnik::test
