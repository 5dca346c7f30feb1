// The interface group "brund" and its queue "TarnikQ", as their owner has them: made at the start,
// or taken over from a run that could not remove them, and removed at the end. One thread; one
// object a process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zorlib/zorlib.h"

namespace tarnik::brund {

// Names of this machine's interfaces for a group of one pair: `first` unless it is empty, then the
// others in the kernel's order, the loopback last. Fewer than two when there are no more.
[[nodiscard]] std::vector<std::string> choosePorts(const std::string& first);

// A reference on an open group.
struct CloseGroup {
  void operator()(zorlib_ifg* group) const noexcept;
};
using GroupHandle = std::unique_ptr<zorlib_ifg, CloseGroup>;

class GroupOwner {
 public:
  enum class Removal : std::uint8_t {
    kDone,
    kInUse,  // by another process: the group stays, and the queue if that has it open
    kFailed,
  };

  GroupOwner() = default;
  GroupOwner(const GroupOwner&) = delete;
  GroupOwner& operator=(const GroupOwner&) = delete;

  // Makes the group for the named interfaces, which are mated as they follow each other, and its
  // queue of `queueSize` entries. A group that is there gets these interfaces; a queue that is
  // there stays as it is, with its frames. False with a reason.
  [[nodiscard]] bool take(const std::vector<std::string>& ports, std::size_t queueSize,
                          std::string& reason);
  // The open group, until remove(); null before take(), and when take() had to leave it as it is.
  [[nodiscard]] zorlib_ifg* group() const { return group_.get(); }
  // Removes queue and group, if there is group(). The process must have closed the queue. Unless
  // done, with a reason: what has failed, or who uses the group: "tarnikd (process 17)", "another
  // process".
  [[nodiscard]] Removal remove(std::string& reason);

 private:
  [[nodiscard]] bool takeGroup(const std::vector<std::string>& ports, std::string& reason);

  GroupHandle group_;
};

}  // namespace tarnik::brund
