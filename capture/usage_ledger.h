// The sizes of the capture directory's entries, kept true by the kernel's news instead of by
// looking at all of them again.
//
// An entry is either a watched file, looked at again when the kernel tells that it changed, under
// whatever name; or it is looked at each time: links (their target may change anywhere),
// directories and other special files, a file's further names in the directory, and files that
// could not be watched.
//
// Not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "capture/directory_watch.h"

namespace tarnik {

class UsageLedger : private DirectoryNews {
 public:
  // Brings the ledger up to date, from scratch when there is none yet or when it lost track of the
  // directory. Logs a warning, in the directory's order, for every entry without status. False
  // when no ledger can be kept now; nothing was logged then. Costs one system call when nothing
  // happened, and one for each entry to be looked at.
  [[nodiscard]] bool refresh();

  [[nodiscard]] std::uint64_t bytes() const { return bytes_ + selfBytes_ + parentBytes_; }
  [[nodiscard]] std::uint64_t captures() const { return captures_; }

 private:
  struct Entry {
    std::uint64_t size = 0;  // as it is part of the sum
    int watch = -1;          // number of the watched file
    int error = 0;           // why there was no status
    std::size_t rank = 0;    // place in the directory
    bool counted = false;    // has a status
    bool revisited = false;  // is looked at each time
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const {
      return std::hash<std::string_view>{}(name);
    }
  };
  using Entries = std::unordered_map<std::string, Entry, Hash, std::equal_to<>>;
  using Node = Entries::value_type;

  void entryChanged(const char* name) override;
  void fileChanged(int file) override;
  void parentChanged() override { parentStale_ = true; }

  [[nodiscard]] bool rebuild();
  void clear();
  void examine(std::string_view name);
  [[nodiscard]] bool watch(Node& node);
  void unwatch(Node& node);
  void visitAlways(Node& node);
  void visitOnNews(Node& node);
  void forget(Entries::iterator entry);
  void setSize(Node& node, std::uint64_t size);
  void setMissing(Node& node);
  [[nodiscard]] bool measureDirectories();
  [[nodiscard]] bool measureDirectory(const char* name, bool& stale, std::uint64_t& size);
  void revisitAll();
  [[nodiscard]] bool revisit(Node& node);
  void sortByDirectory();
  const char* pathOf(std::string_view name);

  DirectoryWatch watch_;
  Entries entries_;
  std::unordered_map<int, Node*> files_;  // the watched ones
  std::vector<Node*> revisited_;
  std::vector<Node*> visiting_;  // copy of it to go through while it changes
  bool sorted_ = false;          // revisited_ is in the directory's order
  std::uint64_t bytes_ = 0;      // of the entries but "." and ".."
  std::uint64_t captures_ = 0;
  std::uint64_t selfBytes_ = 0;
  std::uint64_t parentBytes_ = 0;
  bool selfStale_ = false;
  bool parentStale_ = false;
  std::string path_;  // of the entry at hand
};

}  // namespace tarnik
