#include "platform/zorvik/driver.h"

#include <atomic>
#include <cerrno>
#include <mutex>

#include "platform/zorvik/groups.h"

namespace tarnik::zorvik {

namespace {

// The driver in use. Never freed: other threads may be inside it, also while the process exits.
std::atomic<Driver*> current{nullptr};

}  // namespace

std::string groupPath(const Group& group) {
  return std::string(ZORVIK_DEV_DIR "/") + group.name;
}

std::string nodePath(const Group& group, const char* node) {
  return groupPath(group) + "/" + node;
}

Driver::Driver(std::unique_ptr<Mapping> memory, Driver* previous) noexcept
    : memory_(std::move(memory)),
      previous_(previous),
      state_(reinterpret_cast<State*>(memory_->base())) {}

namespace {

std::unique_ptr<Driver> attach(Driver* previous) {
  const Fd fd = Fd::open(ZORVIK_CTL_NODE);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return nullptr;
  }
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size < sizeof(State)) {
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

Driver* Driver::get(bool again) {
  Driver* known = current.load(std::memory_order_acquire);
  if (known != nullptr && !again) {
    return known;
  }
  struct stat status {};
  if (::stat(ZORVIK_CTL_NODE, &status) != 0) {
    return known;
  }
  static std::mutex attaching;
  const std::lock_guard guard(attaching);
  known = current.load(std::memory_order_acquire);
  if (known != nullptr && known->state().ctlInode == status.st_ino &&
      known->state().device == status.st_dev) {
    return known;
  }
  if (std::unique_ptr<Driver> found = attach(known); found != nullptr) {
    known = found.release();
    current.store(known, std::memory_order_release);
  }
  return known;
}

namespace {

std::shared_ptr<Mapping> mapped(const std::string& path, std::size_t size) {
  const Fd fd = Fd::open(path);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || static_cast<std::size_t>(status.st_size) < size) {
    return nullptr;
  }
  auto mapping = std::make_shared<Mapping>(fd.get(), size);
  return *mapping ? mapping : nullptr;
}

}  // namespace

zorvik_frm_desc* Driver::descriptors(const Group& group) {
  Cached& cached = descriptors_[state_->indexOf(group)];
  if (cached.id != group.id || cached.mapping == nullptr) {
    cached.mapping =
        mapped(nodePath(group, ZORVIK_IFG_FRM_DESC), sizeof(zorvik_frm_desc) * group.records);
    cached.id = group.id;
  }
  return cached.mapping == nullptr ? nullptr
                                   : reinterpret_cast<zorvik_frm_desc*>(cached.mapping->base());
}

std::shared_ptr<Mapping> Driver::queueMemory(const Group& group, const Queue& queue) {
  const auto index = static_cast<std::size_t>(&queue - group.queues);
  Cached& cached = queues_[state_->indexOf(group)][index];
  if (cached.id != queue.id || cached.mapping == nullptr) {
    cached.mapping = mapped(nodePath(group, queue.name), queue.memSize());
    cached.id = queue.id;
  }
  return cached.mapping;
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
