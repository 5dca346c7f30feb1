#include "platform/brund/run.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "platform/brund/account.h"
#include "platform/brund/delivery.h"
#include "platform/brund/group_owner.h"
#include "platform/brund/live.h"
#include "platform/brund/metadata.h"
#include "platform/brund/progress.h"
#include "platform/brund/queue_sender.h"
#include "platform/brund/replay.h"
#include "platform/brund/stop.h"
#include "platform/brund/text_file.h"

namespace tarnik::brund {
namespace {

using Clock = std::chrono::steady_clock;

// A daemon may be started by hand, or on a machine with much else to do.
constexpr std::chrono::seconds kDaemonWait{30};
constexpr std::chrono::seconds kNoticeAfter{1};
constexpr useconds_t kPollUs = 20000;

void say(const std::string& line) {
  std::fprintf(stderr, "brund-sim: %s\n", line.c_str());
}

// Waits until `done`; false when `end` or so many stop signals in all came first. Whoever has to
// wait for longer is told what for.
bool waitUntil(const std::function<bool()>& done, Clock::time_point end, int stopAt,
               const std::string& notice) {
  auto tell = Clock::now() + kNoticeAfter;
  while (!done()) {
    const auto now = Clock::now();
    if (now >= end || stopSignals() >= stopAt) {
      return false;
    }
    if (now >= tell) {
      say(notice);
      tell = Clock::time_point::max();
    }
    usleep(kPollUs);
  }
  return true;
}

bool findDaemon(MetadataSender& metadata) {
  const std::string within = std::to_string(kDaemonWait.count()) + " seconds";
  int error = 0;
  const auto found = [&] {
    const bool connected = metadata.connect();
    error = errno;
    return connected;
  };
  if (waitUntil(found, Clock::now() + kDaemonWait, 1,
                "waiting up to " + within + " for tarnikd on " + metadata.path())) {
    return true;
  }
  say("no daemon listens on " + metadata.path() + ": " + std::strerror(error) +
      (stopSignals() != 0 ? " (stopped by a signal)"
                          : " (start tarnikd within " + within + " of brund-sim)"));
  return false;
}

void feed(const Options& options, const RuleSet& rules, LiveSource& live, Delivery& delivery,
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
}

// Says what the run has come to; true when all of it is good.
bool conclude(const Options& options, Account& account) {
  if (!account.balanced()) {
    account.problem(std::to_string(account.matchedFrames()) + " frames matched, but " +
                    std::to_string(account.queuedFrames()) + " were queued and " +
                    std::to_string(account.refusedFrames()) + " refused");
  }
  for (const std::string& problem : account.problems()) {
    say(problem);
  }
  if (!options.quiet) {
    say(account.summary());
  }
  return account.problems().empty();
}

bool writeAccount(const Options& options, const Account& account) {
  std::string error;
  if (!options.account.empty() && !writeTextFile(options.account, account.json(), error)) {
    say(error);
    return false;
  }
  return true;
}

bool takeGroup(const Options& options, GroupOwner& owner) {
  const auto ports = options.ports.empty() ? choosePorts(options.interface) : options.ports;
  if (options.ports.empty() && ports.size() < 2) {
    say("the interface group takes a pair of network interfaces, and here is " +
        (ports.empty() ? "none" : "only " + ports.front()) +
        ": make a pair (ip link add port0 type veth peer name port1) or name one with --ports");
    return false;
  }
  std::string reason;
  if (!owner.take(ports, options.queue_size, reason)) {
    say(reason);
    return false;
  }
  return true;
}

bool feedDaemon(const Options& options, const RuleSet& rules, LiveSource& source, zorlib_ifg& group,
                MetadataSender& metadata, Account& account) {
  const bool live = options.action == Options::Action::kLive;
  QueueSender queue;
  std::string reason;
  if (!queue.open(group, !live, reason)) {
    say(reason);
    return false;
  }
  if (!findDaemon(metadata)) {
    return false;
  }
  if (live && !options.quiet) {
    say("sniffing " + options.interface);
  }
  Delivery delivery(queue, metadata, account,
                    live ? Delivery::Mode::kLive : Delivery::Mode::kReplay);
  feed(options, rules, source, delivery, account);
  return true;
}

void stay(const MetadataSender& metadata) {
  static_cast<void>(waitUntil([&] { return !metadata.daemonListens(); }, Clock::time_point::max(),
                              stopSignals() + 1, "all is done: waiting for tarnikd to end"));
}

bool removeGroup(const Options& options, GroupOwner& owner) {
  std::string reason;
  switch (owner.remove(reason)) {
    case GroupOwner::Removal::kDone:
      return true;
    case GroupOwner::Removal::kInUse:
      if (!options.quiet) {
        say("the interface group stays, in use by " + reason +
            ": the next brund-sim takes it over");
      }
      return true;
    case GroupOwner::Removal::kFailed:
      break;
  }
  say(reason);
  return false;
}

}  // namespace

bool run(const Options& options, const RuleSet& rules) {
  const bool live = options.action == Options::Action::kLive;
  catchStopSignals();
  std::string reason;
  LiveSource source;
  if (live && !source.open(options.interface, reason)) {
    say(options.interface + ": " + reason);
    return false;
  }
  GroupOwner owner;
  MetadataSender metadata;
  Account account;
  bool good = false;
  if (takeGroup(options, owner) &&
      feedDaemon(options, rules, source, *owner.group(), metadata, account)) {
    const bool fine = conclude(options, account);
    const bool written = writeAccount(options, account);
    good = fine && written;
    // Whoever waits for the account to end the daemon would wait in vain.
    if (options.stay && written) {
      stay(metadata);
    }
  }
  return removeGroup(options, owner) && good;
}

}  // namespace tarnik::brund
