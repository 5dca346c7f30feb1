#include "platform/brund/replay.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/brund/flow_finder.h"
#include "platform/brund/pacer.h"
#include "platform/brund/source.h"
#include "platform/brund/stop.h"

namespace tarnik::brund {
namespace {

struct Flow {
  std::uint64_t last = 0;  // number of its last frame that can be queued; 0: it has none
  CaptureState capture;
};
using Flows = std::unordered_map<FlowKey, Flow, FlowKeyHash>;

bool canBeQueued(const Frame& frame) {
  return !frame.data.empty() && frame.data.size() <= kMaxFrame;
}

// Hands every frame of the input, numbered from 1, to `use` until that returns false. What cannot
// be read is a problem.
bool forEachFrame(const std::vector<std::string>& files,
                  const std::function<bool(const Frame&, std::uint64_t)>& use,
                  std::vector<std::string>& problems) {
  std::uint64_t number = 0;
  for (const std::string& path : files) {
    FileSource source;
    std::string reason;
    if (!source.open(path, reason)) {
      problems.push_back(path + ": " + reason);
      continue;
    }
    Frame frame;
    std::uint64_t inFile = 0;
    Next next = Next::kNothing;
    while ((next = source.next(frame, reason)) == Next::kFrame) {
      ++inFile;
      if (stopSignals() != 0 || !use(frame, ++number)) {
        return false;
      }
    }
    if (next == Next::kFailed) {
      problems.push_back(path + ": after " + std::to_string(inFile) + " frames: " + reason);
    } else if (inFile == 0) {
      problems.push_back(path + ": no frames in it");
    }
  }
  return true;
}

bool playOnce(const Options& options, const RuleSet& rules, Flows flows, Delivery& delivery,
              Account& account, Progress& progress, Pacer& pacer) {
  FlowFinder finder;
  std::vector<std::string> known;  // reported by the first reading
  return forEachFrame(
      options.files,
      [&](const Frame& frame, std::uint64_t number) {
        pacer.wait(frame);
        if (stopSignals() != 0) {
          return false;
        }
        account.seen();
        progress.show();
        const Decoded decoded = finder.find(frame);
        Flow& flow = flows[decoded.key];
        if (flow.capture.rule == nullptr) {
          flow.capture.rule = rules.match(frame);
        }
        return flow.capture.rule == nullptr ||
               delivery.deliver(frame, decoded, flow.capture, number == flow.last);
      },
      known);
}

}  // namespace

bool replay(const Options& options, const RuleSet& rules, Delivery& delivery, Account& account,
            Progress& progress) {
  Flows flows;
  FlowFinder finder;
  std::vector<std::string> problems;
  const bool read = forEachFrame(
      options.files,
      [&](const Frame& frame, std::uint64_t number) {
        progress.showRead(number);
        Flow& flow = flows[finder.find(frame).key];
        if (canBeQueued(frame)) {
          flow.last = number;
        }
        return true;
      },
      problems);
  for (const std::string& problem : problems) {
    account.problem(problem);
  }
  if (!read) {
    return false;
  }
  Pacer pacer(options.speed, options.frames_per_second);
  for (std::uint64_t loop = 0; loop < options.loops; ++loop) {
    if (!playOnce(options, rules, flows, delivery, account, progress, pacer)) {
      return false;
    }
  }
  return true;
}

}  // namespace tarnik::brund
