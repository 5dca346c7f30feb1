// The kernel's news about one directory: which of its entries came or went, which of its files
// changed, and whether its path still leads to it.
//
// Every directory on the way to it is watched too, link by link, and so is the mount table: a
// directory that is replaced, moved, mounted over or unmounted ends the watch. So does whatever
// leaves a doubt, for example an overflow of the kernel's queue.
//
// Not thread-safe. Three descriptors, all close-on-exec.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "base/owned.h"

struct inotify_event;

namespace tarnik {

// Who wants the news. The calls come from within DirectoryWatch::collect and may use the watch.
class DirectoryNews {
 public:
  // An entry of that name came, went, or took another's place.
  virtual void entryChanged(const char* name) = 0;
  // A watched file's content may have changed. It may have gone.
  virtual void fileChanged(int file) = 0;
  // An entry came or went in the parent directory.
  virtual void parentChanged() = 0;

 protected:
  ~DirectoryNews() = default;
};

class DirectoryWatch {
 public:
  // Watches the directory that `path` leads to, in place of what was watched. News begin before
  // this returns, so what is looked at afterwards is either seen as it stays, or told. False when
  // it cannot be watched, or lies on a file system that other machines may change.
  [[nodiscard]] bool start(const std::string& path);
  void stop();
  [[nodiscard]] bool running() const { return static_cast<bool>(events_); }

  // Watches the content of the file at `path` itself, through whatever name or descriptor it is
  // written, until it is gone from its file system or unwatched. The file's number, one for all
  // its names, or -1.
  [[nodiscard]] int watchFile(const char* path);
  void unwatchFile(int file);

  // Tells all news since the last call. False when there is a doubt: watch and news are of no use
  // any more. One system call when there is nothing to tell.
  [[nodiscard]] bool collect(DirectoryNews& news);

 private:
  struct Step {
    int directory;
    std::string name;  // what is looked up there
  };

  [[nodiscard]] bool watchRoad(const std::string& path);
  [[nodiscard]] int watchDirectory(const std::string& path);
  [[nodiscard]] bool readEvents(DirectoryNews& news);
  [[nodiscard]] bool tell(const inotify_event& event, DirectoryNews& news);
  [[nodiscard]] bool isDirectory(int watch) const;

  OwnedFd events_;  // inotify
  OwnedFd mounts_;  // the mount table
  OwnedFd either_;  // epoll over both, so that one call asks both
  std::vector<Step> road_;
  int directory_ = -1;
  int parent_ = -1;
  alignas(8) std::array<std::byte, 16384> buffer_;
};

}  // namespace tarnik
