// What the analysis daemon has announced about captures: flow and trigger by capture identifier,
// each entry with a time to live.
//
// Thread safety: one reader-writer lock guards the entries, held only for the access to them. Only
// the main thread adds, erases and expires; the capture thread looks up and refreshes, which never
// changes the map's shape. The first call of instance() is made before the capture thread exists.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <unordered_map>
#include <vector>

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
  // Adds an entry, or replaces the one of that capture and restarts its life. Main thread.
  void add(std::uint64_t captureId, std::uint64_t flowId, std::uint32_t triggerId);
  // True with the entry's values, or false with both outputs 0. An entry whose time has passed is
  // found as long as expire has not removed it. Any thread.
  [[nodiscard]] bool lookup(std::uint64_t captureId, std::uint64_t& flowId,
                            std::uint32_t& triggerId);
  // Restarts the life of the capture's entry, if there is one. Any thread.
  void update(std::uint64_t captureId);
  // Removes the capture's entry, if there is one. Main thread.
  void erase(std::uint64_t captureId);
  // Removes every entry whose time lies before the current second. Main thread.
  void expire();
  // Writes the entries to the log, at informational priority. Main thread.
  void dump();

 private:
  struct Entry {
    std::uint64_t flowId;
    std::uint32_t triggerId;
    std::time_t expireTime;
  };

  [[nodiscard]] std::time_t expireTimeFrom(std::time_t now) const;

  using Entries = std::unordered_map<std::uint64_t, Entry>;

  // All entries by ascending captureId. The order is asked for rarely, an entry for every frame.
  [[nodiscard]] std::vector<Entries::iterator> ascending();

  Entries entries_;  // guarded by lock_
  pthread_rwlock_t lock_;
  const bool lockReady_;
  std::atomic<std::int32_t> timeout_{0};  // seconds; relaxed: a plain setting, orders nothing
};

}  // namespace tarnik
