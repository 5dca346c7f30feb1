#include "platform/brund/run.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/brund/account.h"
#include "platform/brund/delivery.h"
#include "platform/brund/live.h"
#include "platform/brund/metadata.h"
#include "platform/brund/progress.h"
#include "platform/brund/queue_sender.h"
#include "platform/brund/replay.h"
#include "platform/brund/stop.h"
#include "platform/brund/text_file.h"

namespace tarnik::brund {
namespace {

constexpr std::chrono::seconds kDaemonWait{5};
constexpr useconds_t kDaemonPollUs = 20000;

void say(const std::string& line) {
  std::fprintf(stderr, "brund-sim: %s\n", line.c_str());
}

// A daemon that is just being started gets a few seconds.
bool findDaemon(MetadataSender& metadata) {
  const auto end = std::chrono::steady_clock::now() + kDaemonWait;
  while (!metadata.connect()) {
    const int error = errno;
    if (std::chrono::steady_clock::now() >= end || stopSignals() != 0) {
      say("no daemon listens on " + metadata.path() + ": " + std::strerror(error));
      return false;
    }
    usleep(kDaemonPollUs);
  }
  return true;
}

bool feed(const Options& options, const RuleSet& rules, LiveSource& live, Delivery& delivery,
          Account& account) {
  Progress progress(account, options.quiet);
  const bool fed = options.action == Options::Action::kLive
                       ? sniff(options, live, rules, delivery, account, progress)
                       : replay(options, rules, delivery, account, progress);
  if (!delivery.failure().empty()) {
    account.problem(delivery.failure());
  } else if (!fed && stopSignals() != 0) {
    account.problem("stopped by a signal before the end of the input");
  }
  // Also after a failure: the daemon is not to be left with frames that nobody counts on.
  if (fed || delivery.failure().empty()) {
    if (!delivery.waitUntilTaken()) {
      account.problem(delivery.failure());
    }
  }
  return fed;
}

// Writes what the run has come to; true when all of it is good.
bool conclude(const Options& options, Account& account) {
  if (!account.balanced()) {
    account.problem(std::to_string(account.matchedFrames()) + " frames matched, but " +
                    std::to_string(account.queuedFrames()) + " were queued and " +
                    std::to_string(account.refusedFrames()) + " refused");
  }
  bool good = account.problems().empty();
  for (const std::string& problem : account.problems()) {
    say(problem);
  }
  std::string error;
  if (!options.account.empty() && !writeTextFile(options.account, account.json(), error)) {
    say(error);
    good = false;
  }
  if (!options.quiet) {
    say(account.summary());
  }
  return good;
}

}  // namespace

bool createQueue(const Options& options) {
  QueueSender queue;
  std::string reason;
  if (!queue.open(options.queue_size, false, reason)) {
    say(reason);
    return false;
  }
  return true;
}

bool run(const Options& options, const RuleSet& rules) {
  const bool live = options.action == Options::Action::kLive;
  catchStopSignals();
  std::string reason;
  LiveSource source;
  if (live && !source.open(options.interface, reason)) {
    say(options.interface + ": " + reason);
    return false;
  }
  QueueSender queue;
  if (!queue.open(options.queue_size, !live, reason)) {
    say(reason);
    return false;
  }
  MetadataSender metadata;
  if (!findDaemon(metadata)) {
    return false;
  }
  if (live && !options.quiet) {
    say("sniffing " + options.interface);
  }
  Account account;
  Delivery delivery(queue, metadata, account,
                    live ? Delivery::Mode::kLive : Delivery::Mode::kReplay);
  static_cast<void>(feed(options, rules, source, delivery, account));
  return conclude(options, account);
}

}  // namespace tarnik::brund
