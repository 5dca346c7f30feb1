#include "capture/usage_ledger.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "capture/directory.h"

namespace tarnik {
namespace {

bool isGone(const char* path) {
  struct stat status {};
  return ::lstat(path, &status) != 0 && errno == ENOENT;
}

}  // namespace

bool UsageLedger::refresh() {
  if (watch_.running() && !watch_.collect(*this)) {
    clear();
  }
  if (!watch_.running() && !rebuild()) {
    clear();
    return false;
  }
  if (!measureDirectories()) {
    clear();
    return false;
  }
  revisitAll();
  return true;
}

bool UsageLedger::rebuild() {
  if (!watch_.start(kCaptureDir)) {
    return false;
  }
  const Directory directory(::opendir(kCaptureDir));
  if (!directory) {
    return false;
  }
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      examine(name);
    }
  }
  sorted_ = true;
  selfStale_ = true;
  parentStale_ = true;
  return true;
}

void UsageLedger::clear() {
  watch_.stop();
  files_.clear();
  revisited_.clear();
  entries_.clear();
  bytes_ = 0;
  captures_ = 0;
}

void UsageLedger::entryChanged(const char* name) {
  selfStale_ = true;
  examine(name);
}

void UsageLedger::fileChanged(int file) {
  const auto found = files_.find(file);
  if (found == files_.end()) {
    return;
  }
  Node& node = *found->second;
  struct stat status {};
  if (::lstat(pathOf(node.first), &status) == 0 && S_ISREG(status.st_mode)) {
    setSize(node, static_cast<std::uint64_t>(status.st_size));
  } else {
    examine(node.first);
  }
}

// Looks at what goes by that name now.
void UsageLedger::examine(std::string_view name) {
  struct stat status {};
  bool found = ::lstat(pathOf(name), &status) == 0;
  auto entry = entries_.find(name);
  if (!found && errno == ENOENT) {
    forget(entry);
    return;
  }
  if (entry == entries_.end()) {
    entry = entries_.try_emplace(std::string(name)).first;
  }
  Node& node = *entry;
  if (found && S_ISREG(status.st_mode)) {
    // Looked at again: it may have changed before it was watched.
    found = watch(node) && ::lstat(path_.c_str(), &status) == 0;
  }
  if (found && S_ISREG(status.st_mode)) {
    visitOnNews(node);
    setSize(node, static_cast<std::uint64_t>(status.st_size));
  } else {
    unwatch(node);
    visitAlways(node);
  }
}

bool UsageLedger::watch(Node& node) {
  const int file = watch_.watchFile(path_.c_str());
  if (file < 0) {
    return false;
  }
  if (file == node.second.watch) {
    return true;
  }
  unwatch(node);
  Node*& owner = files_[file];
  if (owner != nullptr) {  // another name of the file, or a former one whose end is yet to be told
    owner->second.watch = -1;
    visitAlways(*owner);
  }
  owner = &node;
  node.second.watch = file;
  return true;
}

void UsageLedger::unwatch(Node& node) {
  if (node.second.watch >= 0) {
    watch_.unwatchFile(node.second.watch);
    files_.erase(node.second.watch);
    node.second.watch = -1;
  }
}

void UsageLedger::visitAlways(Node& node) {
  sorted_ = false;  // also a name that stays may have changed its place
  if (!node.second.revisited) {
    node.second.revisited = true;
    revisited_.push_back(&node);
  }
}

void UsageLedger::visitOnNews(Node& node) {
  if (node.second.revisited) {
    node.second.revisited = false;
    std::erase(revisited_, &node);
  }
}

void UsageLedger::forget(Entries::iterator entry) {
  if (entry == entries_.end()) {
    return;
  }
  setMissing(*entry);
  visitOnNews(*entry);
  unwatch(*entry);
  entries_.erase(entry);
}

void UsageLedger::setSize(Node& node, std::uint64_t size) {
  if (!node.second.counted) {
    node.second.counted = true;
    captures_ += isCaptureFile(node.first.c_str()) ? 1 : 0;
  }
  bytes_ += size - node.second.size;
  node.second.size = size;
}

void UsageLedger::setMissing(Node& node) {
  if (node.second.counted) {
    node.second.counted = false;
    captures_ -= isCaptureFile(node.first.c_str()) ? 1 : 0;
    bytes_ -= std::exchange(node.second.size, 0);
  }
}

bool UsageLedger::measureDirectories() {
  return measureDirectory(".", selfStale_, selfBytes_) &&
         measureDirectory("..", parentStale_, parentBytes_);
}

bool UsageLedger::measureDirectory(const char* name, bool& stale, std::uint64_t& size) {
  if (!stale) {
    return true;
  }
  struct stat status {};
  if (::stat(pathOf(name), &status) != 0) {
    return false;
  }
  size = static_cast<std::uint64_t>(status.st_size);
  stale = false;
  return true;
}

void UsageLedger::revisitAll() {
  if (revisited_.empty()) {
    return;
  }
  visiting_ = revisited_;
  const auto missing = std::count_if(visiting_.begin(), visiting_.end(),
                                     [this](Node* node) { return !revisit(*node); });
  if (missing == 0) {
    return;
  }
  if (missing > 1 && !sorted_) {
    sortByDirectory();
  }
  for (const Node* const node : revisited_) {
    if (node->second.error != 0) {
      warnOfMissingStatus(pathOf(node->first), node->second.error);
    }
  }
}

// False when the entry is there but has no status. The node may be gone afterwards.
bool UsageLedger::revisit(Node& node) {
  struct stat status {};
  node.second.error = 0;
  if (::stat(pathOf(node.first), &status) == 0) {
    setSize(node, static_cast<std::uint64_t>(status.st_size));
    return true;
  }
  const int error = errno;
  if (error == ENOENT && isGone(path_.c_str())) {
    forget(entries_.find(node.first));
    return true;
  }
  setMissing(node);
  node.second.error = error;
  return false;
}

void UsageLedger::sortByDirectory() {
  const Directory directory(::opendir(kCaptureDir));
  if (!directory) {
    return;
  }
  std::size_t rank = 0;
  while (const dirent* const listed = ::readdir(directory.get())) {
    const auto entry = entries_.find(std::string_view(listed->d_name));
    if (entry != entries_.end()) {
      entry->second.rank = ++rank;
    }
  }
  std::sort(revisited_.begin(), revisited_.end(), [](const Node* one, const Node* other) {
    return one->second.rank < other->second.rank;
  });
  sorted_ = true;
}

const char* UsageLedger::pathOf(std::string_view name) {
  path_.assign(kCaptureDir).append(name);
  return path_.c_str();
}

}  // namespace tarnik
