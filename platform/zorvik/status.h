// The driver's state for people.
#pragma once

#include <cstdio>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

// Prints pool, groups, queues and faults. The caller holds the lock.
void printStatus(std::FILE* out, Driver& driver);

}  // namespace tarnik::zorvik
