#include "platform/brund/options.h"

#include <CLI/CLI.hpp>

namespace tarnik::brund {
namespace {

constexpr char kUsage[] =
    R"(
  brund-sim --rules FILE [OPTIONS] CAPTURE...      replay capture files (pcap, pcapng)
  brund-sim --rules FILE --live IFACE [OPTIONS]    capture from a network interface
  brund-sim --rules FILE --check                   only check the rules
  brund-sim --rules FILE --write-policy DIR [--issues FILE]
                                                   write ips.conf, acl.conf and issues.csv
)";

constexpr char kNotes[] = R"(
Rules, one per line. The first rule that matches a frame of a flow starts a capture of the flow:
  ips ID NAME FILTER...          ID 65536 to 4294967295
  nap PRIORITY UUID FILTER...    PRIORITY 1 to 65534
  # a comment
FILTER is a pcap-filter(7) expression. NAME and UUID are one word each.

A flow is both directions of a TCP, UDP or SCTP connection (addresses and ports); of two addresses
and a protocol where there are no ports; of two MAC addresses and an ethertype below IP. VLAN tags
and MPLS labels are skipped. Later fragments of a datagram belong to the flow of its first fragment.

A replay reads its input twice, to mark the last frame of each flow. It waits when the queue is
full and loses nothing. Live capture never waits: a frame that finds the queue full is counted and
dropped. New captures are held, up to 64 MiB of frames, until tarnikd and the queue have room for
them. A live flow ends when its TCP connection closes or when it was idle.

brund-sim creates the driver's interface group "brund" and its queue, waits for tarnikd, and removes
both at the end. It leaves what tarnikd still has open, and the next brund-sim takes that over.

Exit status: 0 done; 1 something could not be read, created, sent or written, the run was stopped
early, or the account does not balance; 2 wrong usage or refused rules; 3 the run was completed, but
some matched frames were not queued (the last line says why), or the kernel dropped frames. Frames
after the close of a connection do not count: their capture has ended.
)";

constexpr std::uint64_t kYear = 366ull * 24 * 3600;

std::string checkSpeed(const std::string& text) {
  double rate = 0;
  if (text == "max" || text == "recorded" ||
      (CLI::detail::lexical_cast(text, rate) && rate >= 0.001 && rate <= 1e9)) {
    return {};
  }
  return "'" + text + "' is neither max nor recorded nor a number from 0.001 to 1e9";
}

void setSpeed(Options& options, const std::string& text) {
  if (text == "max" || text == "recorded") {
    options.speed = text == "max" ? Speed::kMax : Speed::kRecorded;
    return;
  }
  options.speed = Speed::kRate;
  static_cast<void>(CLI::detail::lexical_cast(text, options.framesPerSecond));
}

// A whole number from `least` to `most`.
CLI::Validator from(std::uint64_t least, std::uint64_t most) {
  return CLI::Range(least, most).description("");
}

// The options name their argument only, not also its C++ type and the options that they exclude.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(24); }
  [[nodiscard]] std::string make_usage(const CLI::App* /*app*/,
                                       std::string /*name*/) const override {
    return kUsage;
  }
  [[nodiscard]] std::string make_positionals(const CLI::App* /*app*/) const override { return ""; }
  [[nodiscard]] std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_type_name().empty() ? "" : " " + option->get_type_name();
  }
};

void addReplayOptions(CLI::App& app, Options& options) {
  app.add_option("CAPTURE", options.files, "a capture file");
  app.add_option_function<std::string>(
         "--speed", [&options](const std::string& text) { setSpeed(options, text); },
         "max: as fast as the queue takes the frames (default);\n"
         "recorded: with the recorded pauses, and one second for pauses above a\n"
         "minute; N: N frames per second")
      ->type_name("SPEED")
      ->check(checkSpeed)
      ->group("Replay");
  app.add_option("--loop", options.loops, "replay the input N times, each with new captures")
      ->type_name("N")
      ->check(from(1, 1000000000))
      ->group("Replay");
}

void addLiveOptions(CLI::App& app, Options& options) {
  app.add_option("--live", options.interface, "capture from this interface")
      ->type_name("IFACE")
      ->excludes("CAPTURE")
      ->group("Live capture");
  app.add_option("--seconds", options.seconds, "stop after N seconds (default: at a signal)")
      ->type_name("N")
      ->check(from(1, kYear))
      ->group("Live capture");
  app.add_option("--idle", options.idle, "a flow ends after N seconds without a frame (default 30)")
      ->type_name("N")
      ->check(from(1, kYear))
      ->group("Live capture");
}

void addPlatformOptions(CLI::App& app, Options& options) {
  app.add_option("--ports", options.ports,
                 "the group's network interfaces, in pairs (default: one pair, the\n"
                 "interface of --live and others of this machine, the loopback last)")
      ->type_name("A,B[,C,D...]")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->group("Driver and daemon");
  app.add_option("--queue-size", options.queueSize,
                 "entries of the queue if it does not exist: 51 to 99999\n(default 5000)")
      ->type_name("N")
      ->check(from(51, 99999))
      ->group("Driver and daemon");
  app.add_option("--wait", options.wait,
                 "seconds to wait for tarnikd, at the start and when it is gone while\n"
                 "the queue is full (default 30)")
      ->type_name("N")
      ->check(from(1, kYear))
      ->group("Driver and daemon");
  app.add_flag("--stay", options.stay,
               "after writing the account, wait until tarnikd has ended (or for a\n"
               "signal), so that the group and the queue can be removed")
      ->group("Driver and daemon");
}

void addOptions(CLI::App& app, Options& options) {
  addReplayOptions(app, options);
  addLiveOptions(app, options);
  addPlatformOptions(app, options);
  app.add_option("--rules", options.rules, "the rules file")->type_name("FILE")->required();
  CLI::Option* check = app.add_flag("--check");
  check->description("only check the rules")->excludes("CAPTURE", "--live");
  app.add_option("--write-policy", options.policyDir, "write the policy files into DIR")
      ->type_name("DIR")
      ->excludes("CAPTURE", "--live", "--check");
  app.add_option("--issues", options.issues, "write the issue list here, not to DIR/issues.csv")
      ->type_name("FILE")
      ->needs("--write-policy");
  app.add_option("--account", options.account, "write the account of the run (JSON)")
      ->type_name("FILE");
  app.add_flag("--quiet", options.quiet, "no progress and no summary");
}

}  // namespace

Result<Options> parseOptions(int argc, const char* const* argv) {
  Options options;
  CLI::App app{
      "brund-sim finds flows in real traffic and sends those that its rules match to tarnikd.",
      "brund-sim"};
  app.footer(kNotes);
  app.formatter(std::make_shared<HelpFormatter>());
  addOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    options.action = Options::Action::kHelp;
    options.help = app.help();
    return options;
  } catch (const CLI::ParseError& error) {
    return Error{error.what()};
  }
  if (app.count("--check") != 0) {
    options.action = Options::Action::kCheck;
  } else if (app.count("--write-policy") != 0) {
    options.action = Options::Action::kWritePolicy;
  } else if (app.count("--live") != 0) {
    options.action = Options::Action::kLive;
  } else if (options.files.empty()) {
    return Error{"no capture file and no --live"};
  }
  return options;
}

}  // namespace tarnik::brund
