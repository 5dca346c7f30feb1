#include "platform/brund/options.h"

#include <getopt.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace tarnik::brund {

const char kHelp[] =
    R"(brund-sim finds flows in real traffic and feeds those that its rules match to tarnikd's queue.

  brund-sim --rules FILE [OPTIONS] CAPTURE...      replay capture files (pcap, pcapng)
  brund-sim --rules FILE --live IFACE [OPTIONS]    sniff an interface
  brund-sim --rules FILE --check                   only check the rules
  brund-sim --rules FILE --write-policy DIR [--issues FILE]
                                                   write ips.conf, acl.conf and issues.csv

Rules, one a line; the first that matches a frame of a flow starts a capture of that flow:
  ips ID NAME FILTER...          ID 65536 to 4294967295
  nap PRIORITY UUID FILTER...    PRIORITY 1 to 65534
  # a comment
FILTER is a pcap-filter(7) expression. NAME and UUID are one word.

Replay: the files form one input, read twice: the last frame of a flow in the input ends its
capture. A replay waits when the queue is full; it loses nothing.
  --speed max|recorded|N   as fast as the queue takes the frames (default); with the pauses between
                           their timestamps (none where time steps back, one second for those of
                           over a minute); N frames a second
  --loop N                 play the input N times, with new captures each time

Live: what does not fit is counted and dropped; sniffing never waits. A flow ends with the close of
its TCP connection, or without a further frame when it was idle.
  --seconds N              stop after N seconds (default: at SIGINT or SIGTERM)
  --idle N                 seconds without a frame after which a flow has ended (default 30)

The driver's interface group "brund" and its queue belong to brund-sim. It makes both when it
starts, waits 30 seconds for tarnikd, and removes both when it ends. What tarnikd still has open by
then stays, and the next brund-sim takes it over, as it does after one that was killed.
  --ports A,B[,C,D...]     the group's network interfaces, in pairs (default: one pair, of the
                           interface of --live and the machine's others, the loopback last)
  --queue-size N           entries of the queue if it has to be made: 51 to 99999 (default 5000)
  --stay                   at the end, when the account is written, wait until tarnikd has gone (or
                           for a signal), so that both can be removed

  --account FILE           write the account of the run (JSON)
  --quiet                  no progress, no summary
  --help

A flow is both directions of addresses, protocol and ports (TCP, UDP, SCTP), of addresses and
protocol where there are no ports, of MAC addresses and ethertype below IP. VLAN tags and MPLS
labels are passed over. A fragment after the first belongs to the flow of the last first fragment
before it with the same addresses, protocol and identification, else to addresses and protocol.

Exit status: 0 done; 1 something could not be read, made, sent or written, the run was cut short, or
the account does not balance; 2 wrong usage or refused rules.
)";

namespace {

enum Option : int {
  kRules = 1,
  kCheckOnly,
  kWritePolicyTo,
  kIssues,
  kLiveOn,
  kSeconds,
  kIdle,
  kSpeed,
  kLoop,
  kAccount,
  kPorts,
  kQueueSize,
  kStay,
  kQuiet,
  kShowHelp,
};

constexpr option kOptions[] = {
    {"rules", required_argument, nullptr, kRules},
    {"check", no_argument, nullptr, kCheckOnly},
    {"write-policy", required_argument, nullptr, kWritePolicyTo},
    {"issues", required_argument, nullptr, kIssues},
    {"live", required_argument, nullptr, kLiveOn},
    {"seconds", required_argument, nullptr, kSeconds},
    {"idle", required_argument, nullptr, kIdle},
    {"speed", required_argument, nullptr, kSpeed},
    {"loop", required_argument, nullptr, kLoop},
    {"account", required_argument, nullptr, kAccount},
    {"ports", required_argument, nullptr, kPorts},
    {"queue-size", required_argument, nullptr, kQueueSize},
    {"stay", no_argument, nullptr, kStay},
    {"quiet", no_argument, nullptr, kQuiet},
    {"help", no_argument, nullptr, kShowHelp},
    {nullptr, 0, nullptr, 0},
};

bool parseCount(const char* text, std::uint64_t minimum, std::uint64_t maximum,
                std::uint64_t& value) {
  std::uint64_t parsed = 0;
  const char* last = text + std::strlen(text);
  const auto [end, error] = std::from_chars(text, last, parsed);
  if (error != std::errc{} || end != last || parsed < minimum || parsed > maximum) {
    return false;
  }
  value = parsed;
  return true;
}

bool parseSpeed(const std::string& text, Options& options) {
  if (text == "max" || text == "recorded") {
    options.speed = text == "max" ? Speed::kMax : Speed::kRecorded;
    return true;
  }
  double rate = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), rate);
  if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(rate) ||
      rate < 0.001 || rate > 1e9) {
    return false;
  }
  options.speed = Speed::kRate;
  options.frames_per_second = rate;
  return true;
}

// Names parted by commas; false when one is empty.
bool parsePorts(std::string_view text, std::vector<std::string>& ports) {
  ports.clear();
  for (;;) {
    const std::size_t comma = text.find(',');
    ports.emplace_back(text.substr(0, comma));
    if (ports.back().empty()) {
      return false;
    }
    if (comma == std::string_view::npos) {
      return true;
    }
    text.remove_prefix(comma + 1);
  }
}

// Applies one option; false when its argument is wrong. Actions are counted.
bool apply(int option, const char* argument, Options& options, int& actions) {
  constexpr std::uint64_t kYear = 366ull * 24 * 3600;
  const auto act = [&](Options::Action action) {
    options.action = action;
    ++actions;
    return true;
  };
  switch (option) {
    case kRules:
      options.rules = argument;
      return true;
    case kCheckOnly:
      return act(Options::Action::kCheck);
    case kWritePolicyTo:
      options.policy_dir = argument;
      return act(Options::Action::kWritePolicy);
    case kIssues:
      options.issues = argument;
      return true;
    case kLiveOn:
      options.interface = argument;
      return act(Options::Action::kLive);
    case kSeconds:
      return parseCount(argument, 1, kYear, options.seconds);
    case kIdle:
      return parseCount(argument, 1, kYear, options.idle);
    case kSpeed:
      return parseSpeed(argument, options);
    case kLoop:
      return parseCount(argument, 1, 1000000000, options.loops);
    case kAccount:
      options.account = argument;
      return true;
    case kPorts:
      return parsePorts(argument, options.ports);
    case kQueueSize:
      return parseCount(argument, 51, 99999, options.queue_size);
    case kStay:
      options.stay = true;
      return true;
    case kQuiet:
      options.quiet = true;
      return true;
    default:
      return false;
  }
}

std::string checkTogether(const Options& options, int actions) {
  if (actions > 1) {
    return "only one of --check, --write-policy and --live can be given";
  }
  if (options.rules.empty()) {
    return "--rules FILE is missing";
  }
  if (!options.issues.empty() && options.action != Options::Action::kWritePolicy) {
    return "--issues goes with --write-policy only";
  }
  if (options.action == Options::Action::kReplay && options.files.empty()) {
    return "no capture file and no --live";
  }
  if (options.action != Options::Action::kReplay && !options.files.empty()) {
    return "'" + options.files.front() + "': capture files are for a replay only";
  }
  return {};
}

}  // namespace

bool parseOptions(int argc, char* const* argv, Options& options, std::string& error) {
  int actions = 0;
  int index = 0;
  optind = 0;  // starts anew, also after an earlier call
  opterr = 0;
  for (;;) {
    const int next = getopt_long(argc, argv, ":", kOptions, &index);
    if (next == -1) {
      break;
    }
    if (next == kShowHelp) {
      options.action = Options::Action::kHelp;
      return true;
    }
    if (next == '?') {
      error = std::string("unknown option '") + argv[optind - 1] + "'";
      return false;
    }
    if (next == ':') {
      error = std::string(argv[optind - 1]) + " needs an argument";
      return false;
    }
    if (!apply(next, optarg, options, actions)) {
      error = std::string("--") + kOptions[index].name + ": '" + optarg + "' is not possible";
      return false;
    }
  }
  options.files.assign(argv + optind, argv + argc);
  error = checkTogether(options, actions);
  return error.empty();
}

}  // namespace tarnik::brund
