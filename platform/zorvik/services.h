// The services of the driver: one function for each ioctl request.
#pragma once

#include <cstdint>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

enum class Node { kDriverCtl, kNetData, kGroupCtl, kFrmDesc, kQueue };

struct Call {
  Driver& driver;
  Lock& lock;  // held; a service that sleeps releases it
  // Not null if the request has an argument. It is the application's memory: a service copies a
  // value before it checks it.
  void* argument;
  Group* group;  // of kGroupCtl, kFrmDesc and kQueue
  Queue* queue;  // of kQueue

  [[nodiscard]] State& state() const { return driver.state(); }
  template <typename T>
  [[nodiscard]] T& as() const {
    return *static_cast<T*>(argument);
  }
};

struct Service {
  std::uint32_t request;
  Node node;
  int (*serve)(Call&);  // returns 0 or more, or a negative errno
};

// Null for a request that the driver does not have.
[[nodiscard]] const Service* findService(std::uint32_t request);

}  // namespace tarnik::zorvik
