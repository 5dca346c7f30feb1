// The interface group "brund" and its queue "TarnikQ", from their owner's side: created at the
// start, or taken over from a run that could not remove them, and removed at the end. One thread;
// one object per process.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/result.h"
#include "zorlib/zorlib.h"

namespace tarnik::brund {

// Chooses interfaces of this machine for a group of one pair: `first` unless it is empty, then the
// others in the kernel's order, the loopback last. Fewer than two if there are no more.
[[nodiscard]] std::vector<std::string> choosePorts(const std::string& first);

class GroupOwner {
 public:
  GroupOwner() = default;
  GroupOwner(const GroupOwner&) = delete;
  GroupOwner& operator=(const GroupOwner&) = delete;

  // Creates the group with the named interfaces, in pairs, and its queue of `queueSize` entries. An
  // existing group gets these interfaces; an existing queue is not changed and keeps its frames.
  [[nodiscard]] Result<> take(const std::vector<std::string>& ports, std::size_t queueSize);
  // The open group, from take() to remove(). Null when take() failed before it had the group.
  [[nodiscard]] zorlib_ifg* group() const { return group_; }
  // Removes the queue and the group, if there is group(). This process must have closed the queue.
  // The result is empty when both are removed, else the users of what was left: "tarnikd (process
  // 17)", "another process".
  [[nodiscard]] Result<std::string> remove();

 private:
  zorlib_ifg* group_ = nullptr;  // belongs to the TarnikIf functions, which close it
};

}  // namespace tarnik::brund
