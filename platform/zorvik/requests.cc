#include "platform/zorvik/requests.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/zorvik/services.h"

namespace tarnik::zorvik {

namespace {

// True if the inode is a node of the kind `node`; sets the call's group and queue.
bool locate(Call& call, Node node, std::uint64_t inode) {
  State& state = call.state();
  if (node == Node::kDriverCtl || node == Node::kNetData) {
    return inode == (node == Node::kDriverCtl ? state.ctlInode : state.netInode);
  }
  for (Group& group : state.groups) {
    if (group.life != Life::kLive) {
      continue;
    }
    call.group = &group;
    if (node != Node::kQueue) {
      if (inode == (node == Node::kGroupCtl ? group.ctlInode : group.descInode)) {
        return true;
      }
      continue;
    }
    call.queue = std::find_if(group.queues, group.queues + kMaxQueues, [=](const Queue& each) {
      return each.life == Life::kLive && each.inode == inode;
    });
    if (call.queue != group.queues + kMaxQueues) {
      return true;
    }
  }
  return false;
}

std::optional<int> serveOn(Driver& driver, const Service& service, const NodeFile& file, int fd,
                           void* argument) {
  if (driver.state().device != file.device) {
    return std::nullopt;
  }
  Lock lock(driver.state());
  Call call{driver, lock, fd, argument, nullptr, nullptr};
  if (!locate(call, service.node, file.inode)) {
    return std::nullopt;
  }
  if (argument == nullptr && _IOC_SIZE(service.request) != 0) {
    return -EFAULT;
  }
  if (service.node == Node::kGroupCtl) {
    markInUse(fd);
  }
  return service.serve(call);
}

}  // namespace

std::optional<NodeFile> fileOf(int fd) noexcept {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return NodeFile{status.st_dev, status.st_ino};
}

std::optional<int> serve(int fd, const NodeFile& file, unsigned long request,
                         void* argument) noexcept {
  // The cast: a caller that holds the number in an int passes it sign-extended.
  const Service* service = findService(static_cast<std::uint32_t>(request));
  if (service == nullptr) {
    return std::nullopt;
  }
  try {
    Driver* known = Driver::get();
    std::optional<int> result;
    if (known != nullptr) {
      result = serveOn(*known, *service, file, fd, argument);
    }
    if (!result) {
      Driver* latest = Driver::latest();
      if (latest != nullptr && latest != known) {
        result = serveOn(*latest, *service, file, fd, argument);
      }
    }
    return result;
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  }
}

}  // namespace tarnik::zorvik
