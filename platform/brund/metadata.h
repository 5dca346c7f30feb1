// Tells the daemon, over its command socket, what a capture stands for. One thread.
#pragma once

#include <cstdint>
#include <string>

#include "base/owned.h"

namespace tarnik::brund {

inline constexpr char kDaemonSocket[] = "/run/orlo/tarnikd.sock";

struct Metadata {
  std::uint64_t capture_id = 0;
  std::uint64_t flow_id = 0;
  std::uint32_t trigger_id = 0;
};

class MetadataSender {
 public:
  enum class Sent : std::uint8_t { kSent, kFull, kNoDaemon };

  explicit MetadataSender(std::string path = kDaemonSocket) : path_(std::move(path)) {}

  // Connects to the daemon's socket when it is not yet; false, with errno, when nobody listens.
  [[nodiscard]] bool connect();
  [[nodiscard]] const std::string& path() const { return path_; }
  // Whether a daemon listens at this moment.
  [[nodiscard]] bool daemonListens() const;
  // Sends without blocking. After kNoDaemon the next call connects anew, to a daemon that was
  // restarted.
  [[nodiscard]] Sent send(const Metadata& metadata);
  // Waits up to `ms` milliseconds for room in the daemon's socket, or for a signal.
  void waitForRoom(int ms) const;
  // Waits up to `ms` milliseconds until the daemon has received all that was sent, so that a
  // capture of a single frame finds its metadata there when that frame arrives.
  void waitUntilReceived(int ms) const;

 private:
  [[nodiscard]] OwnedFd connected() const;

  std::string path_;
  OwnedFd fd_;
  std::uint64_t message_id_ = 0;
};

}  // namespace tarnik::brund
