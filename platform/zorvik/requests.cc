#include "platform/zorvik/requests.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/zorvik/groups.h"
#include "platform/zorvik/reclaim.h"
#include "platform/zorvik/services.h"

namespace tarnik::zorvik {

namespace {

struct Location {
  Node node;
  Group* group;
  Queue* queue;
};

std::optional<Location> locate(State& state, const NodeFile& file) {
  if (file.device != state.device) {
    return std::nullopt;
  }
  for (Group& group : state.groups) {
    if (group.life != Life::kLive) {
      continue;
    }
    if (file.inode == group.descInode) {
      return Location{Node::kFrmDesc, &group, nullptr};
    }
    if (file.inode == group.ctlInode) {
      return Location{Node::kGroupCtl, &group, nullptr};
    }
    for (Queue& queue : group.queues) {
      if (queue.life == Life::kLive && queue.inode == file.inode) {
        return Location{Node::kQueue, &group, &queue};
      }
    }
  }
  if (file.inode == state.ctlInode || file.inode == state.netInode) {
    const bool isCtl = file.inode == state.ctlInode;
    return Location{isCtl ? Node::kDriverCtl : Node::kNetData, nullptr, nullptr};
  }
  return std::nullopt;
}

std::optional<int> serveOn(Driver& driver, const Service& service, const NodeFile& file,
                           void* argument) {
  Lock lock(driver.state());
  const std::optional<Location> location = locate(driver.state(), file);
  if (!location || location->node != service.node) {
    return std::nullopt;
  }
  if (argument == nullptr && _IOC_SIZE(service.request) != 0) {
    return -EFAULT;
  }
  Call call{driver, lock, argument, location->group, location->queue};
  return service.serve(call);
}

// The caller holds the lock.
void onOpen(Driver& driver, const Location& location, int fd) {
  if (location.node == Node::kQueue && isIdle(nodePath(*location.group, location.queue->name))) {
    repairQueue(driver, *location.group, *location.queue);
  } else if (location.node == Node::kFrmDesc) {
    const bool idle = isIdle(nodePath(*location.group, ZORVIK_IFG_FRM_DESC));
    reclaimFrames(driver, *location.group, idle ? Reclaim::kAll : Reclaim::kOfDead);
  }
  markInUse(fd);
}

}  // namespace

std::optional<NodeFile> fileOf(int fd) noexcept {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return NodeFile{status.st_dev, status.st_ino};
}

std::optional<int> serve(const NodeFile& file, unsigned long request, void* argument) noexcept {
  // The cast: a caller that holds the number in an int passes it sign-extended.
  const Service* service = findService(static_cast<std::uint32_t>(request));
  if (service == nullptr) {
    return std::nullopt;
  }
  try {
    Driver* known = Driver::get();
    std::optional<int> result;
    if (known != nullptr) {
      result = serveOn(*known, *service, file, argument);
    }
    if (!result) {
      Driver* latest = Driver::latest();
      if (latest != nullptr && latest != known) {
        result = serveOn(*latest, *service, file, argument);
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
}

int openNode(OpenFunction open, const char* path, int flags, unsigned mode) noexcept {
  constexpr std::string_view kDirectory = ZORVIK_DEV_DIR "/";
  if (path == nullptr || std::strncmp(path, kDirectory.data(), kDirectory.size()) != 0) {
    return open(path, flags, mode);
  }
  try {
    Driver* driver = Driver::latest();
    if (driver == nullptr) {
      return open(path, flags, mode);
    }
    // With the lock the group cannot be removed between the open and the mark.
    const Lock lock(driver->state());
    const int fd = open(path, flags, mode);
    const int error = errno;
    if (const std::optional<NodeFile> file = fileOf(fd)) {
      if (const auto location = locate(driver->state(), *file);
          location && location->group != nullptr) {
        onOpen(*driver, *location, fd);
      }
    }
    errno = error;
    return fd;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace tarnik::zorvik
