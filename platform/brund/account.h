// The exact account of a run: every frame of a capture was either queued or refused for a reason.
// One thread.
#pragma once

#include <array>
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
  kNoDaemon,      // nobody listened on the command socket
  kAfterClose,    // live: the flow's connection had closed and the capture was over
  kStopped,       // the run was ended while the frame waited for room
  kCount
};
[[nodiscard]] const char* toText(Refusal reason);

class Account {
 public:
  struct Capture {
    std::uint64_t id = 0;
    FlowKey flow;
    RuleKind kind = RuleKind::kIps;
    std::uint32_t trigger = 0;
    std::string name;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;  // captured bytes of the queued frames
    bool ended = false;       // the last-frame flag was queued
  };

  // A frame of the input; one that belongs to a capture; that frame's fate.
  void seen() { ++seen_; }
  void matched() { ++matched_; }
  void refused(Refusal reason) { ++refused_[static_cast<std::size_t>(reason)]; }
  void queued(std::size_t capture, std::size_t bytes, bool last);
  // Begins a capture, before its first queued frame; the result names it to queued().
  [[nodiscard]] std::size_t begin(std::uint64_t id, const FlowKey& flow, const Rule& rule);
  // A line that says what of the input could not be read, or why the run ended early.
  void problem(const std::string& line) { problems_.push_back(line); }
  void dropped(std::uint64_t frames) { dropped_ = frames; }

  [[nodiscard]] std::uint64_t seenFrames() const { return seen_; }
  [[nodiscard]] std::uint64_t matchedFrames() const { return matched_; }
  [[nodiscard]] std::uint64_t queuedFrames() const { return queued_; }
  [[nodiscard]] std::uint64_t refusedFrames() const;
  [[nodiscard]] std::uint64_t refusedFrames(Refusal reason) const {
    return refused_[static_cast<std::size_t>(reason)];
  }
  [[nodiscard]] std::uint64_t captures() const { return captures_; }
  [[nodiscard]] const std::vector<Capture>& captureList() const { return list_; }
  [[nodiscard]] const std::vector<std::string>& problems() const { return problems_; }
  [[nodiscard]] bool balanced() const { return matched_ == queued_ + refusedFrames(); }
  // One line for people.
  [[nodiscard]] std::string summary() const;
  [[nodiscard]] std::string json() const;

 private:
  // Beyond so many captures only the sums are kept, so that a long run stays small.
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

}  // namespace tarnik::brund
