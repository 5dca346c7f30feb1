#include "platform/zorvik/setup.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/waits.h"

namespace tarnik::zorvik {

namespace {

constexpr char kHiddenCtl[] = ZORVIK_DEV_DIR "/.ctl";

// A lock for loading and unloading, held while the result exists.
Fd directoryLock() {
  Fd fd(::open(ZORVIK_DEV_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::flock(fd.get(), LOCK_EX) == 0 ? std::move(fd) : Fd();
}

struct Pool {
  std::uint64_t bytes = 0;
  std::uint64_t buffers = 0;
};

// The size of the pool, or nothing for one that the driver cannot have.
std::optional<Pool> poolOf(std::span<const ClassSize> classes) {
  Pool pool;
  std::uint32_t last = 0;
  for (const auto& [bufSize, count] : classes) {
    if (bufSize <= last || bufSize > 65536 || bufSize % 64 != 0 || count == 0) {
      return std::nullopt;
    }
    last = bufSize;
    pool.buffers += count;
    pool.bytes += std::uint64_t{bufSize} * count;
  }
  const bool fits = !classes.empty() && classes.size() <= kMaxClasses &&
                    pool.buffers <= kMaxFrames && pool.bytes <= UINT32_MAX;
  return fits ? std::optional(pool) : std::nullopt;
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

// Creates the payload node and stores its inode.
int makeNetData(std::size_t size, std::uint64_t& inode) {
  ::unlink(ZORVIK_NET_DATA_NODE);
  const Fd fd = Fd::create(ZORVIK_NET_DATA_NODE);
  if (!fd) {
    return -errno;
  }
  inode = inodeOf(fd.get());
  return commit(fd.get(), 0, size);
}

// Creates the state file and gives it the name of the control node when it is complete.
int makeCtl(std::span<const ClassSize> classes, const Pool& pool, std::uint64_t netInode) {
  ::unlink(kHiddenCtl);
  const Fd fd = Fd::create(kHiddenCtl);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return -errno;
  }
  const auto buffers = static_cast<std::uint32_t>(pool.buffers);
  const std::size_t size = State::fileSize(buffers);
  if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) {
    return -errno;
  }
  const int result = commit(fd.get(), 0, State::recordsOffset(buffers));
  const Mapping memory(fd.get(), size);
  if (result != 0 || !memory) {
    return result != 0 ? result : -errno;
  }
  State& state = *reinterpret_cast<State*>(memory.base());
  state.magic = kStateMagic;
  state.size = size;
  state.device = status.st_dev;
  state.ctlInode = status.st_ino;
  state.netInode = netInode;
  initClasses(state, classes);
  rebuildFreeLists(state);
  if (const int error = initLock(state.lock); error != 0) {
    return error;
  }
  return ::rename(kHiddenCtl, ZORVIK_CTL_NODE) == 0 ? 0 : -errno;
}

}  // namespace

int load(std::span<const ClassSize> classes) {
  const std::optional<Pool> pool = poolOf(classes);
  if (!pool) {
    return -EINVAL;
  }
  const Fd lock = directoryLock();
  if (!lock) {
    return -errno;
  }
  if (::access(ZORVIK_CTL_NODE, F_OK) == 0) {
    return -EEXIST;
  }
  std::uint64_t netInode = 0;
  int result = makeNetData(pool->bytes, netInode);
  if (result == 0) {
    result = makeCtl(classes, *pool, netInode);
  }
  if (result != 0) {
    ::unlink(kHiddenCtl);
    ::unlink(ZORVIK_NET_DATA_NODE);
  }
  return result;
}

int unload() {
  const Fd lock = directoryLock();
  Driver* driver = lock ? Driver::latest() : nullptr;
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
  // Processes that still map this state must not find the nodes of a later driver in it.
  driver->state().ctlInode = 0;
  driver->state().netInode = 0;
  return 0;
}

int injectFault(Driver& driver, const Group& group, const Queue& queue, QueueFault fault,
                std::uint64_t entry) {
  const auto memory = driver.queueMemory(group, queue);
  if (memory == nullptr) {
    return -ENOMEM;
  }
  const Ring ring(memory->base(), queue.slots);
  if (fault == QueueFault::kDeadReader) {
    if (ring.used() == 0) {
      return -ENODATA;
    }
    ring.setDequeue(ring.dequeue() + 1);
    return 0;
  }
  if (ring.full()) {
    return -ENOSPC;
  }
  const std::uint32_t slot = ring.enqueue();
  ring.entry(slot).store(fault == QueueFault::kEntry ? entry : 0);
  ring.setEnqueue(slot + 1);
  std::atomic_ref(ring.flags(Side::kConsumer)).fetch_or(ZORVIK_RESQ_WOKEN);
  wakeAll(ring, Side::kConsumer);
  return 0;
}

}  // namespace tarnik::zorvik
