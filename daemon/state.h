// The daemon's life-cycle state. Clients ask for it, and each change is logged; no code branches on
// it.
#pragma once

#include <cstdint>

namespace tarnik {

enum : unsigned {
  kStarting = 1,
  kStarted = 2,
  kStopping = 3,
  kStopped = 4,
  kFailedToStart = 5,
  kReloading = 6,
  kConfigurationInvalid = 7,
};

// The current state's code; 0 before the first setState. Main thread.
extern std::uint8_t DaemonState;

// Stores the low byte of `state`, raises that state's event and logs its line. Main thread.
void setState(unsigned state);

}  // namespace tarnik
