#include "platform/brund/live.h"

#include <chrono>
#include <string>

#include "platform/brund/flow_finder.h"
#include "platform/brund/flow_table.h"
#include "platform/brund/stop.h"

namespace tarnik::brund {
namespace {

constexpr std::size_t kMaxFlows = 65536;
constexpr int kWaitMs = 100;  // more than a frame stays in the kernel before it is shown
constexpr std::chrono::milliseconds kLongestEnding{500};

// One frame of the interface; false when the run cannot go on.
bool take(const Frame& frame, const RuleSet& rules, FlowFinder& finder, FlowTable& flows,
          Delivery& delivery, Account& account) {
  account.seen();
  const Decoded decoded = finder.find(frame);
  const std::int64_t now = frame.ts_sec;
  FlowTable::Flow* flow = flows.find(decoded, now);
  if (flow == nullptr) {
    const Rule* rule = rules.match(frame);
    if (rule == nullptr) {
      return true;
    }
    flow = flows.add(decoded.key, rule, now);
  }
  if (flow->closed) {
    account.matched();
    account.refused(Refusal::kAfterClose);
    return true;
  }
  flow->closed = decoded.tcp && flow->tcp.closes(*decoded.tcp, decoded.from_low);
  return delivery.deliver(frame, decoded, flow->capture, flow->closed);
}

}  // namespace

bool sniff(const Options& options, LiveSource& source, const RuleSet& rules, Delivery& delivery,
           Account& account, Progress& progress) {
  using Clock = std::chrono::steady_clock;
  auto end = options.seconds == 0 ? Clock::time_point::max()
                                  : Clock::now() + std::chrono::seconds(options.seconds);
  FlowFinder finder;
  FlowTable flows(static_cast<std::int64_t>(options.idle), kMaxFlows);
  Frame frame;
  std::string reason;
  Next next = Next::kNothing;
  bool good = true;
  // What the kernel has already captured when the end comes is still taken.
  bool ending = false;
  while (good && !(ending && (next == Next::kNothing || Clock::now() >= end))) {
    if (!ending && (stopSignals() != 0 || Clock::now() >= end)) {
      ending = true;
      end = Clock::now() + kLongestEnding;
    }
    next = source.next(frame, kWaitMs, reason);
    if (next == Next::kFrame) {
      good = take(frame, rules, finder, flows, delivery, account);
    } else if (next == Next::kFailed) {
      account.problem(options.interface + ": " + reason);
      good = false;
    }
    progress.show();
  }
  account.dropped(source.drops().kernel + source.drops().interface);
  return good;
}

}  // namespace tarnik::brund
