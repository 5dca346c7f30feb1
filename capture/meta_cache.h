// What the analysis daemon has announced about captures: the flow and the trigger of each capture
// identifier, with a time to live.
//
// Thread safety: one reader-writer lock guards the entries. Each operation holds it only while it
// accesses them. Only the main thread adds, erases and expires entries. The capture thread looks
// entries up and refreshes them, so it never changes the shape of the map. The main thread must
// call instance() before the capture thread exists.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <unordered_map>

namespace tarnik {

class TarnikMetaCache {
 public:
  static TarnikMetaCache& instance();

  TarnikMetaCache();
  ~TarnikMetaCache();
  TarnikMetaCache(const TarnikMetaCache&) = delete;
  TarnikMetaCache& operator=(const TarnikMetaCache&) = delete;

  // Sets the life of entries added or refreshed from now on, in seconds. Main thread.
  void config(int timeout);
  // Adds an entry, or replaces the capture's entry and restarts its life. Throws std::bad_alloc
  // when there is no memory; the entries are then unchanged. Main thread.
  void add(std::uint64_t captureId, std::uint64_t flowId, std::uint32_t triggerId);
  // Returns true and the entry's values, or false and zeroes. Finds an entry past its time too,
  // until expire removes it. Any thread.
  [[nodiscard]] bool lookup(std::uint64_t captureId, std::uint64_t& flowId,
                            std::uint32_t& triggerId);
  // Restarts the life of the capture's entry, if there is one. Any thread.
  void update(std::uint64_t captureId);
  // Removes the capture's entry, if there is one. Main thread.
  void erase(std::uint64_t captureId);
  // Removes every entry whose time ended before the current second. Main thread.
  void expire();
  // Logs all entries at informational priority. Main thread.
  void dump();

 private:
  struct Entry {
    std::uint64_t flowId;
    std::uint32_t triggerId;
    std::time_t expireTime;
  };
  using Entries = std::unordered_map<std::uint64_t, Entry>;

  [[nodiscard]] std::time_t expireTimeFrom(std::time_t now) const;
  // Calls `visit` for all entries by ascending captureId; `visit` may erase its entry. Every frame
  // needs an entry, but the order is needed rarely: the map is unordered and sorted on demand.
  // Without memory for that, the order is undefined.
  template <typename Visit>
  void visitAscending(Visit visit);

  Entries entries_;  // guarded by lock_
  pthread_rwlock_t lock_;
  const bool lockReady_;
  std::atomic<std::int32_t> timeout_{0};  // seconds; relaxed: it orders nothing
};

}  // namespace tarnik
