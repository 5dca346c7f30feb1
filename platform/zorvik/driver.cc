#include "platform/zorvik/driver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "platform/zorvik/groups.h"

namespace tarnik::zorvik {

namespace {

// Never freed: other threads may still use it while the process exits.
std::atomic<Driver*> current{nullptr};

struct Opened {
  Fd fd;
  std::size_t size;
};

Opened openNode(const std::string& path) {
  Fd fd = Fd::open(path);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return {Fd(), 0};
  }
  return {std::move(fd), static_cast<std::size_t>(status.st_size)};
}

}  // namespace

std::string groupPath(const Group& group) {
  return std::string(ZORVIK_DEV_DIR "/") + group.name;
}

std::string nodePath(const Group& group, const std::string& node) {
  return groupPath(group) + "/" + node;
}

Driver::Driver(std::unique_ptr<Mapping> memory, Driver* previous) noexcept
    : memory_(std::move(memory)),
      previous_(previous),
      state_(reinterpret_cast<State*>(memory_->base())) {}

namespace {

std::unique_ptr<Driver> attach(Driver* previous) {
  const auto [fd, size] = openNode(ZORVIK_CTL_NODE);
  if (!fd || size < sizeof(State)) {
    return nullptr;
  }
  auto memory = std::make_unique<Mapping>(fd.get(), size);
  if (!*memory) {
    return nullptr;
  }
  const State& state = *reinterpret_cast<const State*>(memory->base());
  if (state.magic != kStateMagic || state.size != size || state.buffers > kMaxFrames ||
      State::fileSize(state.buffers) != size || state.classes > kMaxClasses) {
    return nullptr;
  }
  return std::make_unique<Driver>(std::move(memory), previous);
}

}  // namespace

Driver* Driver::get() {
  Driver* known = current.load(std::memory_order_acquire);
  return known != nullptr ? known : latest();
}

Driver* Driver::latest() {
  static std::mutex attaching;
  const std::lock_guard guard(attaching);
  Driver* known = current.load(std::memory_order_acquire);
  struct stat status {};
  if (::stat(ZORVIK_CTL_NODE, &status) != 0 ||
      (known != nullptr && known->state().ctlInode == status.st_ino &&
       known->state().device == status.st_dev)) {
    return known;
  }
  if (std::unique_ptr<Driver> found = attach(known); found != nullptr) {
    known = found.release();
    current.store(known, std::memory_order_release);
  }
  return known;
}

bool Driver::hasProcess() const {
  return registeredPid_ == ::getpid();
}

std::uint8_t Driver::process() {
  if (hasProcess()) {
    return process_;
  }
  registration_.reset();
  process_ = 0;
  registeredPid_ = ::getpid();
  const Fd fd = Fd::open(ZORVIK_CTL_NODE);
  for (unsigned number = 1; fd && number <= kMaxProcesses; ++number) {
    if (lockByte(fd.get(), number)) {
      registration_ = std::make_unique<Mapping>(fd.get(), 1);
      process_ = *registration_ ? static_cast<std::uint8_t>(number) : std::uint8_t{0};
      break;
    }
  }
  return process_;
}

bool Driver::processLives(std::uint8_t process) {
  const Fd fd = Fd::open(ZORVIK_CTL_NODE);
  return !fd || isByteLocked(fd.get(), process);
}

namespace {

// Maps the group's node unless `mapping` is of that `id` already; then it allocates nothing.
template <typename Cached>
std::shared_ptr<Mapping> mapped(Cached& cached, std::uint32_t id, const Group& group,
                                const char* node, std::size_t size) {
  if (cached.id != id || cached.mapping == nullptr) {
    const auto [fd, fileSize] = openNode(nodePath(group, node));
    cached.mapping = fd && fileSize >= size ? std::make_shared<Mapping>(fd.get(), size) : nullptr;
    if (cached.mapping != nullptr && !*cached.mapping) {
      cached.mapping = nullptr;
    }
    cached.id = id;
  }
  return cached.mapping;
}

}  // namespace

zorvik_frm_desc* Driver::descriptors(const Group& group) {
  const auto mapping = mapped(descriptors_[state_->indexOf(group)], group.id, group,
                              ZORVIK_IFG_FRM_DESC, sizeof(zorvik_frm_desc) * group.records);
  return mapping == nullptr ? nullptr : reinterpret_cast<zorvik_frm_desc*>(mapping->base());
}

std::shared_ptr<Mapping> Driver::queueMemory(const Group& group, const Queue& queue) {
  const auto index = static_cast<std::size_t>(&queue - group.queues);
  return mapped(queues_[state_->indexOf(group)][index], queue.id, group, queue.name,
                queue.memSize());
}

Lock::Lock(State& state) noexcept : state_(&state) {
  if (::pthread_mutex_lock(&state.lock) == EOWNERDEAD) {
    recover(state);
    ++state.deaths;
    ::pthread_mutex_consistent(&state.lock);
  }
}

void Lock::release() noexcept {
  if (state_ != nullptr) {
    ::pthread_mutex_unlock(&std::exchange(state_, nullptr)->lock);
  }
}

}  // namespace tarnik::zorvik
