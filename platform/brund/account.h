// The account of a run: every frame of a capture was either queued or refused for a reason. One
// thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "packet/decode.h"
#include "platform/brund/rules.h"

namespace tarnik::brund {

enum class Refusal : std::uint8_t {
  kNoFrame,       // the driver's pool had no frame
  kQueueFull,     // the queue had no room
  kTooLarge,      // captured length above 65535, or above every buffer of the pool
  kEmpty,         // captured length 0
  kMetadataFull,  // the daemon's command socket had no room for the capture's metadata
  kNoDaemon,      // no daemon listened on the command socket
  kAfterClose,    // live: the flow's connection had closed and the capture was over
  kStopped,       // the run was stopped while the frame waited for room
  kCount
};
[[nodiscard]] const char* toText(Refusal reason);

class Account {
 public:
  struct Capture {
    std::uint64_t id = 0;
    FlowKey flow;
    Trigger trigger;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;  // captured bytes of the queued frames
    bool ended = false;       // a frame with the last-frame flag was queued
  };

  // Counts a frame of the input.
  void seen() { ++seen_; }
  // Counts a frame that belongs to a capture. Then one of the next two must be called for it.
  void matched() { ++matched_; }
  void refused(Refusal reason) { ++refused_[static_cast<std::size_t>(reason)]; }
  // `capture` is the result of begin().
  void queued(std::size_t capture, std::size_t bytes, bool last);
  // Begins a capture, before its first queued frame.
  [[nodiscard]] std::size_t begin(std::uint64_t id, const FlowKey& flow, const Trigger& trigger);
  // Adds a line about input that could not be read, or why the run ended early.
  void problem(const std::string& line) { problems_.push_back(line); }
  // Sets the number of frames that the kernel dropped.
  void dropped(std::uint64_t frames) { dropped_ = frames; }

  [[nodiscard]] std::uint64_t matchedFrames() const { return matched_; }
  [[nodiscard]] std::uint64_t queuedFrames() const { return queued_; }
  [[nodiscard]] std::uint64_t refusedFrames() const;
  [[nodiscard]] const std::vector<std::string>& problems() const { return problems_; }
  [[nodiscard]] bool balanced() const { return matched_ == queued_ + refusedFrames(); }
  // Whether every frame of a capture was queued, and the kernel dropped none. Frames that come
  // after the close of their connection do not count: their capture has ended.
  [[nodiscard]] bool complete() const;
  // One line with the numbers.
  [[nodiscard]] std::string summary() const;
  // One line that says in words which frames were not queued, and why.
  [[nodiscard]] std::string verdict() const;
  // The content of account.json (platform/README.md).
  [[nodiscard]] std::string json() const;

 private:
  // Further captures are only counted, so that a long run needs limited memory.
  static constexpr std::size_t kMaxListed = 500000;

  std::uint64_t seen_ = 0;
  std::uint64_t matched_ = 0;
  std::uint64_t queued_ = 0;
  std::uint64_t captures_ = 0;
  std::uint64_t dropped_ = 0;
  std::array<std::uint64_t, static_cast<std::size_t>(Refusal::kCount)> refused_{};
  std::vector<Capture> list_;
  std::vector<std::string> problems_;
};

// One line on the terminal that shows the progress of a run.
class Progress {
 public:
  // Shows nothing when `quiet` or when standard error is not a terminal.
  Progress(const Account& account, bool quiet);
  // Removes the line.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows the account's summary, cut to the width of the terminal, at most twice a second.
  void show();
  // The same, but shows the number of frames that a replay has read ahead.
  void showRead(std::uint64_t frames);

 private:
  [[nodiscard]] bool isDue();
  void print(std::string line);

  const Account& account_;
  bool on_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tarnik::brund
