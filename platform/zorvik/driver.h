// One process's access to the driver: the state and the memory shared with applications.
#pragma once

#include <sys/types.h>

#include <array>
#include <memory>
#include <string>

#include "platform/zorvik/os.h"
#include "platform/zorvik/state.h"

namespace tarnik::zorvik {

// The path of a group's directory, and of a node in it.
[[nodiscard]] std::string groupPath(const Group& group);
[[nodiscard]] std::string nodePath(const Group& group, const std::string& node);

class Driver {
 public:
  // For latest(). `memory` is a mapping of the state file.
  Driver(std::unique_ptr<Mapping> memory, Driver* previous) noexcept;

  // The loaded driver, or null. get() returns the one that this process has used before, if any;
  // latest() looks whether another one was loaded since. The result stays valid until the process
  // ends. Any thread.
  [[nodiscard]] static Driver* get();
  [[nodiscard]] static Driver* latest();

  [[nodiscard]] State& state() const noexcept { return *state_; }

  // The number of this process, 1 to kMaxProcesses, for processLives(); 0 when all are taken. A
  // number is free again after its process died. The caller holds the lock.
  [[nodiscard]] std::uint8_t process();
  [[nodiscard]] bool hasProcess() const;
  [[nodiscard]] static bool processLives(std::uint8_t process);

  // The shared memory of a group's descriptors and of a queue, mapped on first use. Null, with
  // errno, when it cannot be mapped. The caller holds the lock; the memory of a queue can also be
  // used without it.
  [[nodiscard]] zorvik_frm_desc* descriptors(const Group& group);
  [[nodiscard]] std::shared_ptr<Mapping> queueMemory(const Group& group, const Queue& queue);

 private:
  struct Cached {
    std::uint32_t id = 0;  // of the group or queue
    std::shared_ptr<Mapping> mapping;
  };

  std::unique_ptr<Mapping> memory_;
  std::unique_ptr<Driver> previous_;  // kept because other threads may still use it
  State* state_;
  // The process has a number while it has this mapping of the control node: the mapping keeps an
  // open file description, which has locked the byte with that offset. The kernel removes the lock
  // with the process. A child of fork() shares the mapping until it takes its own number.
  std::unique_ptr<Mapping> registration_;
  std::uint8_t process_ = 0;
  pid_t registeredPid_ = 0;
  // Guarded by the driver's lock, so that a child of fork() never finds them locked.
  std::array<Cached, kMaxGroups> descriptors_;
  std::array<std::array<Cached, kMaxQueues>, kMaxGroups> queues_;
};

// Holds the driver's lock. When the previous holder died, the constructor first repairs the state.
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
