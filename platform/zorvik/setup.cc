#include "platform/zorvik/setup.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/waits.h"

namespace tarnik::zorvik {

namespace {

constexpr char kHiddenCtl[] = ZORVIK_DEV_DIR "/.ctl";

// Held while the driver is loaded or unloaded.
Fd directoryLock() {
  Fd fd(::open(ZORVIK_DEV_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::flock(fd.get(), LOCK_EX) == 0 ? std::move(fd) : Fd();
}

// The bytes of payload memory, or a negative errno.
std::int64_t payloadOf(std::span<const ClassSize> classes) {
  std::uint64_t bytes = 0;
  std::uint64_t buffers = 0;
  std::uint32_t last = 0;
  for (const auto& [bufSize, count] : classes) {
    if (bufSize <= last || bufSize > 65536 || bufSize % 64 != 0 || count == 0) {
      return -EINVAL;
    }
    last = bufSize;
    buffers += count;
    bytes += std::uint64_t{bufSize} * count;
  }
  const bool fits = !classes.empty() && classes.size() <= kMaxClasses && buffers <= kMaxFrames &&
                    bytes <= UINT32_MAX;
  return fits ? static_cast<std::int64_t>(bytes) : -EINVAL;
}

int initLock(pthread_mutex_t& lock) {
  pthread_mutexattr_t attributes;
  ::pthread_mutexattr_init(&attributes);
  ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int result = ::pthread_mutex_init(&lock, &attributes);
  ::pthread_mutexattr_destroy(&attributes);
  return -result;
}

void initClasses(State& state, std::span<const ClassSize> classes) {
  std::uint32_t dataOff = 0;
  for (const auto& [bufSize, count] : classes) {
    state.frameClasses[state.classes++] = {.bufSize = bufSize,
                                           .count = count,
                                           .firstBuffer = state.buffers,
                                           .dataOff = dataOff,
                                           .freeHead = kNone,
                                           .freeCount = 0};
    state.buffers += count;
    dataOff += bufSize * count;
  }
  state.payloadSize = dataOff;
}

// Makes the payload node; its inode in `inode`.
int makeNetData(std::size_t size, std::uint64_t& inode) {
  ::unlink(ZORVIK_NET_DATA_NODE);
  const Fd fd = Fd::create(ZORVIK_NET_DATA_NODE);
  if (!fd) {
    return -errno;
  }
  inode = inodeOf(fd.get());
  return commit(fd.get(), 0, size);
}

// Makes the state file and shows it as the driver's control node.
int makeCtl(std::span<const ClassSize> classes, std::uint64_t netInode) {
  ::unlink(kHiddenCtl);
  const Fd fd = Fd::create(kHiddenCtl);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return -errno;
  }
  std::uint32_t buffers = 0;
  for (const ClassSize& each : classes) {
    buffers += each.count;
  }
  const std::size_t size = State::fileSize(buffers);
  if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) {
    return -errno;
  }
  if (const int result = commit(fd.get(), 0, State::recordsOffset(buffers)); result != 0) {
    return result;
  }
  const Mapping memory(fd.get(), size);
  if (!memory) {
    return -errno;
  }
  State& state = *reinterpret_cast<State*>(memory.base());
  state.magic = kStateMagic;
  state.size = size;
  state.device = status.st_dev;
  state.ctlInode = status.st_ino;
  state.netInode = netInode;
  state.lastId = 0;
  initClasses(state, classes);
  rebuildFreeLists(state);
  if (const int result = initLock(state.lock); result != 0) {
    return result;
  }
  return ::rename(kHiddenCtl, ZORVIK_CTL_NODE) == 0 ? 0 : -errno;
}

}  // namespace

int load(std::span<const ClassSize> classes) {
  const std::int64_t payload = payloadOf(classes);
  if (payload < 0) {
    return static_cast<int>(payload);
  }
  const Fd lock = directoryLock();
  if (!lock) {
    return -errno;
  }
  if (::access(ZORVIK_CTL_NODE, F_OK) == 0) {
    return -EEXIST;
  }
  std::uint64_t netInode = 0;
  int result = makeNetData(static_cast<std::size_t>(payload), netInode);
  if (result == 0) {
    result = makeCtl(classes, netInode);
  }
  if (result != 0) {
    ::unlink(kHiddenCtl);
    ::unlink(ZORVIK_NET_DATA_NODE);
  }
  return result;
}

int unload() {
  const Fd lock = directoryLock();
  Driver* driver = lock ? Driver::get(true) : nullptr;
  if (driver == nullptr || ::access(ZORVIK_CTL_NODE, F_OK) != 0) {
    return -ENODEV;
  }
  const Lock held(driver->state());
  for (const Group& group : driver->state().groups) {
    if (group.life == Life::kLive) {
      if (const int result = removeGroup(*driver, std::string(group.name)); result != 0) {
        return result;
      }
    }
  }
  ::unlink(ZORVIK_CTL_NODE);
  ::unlink(ZORVIK_NET_DATA_NODE);
  // Processes that keep this state mapped are to find none of a later driver's nodes in it.
  driver->state().ctlInode = 0;
  driver->state().netInode = 0;
  return 0;
}

int putEntry(Driver& driver, Group& group, Queue& queue, std::uint64_t entry) {
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  const Ring ring(memory->base(), queue.slots);
  if (ring.full()) {
    return -ENOSPC;
  }
  const std::uint32_t slot = ring.enqueue();
  ring.entry(slot).store(entry);
  ring.setEnqueue(slot + 1);
  ring.flags(false).fetch_or(ZORVIK_RESQ_WOKEN);
  wakeAll(ring, false);
  return 0;
}

int dieReading(Driver& driver, Group& group, Queue& queue) {
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  const Ring ring(memory->base(), queue.slots);
  if (ring.used() == 0) {
    return -ENODATA;
  }
  ring.setDequeue(ring.dequeue() + 1);
  return 0;
}

}  // namespace tarnik::zorvik
