// For tests of whole runs of brund-sim: a driver, a stand-in for the daemon, and a fixture that
// starts brund-sim. These tests need the driver stand-in preloaded (main() here starts the test
// again with it) and a private root for the fixed paths.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/owned.h"
#include "base/testing/files.h"
#include "base/testing/process.h"
#include "command/message.h"
#include "packet/testing/frames.h"
#include "zorlib/zorlib.h"

namespace tarnik::test {

// Loads the driver with the frame pool `frames` ("SIZExCOUNT,...") and unloads it at the end.
class Driver {
 public:
  explicit Driver(const std::string& frames = "2048x512,65536x16");
  ~Driver();
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // The output of `zorvikctl status`.
  [[nodiscard]] std::string status() const;
};

// A frame that the stand-in for the daemon took from the queue.
struct Received {
  std::uint64_t capture = 0;
  Bytes data;
  std::uint32_t wireLength = 0;
  std::uint32_t seconds = 0;
  std::uint32_t microseconds = 0;
  std::int16_t ifIn = 0;
  std::int16_t ifOut = 0;
  bool last = false;
  bool announced = false;  // its metadata came before it
};

// Listens on the daemon's socket, opens the queue when it appears, and reads it.
class Daemon {
 public:
  enum class Reads : std::uint8_t {
    kFrames,      // and the metadata at once; takes `pauseUs` for each frame
    kSlowSocket,  // frames at once, but takes `pauseUs` for each metadata request
    kNothing,
  };

  explicit Daemon(Reads reads = Reads::kFrames, unsigned pauseUs = 0);
  ~Daemon() { stop(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Frames in the queue, and frames taken from it so far.
  [[nodiscard]] std::uint32_t queued() const;
  [[nodiscard]] std::size_t taken() const { return taken_; }
  // Reads what is left, then closes the socket and the queue.
  void stop();
  // After stop():
  [[nodiscard]] const std::vector<Received>& frames() const { return frames_; }
  [[nodiscard]] const std::map<std::uint64_t, CaptureMetadata>& metadata() const {
    return metadata_;
  }
  [[nodiscard]] std::vector<Received> framesOf(std::uint64_t capture) const;

 private:
  void serve(Reads reads);
  void read();
  void readSlowSocket();
  void take(zorvik_frm_desc* frame);
  bool receiveMetadata();  // one request; false when there is none
  void receiveAllMetadata();

  unsigned pauseUs_;
  OwnedFd socket_;
  zorlib_ifg* group_ = nullptr;
  std::atomic<zorlib_q*> queue_{nullptr};
  std::atomic<std::size_t> taken_{0};
  std::atomic<bool> stopping_{false};
  std::thread server_;
  std::vector<Received> frames_;
  std::map<std::uint64_t, CaptureMetadata> metadata_;
};

// Waits until brund-sim has created the queue. False when `stop` became true before.
[[nodiscard]] bool waitForQueue(const std::function<bool()>& stop);

// Runs brund-sim.
class RunTest : public ::testing::Test {
 protected:
  // Writes an input file; its path.
  [[nodiscard]] std::string file(const std::string& name, const std::string& text) const {
    writeFile(dir_ / name, text);
    return dir_ / name;
  }
  // Starts brund-sim with these rules, a small queue and an account.
  void start(const std::string& rules, const std::vector<std::string>& arguments);
  // Its exit status; -1 after a signal.
  int finish() { return program_->wait().exitStatus; }
  // Sends SIGINT until brund-sim ends: the first one ends its input, the second one its wait for
  // the daemon.
  int interrupt();
  [[nodiscard]] std::string errors() const { return program_->errors(); }
  [[nodiscard]] std::string account() const { return readFile(account_).value_or(""); }

  TempDir dir_;
  const std::string account_ = dir_ / "account.json";
  std::string queueSize_ = "51";  // rounded up to 63 frames
  std::unique_ptr<Process> program_;
};

}  // namespace tarnik::test
