// One process's access to the driver: its state, and the memory that it shares with applications.
#pragma once

#include <sys/stat.h>

#include <array>
#include <memory>
#include <string>

#include "platform/zorvik/os.h"
#include "platform/zorvik/state.h"

namespace tarnik::zorvik {

// Where a node lies: the group's, or the queue's, in the driver's directory.
[[nodiscard]] std::string groupPath(const Group& group);
[[nodiscard]] std::string nodePath(const Group& group, const char* node);

class Driver {
 public:
  // `memory` is a mapping of the state file, `previous` the driver that this one supersedes and
  // keeps, because threads may be inside it. For get().
  Driver(std::unique_ptr<Mapping> memory, Driver* previous) noexcept;

  // The loaded driver, or null. Looks for it when none is known or, with `again`, when another
  // one has been loaded since. What was once returned stays valid for the life of the process.
  // Any thread.
  [[nodiscard]] static Driver* get(bool again = false);

  [[nodiscard]] State& state() const noexcept { return *state_; }

  // The shared memory of a group's descriptors and of a queue, mapped on first use. Null, with
  // errno, when it cannot be mapped. The caller holds the lock; a queue's memory may be kept and
  // used without it.
  [[nodiscard]] zorvik_frm_desc* descriptors(const Group& group);
  [[nodiscard]] std::shared_ptr<Mapping> queueMemory(const Group& group, const Queue& queue);

 private:
  struct Cached {
    std::uint32_t id = 0;  // the group's or queue's
    std::shared_ptr<Mapping> mapping;
  };

  std::unique_ptr<Mapping> memory_;
  std::unique_ptr<Driver> previous_;
  State* state_;
  // Guarded by the driver's lock too, so that a child of fork() never finds them locked.
  std::array<Cached, kMaxGroups> descriptors_;
  std::array<std::array<Cached, kMaxQueues>, kMaxGroups> queues_;
};

// Holds the driver's lock. When its last holder died, repairs the state first.
class Lock {
 public:
  explicit Lock(State& state) noexcept;
  ~Lock() { release(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  void release() noexcept;

 private:
  State* state_;
};

}  // namespace tarnik::zorvik
