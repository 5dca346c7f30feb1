#include "platform/zorvik/groups.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/ring.h"

namespace tarnik::zorvik {

namespace {

// Nodes are created under this name and renamed when they are complete. No group or queue has a
// name that begins with a dot.
constexpr char kHidden[] = ZORVIK_DEV_DIR "/.new";

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

// Checks the name of a new node in a directory that has the nodes `first` and `second` already.
int checkName(std::string_view name, std::string_view first, std::string_view second) {
  if (name.size() > ZORVIK_NAME_MAX) {
    return -ENAMETOOLONG;
  }
  const bool bad = name.empty() || name.front() == '.' ||
                   name.find('/') != std::string_view::npos || name == first || name == second;
  return bad ? -EINVAL : 0;
}

void setName(char (&to)[ZORVIK_NAME_MAX + 1], std::string_view name) {
  std::memset(to, 0, sizeof(to));
  std::memcpy(to, name.data(), name.size());
}

std::string hiddenNode(const char* node) {
  return std::string(kHidden) + "/" + node;
}

void removeDirectory(const std::string& path) {
  ::unlink((path + "/" ZORVIK_IFG_CTL).c_str());
  ::unlink((path + "/" ZORVIK_IFG_FRM_DESC).c_str());
  ::rmdir(path.c_str());
}

void discardQueue(const Group& group, Queue& queue) {
  queue.life = Life::kPending;
  ::unlink(kHidden);
  ::unlink(nodePath(group, queue.name).c_str());
  queue.life = Life::kFree;
}

void discardGroup(State& state, Group& group) {
  group.life = Life::kPending;
  for (Queue& queue : group.queues) {
    if (queue.life != Life::kFree) {
      discardQueue(group, queue);
    }
  }
  removeDirectory(kHidden);
  removeDirectory(groupPath(group));
  releaseFrames(state, group);
  group.life = Life::kFree;
}

int makeGroupNodes(Group& group) {
  if (::mkdir(kHidden, 0770) != 0 || ::chmod(kHidden, 0770) != 0) {
    return -errno;
  }
  const Fd ctl = Fd::create(hiddenNode(ZORVIK_IFG_CTL));
  if (!ctl) {
    return -errno;
  }
  const Fd desc = Fd::create(hiddenNode(ZORVIK_IFG_FRM_DESC));
  if (!desc) {
    return -errno;
  }
  group.ctlInode = inodeOf(ctl.get());
  group.descInode = inodeOf(desc.get());
  return ::rename(kHidden, groupPath(group).c_str()) == 0 ? 0 : -errno;
}

int makeQueueNode(const Group& group, Queue& queue) {
  const Fd node = Fd::create(kHidden);
  if (!node) {
    return -errno;
  }
  const int result = commit(node.get(), 0, queue.memSize());
  const Mapping memory(node.get(), queue.memSize());
  if (result != 0 || !memory) {
    return result != 0 ? result : -errno;
  }
  Ring(memory.base(), queue.slots).init(queue.producerHandle(), queue.consumerHandle());
  queue.inode = inodeOf(node.get());
  return ::rename(kHidden, nodePath(group, queue.name).c_str()) == 0 ? 0 : -errno;
}

// The first entry for which `matches` is true, or null.
template <typename Entry, std::size_t N, typename Matches>
Entry* find(Entry (&entries)[N], Matches matches) {
  Entry* const found = std::find_if(entries, entries + N, matches);
  return found == entries + N ? nullptr : found;
}

template <typename Entry, std::size_t N>
Entry* freeEntry(Entry (&entries)[N]) {
  return find(entries, [](const Entry& each) { return each.life == Life::kFree; });
}

template <typename Entry, std::size_t N>
Entry* findByName(Entry (&entries)[N], std::string_view name) {
  return find(entries,
              [=](const Entry& each) { return each.life == Life::kLive && name == each.name; });
}

}  // namespace

Group* findGroup(State& state, std::string_view name) {
  return findByName(state.groups, name);
}

Queue* findQueue(Group& group, std::string_view name) {
  return findByName(group.queues, name);
}

int createGroup(Driver& driver, std::string_view name) {
  if (const int result = checkName(name, "ctl", "net_data"); result != 0) {
    return result;
  }
  if (name == ZORVIK_IFG_NIL_NAME) {
    return -EINVAL;
  }
  State& state = driver.state();
  if (findGroup(state, name) != nullptr || exists(std::string(ZORVIK_DEV_DIR "/").append(name))) {
    return -EEXIST;
  }
  Group* group = freeEntry(state.groups);
  if (group == nullptr) {
    return -ENOSPC;
  }
  *group = Group{};
  group->id = ++state.lastId;
  group->freeHead = kNone;
  setName(group->name, name);
  group->life = Life::kPending;
  if (const int result = makeGroupNodes(*group); result != 0) {
    discardGroup(state, *group);
    return result;
  }
  group->life = Life::kLive;
  return 0;
}

int removeGroup(Driver& driver, std::string_view name) {
  Group* group = findGroup(driver.state(), name);
  if (group == nullptr) {
    return -ENOENT;
  }
  bool idle =
      isIdle(nodePath(*group, ZORVIK_IFG_CTL)) && isIdle(nodePath(*group, ZORVIK_IFG_FRM_DESC));
  for (const Queue& queue : group->queues) {
    idle = idle && (queue.life != Life::kLive || isIdle(nodePath(*group, queue.name)));
  }
  if (!idle) {
    return -EBUSY;
  }
  discardGroup(driver.state(), *group);
  return 0;
}

int createQueue(Driver& driver, Group& group, std::string_view name, std::uint32_t type,
                std::uint32_t size) {
  if (type < ZORVIK_Q_INGRESS || type > ZORVIK_Q_RAW || size == 0 || size > kMaxQueueSize) {
    return -EINVAL;
  }
  if (const int result = checkName(name, ZORVIK_IFG_CTL, ZORVIK_IFG_FRM_DESC); result != 0) {
    return result;
  }
  if (findQueue(group, name) != nullptr || exists(nodePath(group, std::string(name)))) {
    return -EEXIST;
  }
  Queue* queue = freeEntry(group.queues);
  if (queue == nullptr) {
    return -ENOSPC;
  }
  *queue = Queue{};
  queue->id = ++driver.state().lastId;
  queue->type = type;
  queue->requested = size;
  queue->slots = std::bit_ceil(size < 2 ? 2 : size);
  setName(queue->name, name);
  queue->life = Life::kPending;
  if (const int result = makeQueueNode(group, *queue); result != 0) {
    discardQueue(group, *queue);
    return result;
  }
  queue->life = Life::kLive;
  return static_cast<int>(queue->id);
}

int removeQueue(Driver& driver, Group& group, std::uint32_t id) {
  Queue* queue = find(group.queues,
                      [=](const Queue& each) { return each.life == Life::kLive && each.id == id; });
  if (queue == nullptr) {
    return -ENOENT;
  }
  if (!isIdle(nodePath(group, queue->name))) {
    return -EBUSY;
  }
  if (const auto memory = driver.queueMemory(group, *queue); memory != nullptr) {
    for (const std::uint64_t entry : Ring(memory->base(), queue->slots).contents()) {
      (void)freeFrame(driver, group, static_cast<std::uint32_t>(entry));
    }
  }
  discardQueue(group, *queue);
  return 0;
}

void repairQueue(Driver& driver, Group& group, const Queue& queue) {
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return;
  }
  const Ring ring(memory->base(), queue.slots);
  ring.init(queue.producerHandle(), queue.consumerHandle());
  const std::uint32_t first = ring.dequeue();
  const std::uint32_t used = ring.used();
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < queue.slots; ++i) {
    const std::uint64_t entry = ring.entry(first + i).load();
    if (entry == 0) {
      continue;
    }
    if (i >= used) {
      ring.entry(first + i).store(0);
      (void)freeFrame(driver, group, static_cast<std::uint32_t>(entry));
    } else if (kept++ != i) {
      ring.entry(first + i).store(0);
      ring.entry(first + kept - 1).store(entry);
    }
  }
  ring.setEnqueue(first + kept);
  ring.setDequeue(first);
}

void recover(State& state) {
  for (Group& group : state.groups) {
    if (group.life == Life::kPending) {
      discardGroup(state, group);
    }
    for (Queue& queue : group.queues) {
      if (group.life == Life::kLive && queue.life == Life::kPending) {
        discardQueue(group, queue);
      }
    }
  }
  rebuildFreeLists(state);
}

}  // namespace tarnik::zorvik
