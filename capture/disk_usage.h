// How much of the capture directory is used: the bytes of all its entries, "." and ".." included,
// and the number of entries whose name contains ".pcap". Links are followed. Subdirectories are not
// searched.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/owned.h"

namespace tarnik {

// Lists the directory and adds up the sizes. An entry without status is not counted and is logged
// as a warning. A directory that cannot be opened is logged as an error; both counters then keep
// their values. Any thread.
void scanDiskUsage(std::uint64_t& diskUsed, std::uint64_t& filesUsed);

// The same numbers after every frame, at a cost that does not depend on the number of files.
//
// Remembers the size of every entry. The kernel reports which entries change (inotify), and only
// those are examined again. Once a second, update() scans the directory and so finds what the
// kernel does not report: a write through a link or in a long system call, a subdirectory that
// grows, a directory that is mounted over. Where inotify is not available it scans every time.
//
// Not thread-safe.
class DiskUsage {
 public:
  // Sets both counters, or logs an error and leaves them if the directory cannot be opened. Exact
  // for regular files of one name; anything else is up to a second old. Makes one system call and
  // allocates nothing when nothing has changed since the last scan.
  void update(std::uint64_t& diskUsed, std::uint64_t& filesUsed);

 private:
  struct Entry {
    std::uint64_t size = 0;
    std::uint64_t scan = 0;  // number of the last scan that found it
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const {
      return std::hash<std::string_view>{}(name);
    }
  };
  using Entries = std::unordered_map<std::string, Entry, Hash, std::equal_to<>>;

  [[nodiscard]] bool applyEvents();
  void examine(const char* name);
  [[nodiscard]] bool scan();
  void watchDirectory();
  void record(std::string_view name, std::uint64_t size);
  Entries::iterator erase(Entries::iterator entry);

  OwnedFd events_;  // inotify
  OwnedFd ready_;   // epoll on it: half the cost of a read that finds no event
  int watch_ = -1;  // the directory's number there, or -1 if it is not watched
  Entries entries_;
  std::uint64_t bytes_ = 0;     // sum of all entries
  std::uint64_t captures_ = 0;  // entries that are capture files
  std::uint64_t scans_ = 0;
  std::int64_t nextScan_ = 0;  // monotonic milliseconds
  alignas(8) std::array<std::byte, 16384> buffer_;
};

}  // namespace tarnik
