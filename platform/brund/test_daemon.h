// What stands at the other end of brund-sim in its tests: a driver, a command socket and a reader
// of the queue. It needs the driver's stand-in preloaded (see main() in test_daemon.cc) and the
// fixed paths to itself.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/owned.h"
#include "frameq/zorlib.h"
#include "platform/brund/metadata.h"
#include "platform/brund/test_frames.h"

namespace tarnik::brund::fixture {

// A program that runs, its standard error kept. Ended with the object.
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
  [[nodiscard]] std::string errors() const;  // standard error so far

 private:
  pid_t pid_ = -1;
  int status_ = -1;
  bool ended_ = false;
  std::unique_ptr<std::FILE, StreamCloser> errors_;
};

struct Received {
  std::uint64_t capture = 0;
  Bytes data;
  std::uint32_t wire_len = 0;
  std::uint32_t ts_sec = 0;
  std::uint32_t ts_usec = 0;
  bool last = false;
  bool announced = false;  // its metadata had been sent before
};

// Loads the driver with the pool `frames` ("SIZExCOUNT,...") and unloads it at the end.
class Driver {
 public:
  explicit Driver(const std::string& frames = "2048x512,65536x16");
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;
};

// Listens on the daemon's socket and reads its queue until it is stopped or destroyed.
class Daemon {
 public:
  // The queue must be there. `pauseUs`: how long it takes over each frame. Without `reads` it
  // leaves the frames where they are.
  explicit Daemon(unsigned pauseUs = 0, bool reads = true);
  ~Daemon() { stop(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Reads what is left, then closes socket and queue.
  void stop();
  // After stop():
  [[nodiscard]] const std::vector<Received>& frames() const { return frames_; }
  [[nodiscard]] const std::map<std::uint64_t, Metadata>& metadata() const { return metadata_; }
  [[nodiscard]] std::vector<Received> framesOf(std::uint64_t capture) const;

 private:
  void read();
  void take(zorvik_frm_desc* frame);
  void receiveMetadata();

  unsigned pause_us_;
  OwnedFd socket_;
  zorlib_ifg* group_ = nullptr;
  zorlib_q* queue_ = nullptr;
  std::atomic<bool> stopping_{false};
  std::thread reader_;
  std::vector<Received> frames_;
  std::map<std::uint64_t, Metadata> metadata_;
};

// brund-sim with these arguments.
[[nodiscard]] std::vector<std::string> brundSim(std::vector<std::string> arguments);

}  // namespace tarnik::brund::fixture
