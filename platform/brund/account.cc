#include "platform/brund/account.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>

namespace tarnik::brund {
namespace {

using Json = nlohmann::ordered_json;

// By Refusal: its name in the account, and its words.
constexpr struct {
  const char* name;
  const char* words;
} kReasons[] = {
    {"no frame in the pool", "the driver had no free frame"},
    {"queue full", "the queue was full"},
    {"too large", "longer than a frame of the driver"},
    {"empty", "without data"},
    {"metadata socket full", "the daemon did not accept new captures fast enough"},
    {"no daemon", "no daemon listened"},
    {"after close", "after the close of their connection"},
    {"stopped", "the run was stopped"},
};
static_assert(std::size(kReasons) == static_cast<std::size_t>(Refusal::kCount));

// File names and rule names may be in any encoding; JSON is UTF-8.
std::string dump(const Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string hex(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%" PRIx64, value);
  return text;
}

// The two identifiers are strings: they have 64 bits, and many readers' numbers only 53.
Json toJson(const Account::Capture& capture) {
  return {{"id", hex(capture.id)},
          {"flow_id", std::to_string(capture.flow.id())},
          {"flow", capture.flow.text()},
          {"trigger",
           {{"kind", toText(capture.trigger.kind)},
            {"id", capture.trigger.id},
            {"name", capture.trigger.name}}},
          {"frames", capture.frames},
          {"bytes", capture.bytes},
          {"ended", capture.ended}};
}

}  // namespace

const char* toText(Refusal reason) {
  return kReasons[static_cast<std::size_t>(reason)].name;
}

std::size_t Account::begin(std::uint64_t id, const FlowKey& flow, const Trigger& trigger) {
  ++captures_;
  if (list_.size() >= kMaxListed) {
    return kMaxListed;
  }
  list_.push_back({id, flow, trigger, 0, 0, false});
  return list_.size() - 1;
}

void Account::queued(std::size_t capture, std::size_t bytes, bool last) {
  ++queued_;
  if (capture < list_.size()) {
    ++list_[capture].frames;
    list_[capture].bytes += bytes;
    list_[capture].ended = list_[capture].ended || last;
  }
}

std::uint64_t Account::refusedFrames() const {
  return std::accumulate(refused_.begin(), refused_.end(), std::uint64_t{0});
}

std::string Account::summary() const {
  std::string text = std::to_string(seen_) + " frames seen, " + std::to_string(matched_) +
                     " matched, " + std::to_string(queued_) + " queued in " +
                     std::to_string(captures_) + " captures, " + std::to_string(refusedFrames()) +
                     " refused";
  const char* separator = " (";
  for (std::size_t i = 0; i < refused_.size(); ++i) {
    if (refused_[i] != 0) {
      text += separator + std::to_string(refused_[i]) + " " + toText(static_cast<Refusal>(i));
      separator = ", ";
    }
  }
  text += separator[0] == ',' ? ")" : "";
  if (dropped_ != 0) {
    text += ", " + std::to_string(dropped_) + " dropped by the kernel before they were seen";
  }
  return text;
}

bool Account::complete() const {
  const std::uint64_t late = refused_[static_cast<std::size_t>(Refusal::kAfterClose)];
  return matched_ == queued_ + late && dropped_ == 0;
}

std::string Account::verdict() const {
  std::string text;
  if (matched_ == 0) {
    text = "nothing was queued: no frame matched a rule";
  } else if (matched_ == queued_) {
    text = "all " + std::to_string(matched_) + " matched frames were queued";
  } else {
    text = std::to_string(matched_ - queued_) + " of " + std::to_string(matched_) +
           " matched frames were not queued";
    const char* separator = " (";
    for (std::size_t i = 0; i < refused_.size(); ++i) {
      if (refused_[i] != 0) {
        text += separator + std::to_string(refused_[i]) + ": " + kReasons[i].words;
        separator = "; ";
      }
    }
    text += separator[0] == ';' ? ")" : "";
  }
  if (dropped_ != 0) {
    text += "; the kernel dropped " + std::to_string(dropped_) + " frames before they were read";
  }
  return text;
}

std::string Account::json() const {
  Json reasons;
  for (std::size_t i = 0; i < refused_.size(); ++i) {
    reasons[toText(static_cast<Refusal>(i))] = refused_[i];
  }
  const Json sums = {{"seen", seen_},
                     {"matched", matched_},
                     {"queued", queued_},
                     {"captures", captures_},
                     {"refused", refusedFrames()},
                     {"refused_by_reason", reasons},
                     {"dropped_by_kernel", dropped_},
                     {"balanced", balanced()},
                     {"problems", problems_}};
  std::string text = dump(sums, 2);
  text.resize(text.size() - 2);  // the closing brace and its newline
  // One capture at a time: a Json of all 500,000 would take half a gigabyte.
  text += ",\n  \"capture_list\": [";
  const char* separator = "\n    ";
  for (const Capture& capture : list_) {
    text += separator + dump(toJson(capture));
    separator = ",\n    ";
  }
  return text + (list_.empty() ? "]\n}\n" : "\n  ]\n}\n");
}

Progress::Progress(const Account& account, bool quiet)
    : account_(account), on_(!quiet && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (shown_) {
    std::fputs("\r\033[K", stderr);
  }
}

bool Progress::isDue() {
  const auto now = on_ ? std::chrono::steady_clock::now() : next_;
  if (!on_ || now < next_) {
    return false;
  }
  next_ = now + std::chrono::milliseconds(500);
  return true;
}

// A line that wraps could not be removed again.
void Progress::print(std::string line) {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    line.resize(std::min<std::size_t>(line.size(), size.ws_col - 1u));
  }
  std::fprintf(stderr, "\r%s\033[K", line.c_str());
  shown_ = true;
}

void Progress::show() {
  if (isDue()) {
    print(account_.summary());
  }
}

void Progress::showRead(std::uint64_t frames) {
  if (isDue()) {
    print(std::to_string(frames) + " frames read ahead");
  }
}

}  // namespace tarnik::brund
