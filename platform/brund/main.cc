// brund-sim: runs one of its actions. A replay or live capture creates the group and the queue,
// finds the daemon, feeds it the frames of the input, writes the account and removes both.
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include "platform/brund/account.h"
#include "platform/brund/announcer.h"
#include "platform/brund/delivery.h"
#include "platform/brund/feed.h"
#include "platform/brund/group_owner.h"
#include "platform/brund/options.h"
#include "platform/brund/policy_files.h"
#include "platform/brund/queue_sender.h"
#include "platform/brund/rules.h"
#include "platform/brund/source.h"
#include "platform/brund/text_file.h"
#include "platform/brund/wait.h"

namespace tarnik::brund {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kNoticeAfter{1};
constexpr std::chrono::milliseconds kPoll{20};

enum ExitStatus : int { kDone = 0, kFailed = 1, kRefused = 2, kIncomplete = 3 };

void say(const std::string& line) {
  std::fprintf(stderr, "brund-sim: %s\n", line.c_str());
}

// Waits until `done`. False at `end`, or when `stopAt` stop signals have come. Prints `notice` when
// it takes more than a moment.
bool waitUntil(const std::function<bool()>& done, Clock::time_point end, int stopAt,
               const std::string& notice) {
  auto noticeAt = Clock::now() + kNoticeAfter;
  while (!done()) {
    const auto now = Clock::now();
    if (now >= end || stopSignals() >= stopAt) {
      return false;
    }
    if (now >= noticeAt) {
      say(notice);
      noticeAt = Clock::time_point::max();
    }
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

Result<> findDaemon(const Options& options, Announcer& announcer) {
  const std::string within = std::to_string(options.wait) + " seconds";
  std::string reason;
  const auto found = [&] {
    const Result<> connected = announcer.connect();
    reason = connected ? "" : connected.error();
    return connected.ok();
  };
  if (waitUntil(found, Clock::now() + std::chrono::seconds(options.wait), 1,
                "waiting up to " + within + " for tarnikd on " + announcer.path())) {
    return Done{};
  }
  return Error{"no daemon listens on " + announcer.path() + ": " + reason +
               (stopSignals() != 0 ? " (stopped by a signal)"
                                   : " (start tarnikd within " + within + " of brund-sim)")};
}

Result<> takeGroup(const Options& options, GroupOwner& owner) {
  if (!options.ports.empty()) {
    return owner.take(options.ports, options.queueSize);
  }
  const auto ports = choosePorts(options.interface);
  if (ports.size() < 2) {
    return Error{"the interface group takes a pair of network interfaces, and here is " +
                 (ports.empty() ? "none" : "only " + ports.front()) +
                 ": make a pair (ip link add port0 type veth peer name port1) or name one with "
                 "--ports"};
  }
  return owner.take(ports, options.queueSize);
}

// Feeds the input to the daemon. Faults from here on are problems in the account.
void feedDaemon(const Feed& feed, LiveSource* live) {
  const Result<bool> fed = live != nullptr ? captureLive(feed, *live) : replay(feed);
  if (!fed) {
    feed.account.problem(fed.error());
    return;
  }
  if (!*fed) {
    feed.account.problem("stopped by a signal before the end of the input");
  }
  // Frames that are still in the queue count as queued, so the daemon must get them.
  if (const auto taken = feed.delivery.waitUntilTaken(); !taken) {
    feed.account.problem(taken.error());
  }
}

// One run with the group, up to its account in memory.
Result<> runWithGroup(const Options& options, const RuleSet& rules, LiveSource* live,
                      zorlib_ifg& group, Announcer& announcer, Account& account) {
  auto queue = QueueSender::open(
      group, live != nullptr ? QueueSender::Mode::kNeverWait : QueueSender::Mode::kWait);
  if (!queue) {
    return Error{queue.error()};
  }
  if (const auto found = findDaemon(options, announcer); !found) {
    return found;
  }
  if (live != nullptr && !options.quiet) {
    say("capturing from " + options.interface);
  }
  Delivery delivery(*queue, announcer, account,
                    live != nullptr ? Delivery::Mode::kLive : Delivery::Mode::kReplay,
                    std::chrono::seconds(options.wait));
  Progress progress(account, options.quiet);
  feedDaemon({options, rules, delivery, account, progress}, live);
  return Done{};
}

// Prints the account's problems and summary. True when there are no problems.
bool report(const Options& options, Account& account) {
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

// Reports the run, writes the account file and, with --stay, waits for the daemon's end.
bool conclude(const Options& options, const Announcer& announcer, Account& account) {
  const bool good = report(options, account);
  if (!options.account.empty()) {
    if (const auto written = writeTextFile(options.account, account.json()); !written) {
      // No --stay: a script that waits for the account would never end the daemon.
      say(written.error());
      return false;
    }
  }
  if (options.stay) {
    static_cast<void>(waitUntil([&] { return !announcer.daemonListens(); },
                                Clock::time_point::max(), stopSignals() + 1,
                                "all is done: waiting for tarnikd to end"));
  }
  return good;
}

bool removeGroup(const Options& options, GroupOwner& owner) {
  const auto users = owner.remove();
  if (!users) {
    say(users.error());
    return false;
  }
  if (!users->empty() && !options.quiet) {
    say("the interface group stays, in use by " + *users + ": the next brund-sim takes it over");
  }
  return true;
}

ExitStatus run(const Options& options, const RuleSet& rules, LiveSource* live) {
  GroupOwner owner;
  Announcer announcer;
  Account account;
  Result<> done = takeGroup(options, owner);
  if (done) {
    done = runWithGroup(options, rules, live, *owner.group(), announcer, account);
  }
  if (!done) {
    say(done.error());
    static_cast<void>(removeGroup(options, owner));
    return kFailed;
  }
  const bool good = conclude(options, announcer, account);
  const bool removed = removeGroup(options, owner);
  if (!options.quiet) {
    say(account.verdict());
  }
  if (!good || !removed) {
    return kFailed;
  }
  return account.complete() ? kDone : kIncomplete;
}

ExitStatus runLive(const Options& options, const RuleSet& rules) {
  auto source = LiveSource::open(options.interface);
  if (!source) {
    say(options.interface + ": " + source.error());
    return kFailed;
  }
  return run(options, rules, &*source);
}

ExitStatus writePolicyFiles(const Options& options, const RuleSet& rules) {
  const auto written =
      writePolicy(rules.rules(), options.policyDir,
                  options.issues.empty() ? options.policyDir + "/issues.csv" : options.issues);
  if (!written) {
    say(written.error());
    return kFailed;
  }
  return kDone;
}

ExitStatus runAction(const Options& options) {
  if (options.action == Options::Action::kHelp) {
    std::fputs(options.help.c_str(), stdout);
    return kDone;
  }
  const auto rules = RuleSet::load(options.rules);
  if (!rules) {
    std::fprintf(stderr, "%s\n", rules.error().c_str());
    return kRefused;
  }
  if (options.action == Options::Action::kCheck) {
    if (!options.quiet) {
      std::printf("%s: %zu rules\n", options.rules.c_str(), rules->rules().size());
    }
    return kDone;
  }
  if (options.action == Options::Action::kWritePolicy) {
    return writePolicyFiles(options, *rules);
  }
  catchStopSignals();
  return options.action == Options::Action::kLive ? runLive(options, *rules)
                                                  : run(options, *rules, nullptr);
}

}  // namespace
}  // namespace tarnik::brund

int main(int argc, char** argv) {
  const auto options = tarnik::brund::parseOptions(argc, argv);
  if (!options) {
    tarnik::brund::say(options.error());
    std::fputs("Try 'brund-sim --help'.\n", stderr);
    return tarnik::brund::kRefused;
  }
  return tarnik::brund::runAction(*options);
}
