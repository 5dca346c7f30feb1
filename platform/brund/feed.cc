#include "platform/brund/feed.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/brund/flow_table.h"
#include "platform/brund/wait.h"

namespace tarnik::brund {
namespace {

// ---- Replay

struct ReplayFlow {
  std::uint64_t last = 0;  // number of its last frame that can be queued; 0: there is none
  std::shared_ptr<CaptureState> capture;  // null until a rule has matched
};
using ReplayFlows = std::unordered_map<FlowKey, ReplayFlow, FlowKeyHash>;

bool canBeQueued(const Frame& frame) {
  return !frame.data.empty() && frame.data.size() <= kMaxFrame;
}

// Calls `use` with every frame of the input, numbered from 1, until it returns false or an error,
// which is then the result. False after a stop signal. Appends what cannot be read to `problems`.
Result<bool> forEachFrame(const std::vector<std::string>& files, std::vector<std::string>& problems,
                          const std::function<Result<bool>(const Frame&, std::uint64_t)>& use) {
  std::uint64_t number = 0;
  for (const std::string& path : files) {
    Result<FileSource> source = FileSource::open(path);
    if (!source) {
      problems.push_back(path + ": " + source.error());
      continue;
    }
    const std::uint64_t before = number;
    Frame frame;
    Result<bool> next = source->next(frame);
    for (; next && *next; next = source->next(frame)) {
      if (stopSignals() != 0) {
        return false;
      }
      if (Result<bool> used = use(frame, ++number); !used || !*used) {
        return used;
      }
    }
    if (!next) {
      problems.push_back(path + ": after " + std::to_string(number - before) +
                         " frames: " + next.error());
    } else if (number == before) {
      problems.push_back(path + ": no frames in it");
    }
  }
  return true;
}

Result<bool> playOnce(const Feed& feed, ReplayFlows flows, Pacer& pacer) {
  FlowFinder finder;
  std::vector<std::string> known;  // the first reading has reported them
  return forEachFrame(
      feed.options.files, known, [&](const Frame& frame, std::uint64_t number) -> Result<bool> {
        pacer.wait(frame);
        if (stopSignals() != 0) {
          return false;
        }
        feed.account.seen();
        feed.progress.show();
        const Decoded decoded = finder.find(frame);
        ReplayFlow& flow = flows[decoded.key];
        if (!flow.capture) {
          const Rule* rule = feed.rules.match(frame);
          if (rule == nullptr) {
            return true;
          }
          flow.capture = std::make_shared<CaptureState>(rule);
        }
        return feed.delivery.deliver(frame, decoded, flow.capture, number == flow.last);
      });
}

// ---- Live capture

constexpr std::size_t kMaxFlows = 65536;
// Longer than the kernel keeps a frame before it shows it.
constexpr std::chrono::milliseconds kQuiet{100};
constexpr std::chrono::milliseconds kLongestEnding{500};
constexpr int kBacklogWaitMs = 2;  // for room in the queue

Result<bool> deliverLive(const Feed& feed, const Frame& frame, FlowFinder& finder,
                         FlowTable& flows) {
  feed.account.seen();
  const Decoded decoded = finder.find(frame);
  const std::int64_t now = frame.seconds;
  FlowTable::Flow* flow = flows.find(decoded, now);
  if (flow == nullptr) {
    const Rule* rule = feed.rules.match(frame);
    if (rule == nullptr) {
      return true;
    }
    flow = flows.add(decoded.key, rule, now);
  }
  if (flow->closed) {
    feed.account.matched();
    feed.account.refused(Refusal::kAfterClose);
    return true;
  }
  flow->closed = decoded.tcp && flow->tcp.closes(*decoded.tcp, decoded.fromLow);
  return feed.delivery.deliver(frame, decoded, flow->capture, flow->closed);
}

}  // namespace

Result<bool> replay(const Feed& feed) {
  ReplayFlows flows;
  FlowFinder finder;
  std::vector<std::string> problems;
  const Result<bool> read =
      forEachFrame(feed.options.files, problems, [&](const Frame& frame, std::uint64_t number) {
        feed.progress.showRead(number);
        ReplayFlow& flow = flows[finder.find(frame).key];
        if (canBeQueued(frame)) {
          flow.last = number;
        }
        return true;
      });
  for (const std::string& problem : problems) {
    feed.account.problem(problem);
  }
  if (!read || !*read) {
    return read;
  }
  Pacer pacer(feed.options.speed, feed.options.framesPerSecond);
  for (std::uint64_t loop = 0; loop < feed.options.loops; ++loop) {
    if (Result<bool> played = playOnce(feed, flows, pacer); !played || !*played) {
      return played;
    }
  }
  return true;
}

Result<bool> captureLive(const Feed& feed, LiveSource& source) {
  using Clock = std::chrono::steady_clock;
  auto end = feed.options.seconds == 0 ? Clock::time_point::max()
                                       : Clock::now() + std::chrono::seconds(feed.options.seconds);
  FlowFinder finder;
  FlowTable flows(static_cast<std::int64_t>(feed.options.idle), kMaxFlows);
  Frame frame;
  Result<bool> delivered = true;
  Result<bool> next = false;
  // At the end, the frames that the kernel has already captured are still taken: until it has shown
  // none for a while.
  bool ending = false;
  auto lastFrame = Clock::now();
  while (delivered && next) {
    const auto now = Clock::now();
    if (ending && (now >= end || now - lastFrame >= kQuiet)) {
      break;
    }
    if (!ending && (stopSignals() != 0 || now >= end)) {
      ending = true;
      end = now + kLongestEnding;
      lastFrame = now;
    }
    next = source.next(frame);
    if (next && *next) {
      lastFrame = now;
      delivered = deliverLive(feed, frame, finder, flows);
    } else if (next) {
      delivered = feed.delivery.sendBacklog();
      source.wait(feed.delivery.hasBacklog() ? kBacklogWaitMs : static_cast<int>(kQuiet.count()),
                  feed.delivery.backlogFd());
    }
    feed.progress.show();
  }
  if (!next) {
    feed.account.problem(feed.options.interface + ": " + next.error());
  }
  feed.account.dropped(source.dropped());
  return delivered;
}

Pacer::Microseconds Pacer::due(const Frame& frame) {
  constexpr std::int64_t kSecond = 1000000;
  constexpr std::int64_t kLongestPause = 60 * kSecond;
  const std::uint64_t number = frames_++;
  if (speed_ == Speed::kRate) {
    return Microseconds(static_cast<std::int64_t>(static_cast<double>(number) / rate_ * 1e6));
  }
  if (speed_ == Speed::kRecorded) {
    const std::int64_t timestamp = std::int64_t{frame.seconds} * kSecond + frame.microseconds;
    const std::int64_t pause = number == 0 ? 0 : timestamp - previous_;
    previous_ = timestamp;
    due_ += Microseconds(pause > kLongestPause ? kSecond : std::max<std::int64_t>(pause, 0));
  }
  return due_;
}

void Pacer::wait(const Frame& frame) {
  if (speed_ == Speed::kMax) {
    return;
  }
  start_ = start_.value_or(std::chrono::steady_clock::now());
  sleepUntil(*start_ + due(frame));
}

}  // namespace tarnik::brund
