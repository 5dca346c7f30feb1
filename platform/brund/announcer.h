// Announces captures to the daemon over its command socket. One thread.
#pragma once

#include <cstdint>
#include <string>

#include "base/owned.h"
#include "base/result.h"
#include "command/message.h"

namespace tarnik::brund {

inline constexpr char kDaemonSocket[] = "/run/orlo/tarnikd.sock";

class Announcer {
 public:
  enum class Sent : std::uint8_t { kSent, kFull, kNoDaemon };

  explicit Announcer(std::string path = kDaemonSocket) : path_(std::move(path)) {}

  [[nodiscard]] const std::string& path() const { return path_; }
  // Connects to the daemon's socket unless connected. An error when no daemon listens.
  [[nodiscard]] Result<> connect();
  // Whether a daemon listens now.
  [[nodiscard]] bool daemonListens() const;
  // Sends a metadata request without blocking. After kNoDaemon the next call connects again, to a
  // restarted daemon.
  [[nodiscard]] Sent send(const CaptureMetadata& metadata);
  // The socket, to wait for room in the daemon's; -1 unless connected.
  [[nodiscard]] int fd() const { return fd_.get(); }
  // Waits up to `ms` milliseconds for room in the daemon's socket. A signal ends the wait.
  void waitForRoom(int ms) const;
  // Waits up to `ms` milliseconds until the daemon has received everything. So the metadata
  // of a capture arrives before its first frame, which may be its last.
  void waitUntilReceived(int ms) const;

 private:
  // Empty, with errno, on failure.
  [[nodiscard]] OwnedFd openConnection() const;

  std::string path_;
  OwnedFd fd_;
  std::uint64_t messageId_ = 0;
};

}  // namespace tarnik::brund
