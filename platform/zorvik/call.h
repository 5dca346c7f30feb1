// A request that the driver serves, and how its services are listed.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/zorvik/driver.h"

namespace tarnik::zorvik {

enum class Node { kDriverCtl, kNetData, kGroupCtl, kFrmDesc, kQueue };

// The argument is not null where the request has one. It is the application's memory: what is
// checked there is to be copied first.
struct Call {
  Driver& driver;
  Lock& lock;  // held; a service that sleeps releases it
  int fd;
  void* argument;
  Group* group;  // of kGroupCtl, kFrmDesc and kQueue
  Queue* queue;  // of kQueue

  [[nodiscard]] State& state() const { return driver.state(); }
  template <typename T>
  [[nodiscard]] T& as() const {
    return *static_cast<T*>(argument);
  }
};

// The name in a field that is not terminated when it is full.
template <std::size_t N>
std::string_view nameIn(const char (&field)[N]) {
  return {field, ::strnlen(field, N)};
}

// The services on a group's control node. Results: 0 or more, or a negative errno.
[[nodiscard]] int ifgQuery(Call& call);
[[nodiscard]] int ifgSetFlags(Call& call);
[[nodiscard]] int ifgConfigure(Call& call);
[[nodiscard]] int ifgStats(Call& call);
[[nodiscard]] int qpairSet(Call& call);
[[nodiscard]] int qpairGet(Call& call);
[[nodiscard]] int frmDataCreate(Call& call);
[[nodiscard]] int qCreate(Call& call);
[[nodiscard]] int qRemove(Call& call);
[[nodiscard]] int qEnum(Call& call);

}  // namespace tarnik::zorvik
