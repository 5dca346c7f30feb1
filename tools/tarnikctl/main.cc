// tarnikctl: talks to a running tarnikd and lists what it captured.
#include <getopt.h>
#include <orlo_sdk.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/paths.h"
#include "tools/tarnikctl/captures.h"
#include "tools/tarnikctl/command_client.h"
#include "tools/tarnikctl/output.h"
#include "tools/tarnikctl/stats.h"

namespace tarnik::ctl {
namespace {

constexpr char kHelp[] =
    "usage: tarnikctl [OPTION]... COMMAND [ARGUMENT]...\n"
    "\n"
    "Talks to a running tarnikd, and lists what it captured.\n"
    "\n"
    "  reload                        read the configuration and the policy again\n"
    "  state                         print the daemon's state\n"
    "  dump                          write settings and metadata to the daemon's log\n"
    "  metadata CAPTURE FLOW TRIGGER announce a capture: numbers, decimal or 0x hexadecimal\n"
    "  stats [--watch] [--json | --prometheus]\n"
    "                                print the frame counters; --watch: every second, as\n"
    "                                rates unless a format is named\n"
    "  list [--json] [DIR]           list the finished captures (default /var/support/tarnik/)\n"
    "\n"
    "  --socket PATH                 the daemon's socket (default /run/orlo/tarnikd.sock)\n"
    "  --timeout SECONDS             how long to wait for an answer (default 5)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 not understood, 3 no daemon.\n";

constexpr char kStatsPath[] = ORLO_STATS_DIR "/tarnik";

struct Options {
  std::string socket = ORLO_RUN_DIR "/tarnikd.sock";
  double timeout = 5;
  bool watch = false;
  bool json = false;
  bool prometheus = false;
  std::vector<std::string> arguments;
};

int reload(const Options& options) {
  CommandClient client;
  CommandResponse response{};
  int status = client.connect(options.socket, options.timeout);
  if (status == kDone) {
    status = client.ask(RequestType::kReload, response);
  }
  if (status == kDone && response.status != 0) {
    return complain(kFailed,
                    "the daemon could not load its configuration (status %u); its log says why, "
                    "and what it could read is in force",
                    response.status);
  }
  return status;
}

int state(const Options& options) {
  static constexpr std::array<const char*, 8> kStates = {
      "unknown", "starting",        "started",   "stopping",
      "stopped", "failed to start", "reloading", "configuration invalid"};
  CommandClient client;
  CommandResponse response{};
  int status = client.connect(options.socket, options.timeout);
  if (status == kDone) {
    status = client.ask(RequestType::kGetState, response);
  }
  if (status == kDone) {
    std::printf("%s\n", response.state < kStates.size() ? kStates[response.state] : "unknown");
  }
  return status;
}

int sendOnly(const Options& options, std::span<const std::uint8_t> request) {
  CommandClient client;
  const int status = client.connect(options.socket, options.timeout);
  return status != kDone ? status : client.send(request);
}

int dump(const Options& options) {
  return sendOnly(options, encodeRequest(RequestType::kDump, 1));
}

template <typename Number>
bool parseNumber(std::string_view text, Number& result) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  text.remove_prefix(hexadecimal ? 2 : 0);
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), result, hexadecimal ? 16 : 10);
  return error == std::errc{} && end == text.data() + text.size();
}

int metadata(const Options& options) {
  std::uint64_t captureId = 0;
  std::uint64_t flowId = 0;
  std::uint32_t triggerId = 0;
  if (!parseNumber(options.arguments[0], captureId) || !parseNumber(options.arguments[1], flowId) ||
      !parseNumber(options.arguments[2], triggerId)) {
    return complain(kUsage,
                    "metadata takes three numbers: capture and flow up to 64 bits, trigger up to "
                    "32 bits");
  }
  return sendOnly(options, encodeMetadataRequest(1, {captureId, flowId, triggerId}));
}

std::string shown(const Options& options, const Stats& now) {
  return options.json ? toJson(now) : options.prometheus ? toPrometheus(now) : toText(now);
}

int watch(const Options& options, Stats before) {
  for (;;) {
    ::sleep(1);
    Stats after;
    if (const ExitStatus status = readStats(kStatsPath, after); status != kDone) {
      return status;
    }
    if (!after.ownerAlive) {
      return complain(kNoDaemon, "tarnikd (process %d) has ended: start it again", after.ownerPid);
    }
    if (after.ownerPid == before.ownerPid) {
      const bool rates = !options.json && !options.prometheus;
      std::fputs((rates ? toRates(before, after) : shown(options, after)).c_str(), stdout);
      if (const int status = flushOutput(); status != kDone) {
        return status;
      }
    }
    before = after;
  }
}

int stats(const Options& options) {
  Stats now;
  if (const ExitStatus status = readStats(kStatsPath, now); status != kDone) {
    return status;
  }
  if (options.watch) {
    return watch(options, now);
  }
  std::fputs(shown(options, now).c_str(), stdout);
  if (!now.ownerAlive && !options.json && !options.prometheus) {
    std::fprintf(stderr, "tarnikctl: these are the last numbers of process %d, which has ended\n",
                 now.ownerPid);
  }
  return kDone;
}

int list(const Options& options) {
  const std::string directory = options.arguments.empty() ? kCaptureDir : options.arguments[0];
  std::vector<Capture> captures;
  if (!readCaptures(directory, captures)) {
    return complain(kFailed, "cannot list %s: %s; name the directory of the captures",
                    directory.c_str(), std::strerror(errno));
  }
  std::fputs((options.json ? toJson(captures) : toTable(captures)).c_str(), stdout);
  return kDone;
}

struct Command {
  std::string_view name;
  std::size_t minArguments;
  std::size_t maxArguments;
  const char* switches;  // of "wjp": the options that it takes
  int (*run)(const Options&);
};

constexpr std::array<Command, 6> kCommands = {{{"reload", 0, 0, "", reload},
                                               {"state", 0, 0, "", state},
                                               {"dump", 0, 0, "", dump},
                                               {"metadata", 3, 3, "", metadata},
                                               {"stats", 0, 0, "wjp", stats},
                                               {"list", 0, 1, "j", list}}};

int usage() {
  std::fputs("tarnikctl: not understood; `tarnikctl --help` tells what there is\n", stderr);
  return kUsage;
}

// -1 to go on, else the exit status.
int parse(int argc, char** argv, Options& options, std::string& switches) {
  static const option kOptions[] = {
      {"socket", required_argument, nullptr, 's'}, {"timeout", required_argument, nullptr, 't'},
      {"watch", no_argument, nullptr, 'w'},        {"json", no_argument, nullptr, 'j'},
      {"prometheus", no_argument, nullptr, 'p'},   {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},      {}};
  opterr = 0;  // one line is enough
  for (int choice; (choice = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (choice) {
      case 's':
        options.socket = optarg;
        break;
      case 't': {
        char* end = nullptr;
        options.timeout = std::strtod(optarg, &end);
        if (end == optarg || *end != '\0' || !(options.timeout > 0 && options.timeout <= 86400)) {
          return complain(kUsage, "--timeout takes seconds, above 0 and up to 86400");
        }
        break;
      }
      case 'h':
        std::fputs(kHelp, stdout);
        return flushOutput();
      case 'V':
        std::puts("tarnikctl " TARNIK_VERSION);
        return flushOutput();
      case 'w':
      case 'j':
      case 'p':
        switches += static_cast<char>(choice);
        break;
      default:
        return usage();
    }
  }
  return -1;
}

int run(int argc, char** argv) {
  Options options;
  std::string switches;
  if (const int done = parse(argc, argv, options, switches); done >= 0) {
    return done;
  }
  if (optind == argc) {
    return usage();
  }
  const std::string_view name = argv[optind];
  options.arguments.assign(argv + optind + 1, argv + argc);
  for (const Command& command : kCommands) {
    if (command.name != name) {
      continue;
    }
    options.watch = switches.find('w') != std::string::npos;
    options.json = switches.find('j') != std::string::npos;
    options.prometheus = switches.find('p') != std::string::npos;
    if (options.arguments.size() < command.minArguments ||
        options.arguments.size() > command.maxArguments || (options.json && options.prometheus) ||
        switches.find_first_not_of(command.switches) != std::string::npos) {
      return usage();
    }
    const int status = command.run(options);
    return status != kDone ? status : flushOutput();
  }
  return usage();
}

}  // namespace
}  // namespace tarnik::ctl

int main(int argc, char** argv) {
  return tarnik::ctl::run(argc, argv);
}
