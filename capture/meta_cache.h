// What the analysis daemon has announced about captures: flow and trigger by capture identifier,
// each entry with a time to live.
//
// Thread safety: the main thread adds, dumps, configures and expires, the capture thread looks up
// and refreshes; one reader-writer lock guards the map, held only for the map access itself. The
// first call of instance() is made before the capture thread exists.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>

namespace tarnik {

class TarnikMetaCache {
 public:
  static TarnikMetaCache& instance();

  TarnikMetaCache();
  ~TarnikMetaCache();
  TarnikMetaCache(const TarnikMetaCache&) = delete;
  TarnikMetaCache& operator=(const TarnikMetaCache&) = delete;

  // Sets the life of entries added or refreshed from now on, in seconds.
  void config(int timeout);
  // Adds an entry, or replaces the one of that capture and restarts its life.
  void add(std::uint64_t captureId, std::uint64_t flowId, std::uint32_t triggerId);
  // True with the entry's values, or false with both outputs 0. Expiry times do not matter here.
  bool lookup(std::uint64_t captureId, std::uint64_t& flowId, std::uint32_t& triggerId);
  // Restarts the life of the capture's entry, if there is one.
  void update(std::uint64_t captureId);
  void erase(std::uint64_t captureId);
  // Removes every entry whose time has passed.
  void expire();
  // Writes the entries to the log.
  void dump();

 private:
  struct Entry {
    std::uint64_t flowId;
    std::uint32_t triggerId;
    std::time_t expireTime;
  };

  std::map<std::uint64_t, Entry> entries_;  // guarded by lock_
  pthread_rwlock_t lock_;
  bool lockReady_;
  std::atomic<std::int32_t> timeout_{0};  // relaxed: a plain setting, orders nothing
};

}  // namespace tarnik
