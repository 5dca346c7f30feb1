#include "capture/meta_cache.h"

#include <algorithm>
#include <new>
#include <vector>

#include "base/log.h"

namespace tarnik {
namespace {

// Memory for the hash index of this many entries is reserved at the start, so that the index never
// grows while the other thread waits for the lock.
constexpr std::size_t kUsualEntries = 10000;

// Holds a reader-writer lock. `acquire` locks it for reading or for writing.
class Guard {
 public:
  Guard(pthread_rwlock_t& lock, int (*acquire)(pthread_rwlock_t*)) : lock_(lock) {
    acquire(&lock_);
  }
  ~Guard() { pthread_rwlock_unlock(&lock_); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  pthread_rwlock_t& lock_;
};

}  // namespace

TarnikMetaCache& TarnikMetaCache::instance() {
  static TarnikMetaCache cache;
  return cache;
}

TarnikMetaCache::TarnikMetaCache() : lockReady_(pthread_rwlock_init(&lock_, nullptr) == 0) {
  try {
    entries_.reserve(kUsualEntries);
  } catch (const std::bad_alloc&) {  // the index grows later
  }
}

TarnikMetaCache::~TarnikMetaCache() {
  if (lockReady_) {
    pthread_rwlock_destroy(&lock_);
  }
}

// The timeout is added as an unsigned number: a negative timeout is a very long life.
std::time_t TarnikMetaCache::expireTimeFrom(std::time_t now) const {
  return now + static_cast<std::uint32_t>(timeout_.load(std::memory_order_relaxed));
}

void TarnikMetaCache::config(int timeout) {
  TARNIK_DEBUG(3, "Debug: %s: timeout=%d", "config", timeout);
  timeout_.store(timeout, std::memory_order_relaxed);
}

void TarnikMetaCache::add(std::uint64_t captureId, std::uint64_t flowId, std::uint32_t triggerId) {
  TARNIK_DEBUG(3, "Debug: %s: Add metatdata for 0x%lx", "add", captureId);
  const std::time_t now = std::time(nullptr);
  const Guard guard(lock_, pthread_rwlock_wrlock);
  entries_[captureId] = {flowId, triggerId, expireTimeFrom(now)};
}

bool TarnikMetaCache::lookup(std::uint64_t captureId, std::uint64_t& flowId,
                             std::uint32_t& triggerId) {
  TARNIK_DEBUG(3, "Debug: %s: Lookup metadata for 0x%lx", "lookup", captureId);
  flowId = 0;
  triggerId = 0;
  const Guard guard(lock_, pthread_rwlock_rdlock);
  const auto found = entries_.find(captureId);
  if (found == entries_.end()) {
    return false;
  }
  flowId = found->second.flowId;
  triggerId = found->second.triggerId;
  return true;
}

void TarnikMetaCache::update(std::uint64_t captureId) {
  TARNIK_DEBUG(3, "Debug: %s: Update expireTime for 0x%lx", "update", captureId);
  const Guard guard(lock_, pthread_rwlock_wrlock);
  const auto found = entries_.find(captureId);
  if (found != entries_.end()) {
    found->second.expireTime = expireTimeFrom(std::time(nullptr));
  }
}

void TarnikMetaCache::erase(std::uint64_t captureId) {
  TARNIK_DEBUG(3, "Debug: %s: Remove metadata for 0x%lx", "erase", captureId);
  const Guard guard(lock_, pthread_rwlock_wrlock);
  entries_.erase(captureId);
}

void TarnikMetaCache::expire() {
  if (entries_.empty()) {  // no lock: only this thread changes the shape of the map
    return;
  }
  TARNIK_DEBUG(3, "Debug: %s: entry", "expire");
  const std::time_t now = std::time(nullptr);
  const Guard guard(lock_, pthread_rwlock_wrlock);
  visitAscending([&](Entries::iterator item) {
    const auto& [captureId, entry] = *item;
    if (now > entry.expireTime) {
      TARNIK_DEBUG(3, "Debug: %s: Expiring 0x%lx (flowId=0x%lx, triggerId=0x%x)", "expire",
                   captureId, entry.flowId, entry.triggerId);
      entries_.erase(item);
    }
  });
}

void TarnikMetaCache::dump() {
  const Guard guard(lock_, pthread_rwlock_rdlock);
  TARNIK_INFO("%s: TarnikMetaCache", "dump");
  visitAscending([](Entries::iterator item) {
    const auto& [captureId, entry] = *item;
    TARNIK_INFO("0x%lx: 0x%lx 0x%x", captureId, entry.flowId, entry.triggerId);
  });
}

template <typename Visit>
void TarnikMetaCache::visitAscending(Visit visit) {
  std::vector<Entries::iterator> items;
  try {
    items.reserve(entries_.size());
  } catch (const std::bad_alloc&) {
    for (auto next = entries_.begin(); next != entries_.end();) {
      visit(next++);
    }
    return;
  }
  for (auto item = entries_.begin(); item != entries_.end(); ++item) {
    items.push_back(item);
  }
  std::sort(items.begin(), items.end(),
            [](const auto& one, const auto& other) { return one->first < other->first; });
  for (const Entries::iterator item : items) {
    visit(item);
  }
}

}  // namespace tarnik
