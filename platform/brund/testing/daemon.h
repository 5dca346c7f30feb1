// What brund-sim meets in its tests: a driver, and in the daemon's place a command socket and a
// reader of the queue. It needs the driver's stand-in preloaded (see main() in test_daemon.cc) and
// the fixed paths to itself.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/owned.h"
#include "packet/testing/frames.h"
#include "platform/brund/metadata.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {

// A program that runs, what it writes kept. Ended with the object.
class Program {
 public:
  explicit Program(const std::vector<std::string>& command);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void signal(int number) const;
  [[nodiscard]] bool running();
  // Its exit status, -1 when a signal ended it.
  int wait();
  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] std::string output() const;  // so far
  [[nodiscard]] std::string errors() const;

 private:
  pid_t pid_ = -1;
  int status_ = -1;
  bool ended_ = false;
  Stream output_;
  Stream errors_;
};

struct Received {
  std::uint64_t capture = 0;
  Bytes data;
  std::uint32_t wire_len = 0;
  std::uint32_t ts_sec = 0;
  std::uint32_t ts_usec = 0;
  std::int16_t if_in = 0;
  std::int16_t if_out = 0;
  bool last = false;
  bool announced = false;  // its metadata had been sent before
};

inline constexpr char kQueueNode[] = "/dev/zorvik/brund/TarnikQ";

// Loads the driver with the pool `frames` ("SIZExCOUNT,...") and unloads it at the end.
class Driver {
 public:
  explicit Driver(const std::string& frames = "2048x512,65536x16");
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // What zorvikctl status says.
  [[nodiscard]] std::string status() const;
};

// Listens on the daemon's socket, and reads its queue as soon as it is there, until it is stopped
// or destroyed.
class Daemon {
 public:
  // `pauseUs`: how long it takes over each frame. Without `reads` it leaves the frames where they
  // are.
  explicit Daemon(unsigned pauseUs = 0, bool reads = true);
  ~Daemon() { stop(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Reads what is left, then closes socket and queue.
  void stop();
  // After stop():
  [[nodiscard]] const std::vector<Received>& frames() const { return frames_; }
  [[nodiscard]] const std::map<std::uint64_t, brund::Metadata>& metadata() const {
    return metadata_;
  }
  [[nodiscard]] std::vector<Received> framesOf(std::uint64_t capture) const;

 private:
  void serve(bool reads);
  void read();
  void take(zorvik_frm_desc* frame);
  void receiveMetadata();

  unsigned pause_us_;
  OwnedFd socket_;
  zorlib_ifg* group_ = nullptr;
  zorlib_q* queue_ = nullptr;
  std::atomic<bool> stopping_{false};
  std::thread server_;
  std::vector<Received> frames_;
  std::map<std::uint64_t, brund::Metadata> metadata_;
};

// Waits until the queue is there, or `stop`; false when it never came.
[[nodiscard]] bool waitForQueue(const std::function<bool()>& stop);

// brund-sim with these arguments.
[[nodiscard]] std::vector<std::string> brundSim(std::vector<std::string> arguments);

}  // namespace tarnik::test
