#include "platform/brund/account.h"

#include <cinttypes>
#include <cstdio>
#include <numeric>

namespace tarnik::brund {
namespace {

std::string jsonText(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string jsonNumber(const char* name, std::uint64_t value) {
  return std::string("  \"") + name + "\": " + std::to_string(value) + ",\n";
}

std::string hex(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%" PRIx64, value);
  return text;
}

// Identifiers are texts: they have 64 bits, and a reader's numbers often only 53.
std::string jsonCapture(const Account::Capture& capture) {
  return "    {\"id\": \"" + hex(capture.id) + "\", \"flow_id\": \"" +
         std::to_string(capture.flow.id()) + "\", \"flow\": " + jsonText(capture.flow.text()) +
         ", \"trigger\": {\"kind\": \"" + toText(capture.kind) +
         "\", \"id\": " + std::to_string(capture.trigger) +
         ", \"name\": " + jsonText(capture.name) +
         "}, \"frames\": " + std::to_string(capture.frames) +
         ", \"bytes\": " + std::to_string(capture.bytes) +
         ", \"ended\": " + (capture.ended ? "true" : "false") + "}";
}

template <typename Items, typename Text>
std::string jsonList(const char* name, const Items& items, Text text) {
  std::string out = std::string("  \"") + name + "\": [";
  const char* separator = "\n";
  for (const auto& item : items) {
    out += separator + text(item);
    separator = ",\n";
  }
  return out + (items.empty() ? "]" : "\n  ]");
}

}  // namespace

const char* toText(Refusal reason) {
  switch (reason) {
    case Refusal::kNoFrame:
      return "no frame in the pool";
    case Refusal::kQueueFull:
      return "queue full";
    case Refusal::kTooLarge:
      return "too large";
    case Refusal::kEmpty:
      return "empty";
    case Refusal::kMetadataFull:
      return "metadata socket full";
    case Refusal::kNoDaemon:
      return "no daemon";
    case Refusal::kAfterClose:
      return "after close";
    case Refusal::kStopped:
      return "stopped";
    case Refusal::kCount:
      break;
  }
  return "";
}

std::size_t Account::begin(std::uint64_t id, const FlowKey& flow, const Rule& rule) {
  ++captures_;
  if (list_.size() >= kMaxListed) {
    return kMaxListed;
  }
  list_.push_back({id, flow, rule.kind, rule.trigger, rule.name, 0, 0, false});
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

std::string Account::json() const {
  std::string out = "{\n" + jsonNumber("seen", seen_) + jsonNumber("matched", matched_) +
                    jsonNumber("queued", queued_) + jsonNumber("captures", captures_) +
                    jsonNumber("refused", refusedFrames()) + "  \"refused_by_reason\": {";
  for (std::size_t i = 0; i < refused_.size(); ++i) {
    out += (i == 0 ? "\"" : ", \"") + std::string(toText(static_cast<Refusal>(i))) +
           "\": " + std::to_string(refused_[i]);
  }
  out += "},\n" + jsonNumber("dropped_by_kernel", dropped_) +
         "  \"balanced\": " + (balanced() ? "true" : "false") + ",\n";
  out += jsonList("problems", problems_,
                  [](const std::string& line) { return "    " + jsonText(line); });
  out += ",\n" + jsonList("capture_list", list_, jsonCapture) + "\n}\n";
  return out;
}

}  // namespace tarnik::brund
