// tarnikctl sends commands to a running tarnikd and lists its captures.
#include <orlo_sdk.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>

#include "base/paths.h"
#include "tools/tarnikctl/captures.h"
#include "tools/tarnikctl/command_client.h"
#include "tools/tarnikctl/output.h"
#include "tools/tarnikctl/stats.h"

namespace tarnik::ctl {
namespace {

constexpr char kExitStatuses[] =
    "Exit status: 0 done; 1 the daemon refused the command, or something failed; 2 wrong usage; "
    "3 no daemon.";
constexpr char kStatsPath[] = ORLO_STATS_DIR "/tarnik";

struct Options {
  std::string socket = ORLO_RUN_DIR "/tarnikd.sock";
  double timeout = 5;
  CaptureMetadata metadata{};
  bool watch = false;
  bool json = false;
  bool prometheus = false;
  std::string directory = kCaptureDir;
};

// A copy of an error for a function with another type of result.
template <class Value>
Error errorOf(const Result<Value>& result) {
  return {result.error(), result.exitStatus()};
}

void print(const std::string& text) {
  std::fputs(text.c_str(), stdout);
}

// ---- commands for the daemon

Result<CommandResponse> ask(const Options& options, RequestType type) {
  CommandClient client;
  if (const Result<> connected = client.connect(options.socket, options.timeout); !connected) {
    return errorOf(connected);
  }
  return client.ask(type);
}

Result<> sendOnly(const Options& options, std::span<const std::uint8_t> request) {
  CommandClient client;
  if (Result<> connected = client.connect(options.socket, options.timeout); !connected) {
    return connected;
  }
  return client.send(request);
}

Result<> reload(const Options& options) {
  const Result<CommandResponse> response = ask(options, RequestType::kReload);
  if (!response) {
    return errorOf(response);
  }
  if ((*response).status != 0) {
    return Error{"the reload failed (status " + std::to_string((*response).status) +
                 "): the new configuration is in force only in part or not at all; the daemon's "
                 "log names the cause"};
  }
  return {};
}

Result<> state(const Options& options) {
  static constexpr std::array<const char*, 8> kStates = {
      "unknown", "starting",        "started",   "stopping",
      "stopped", "failed to start", "reloading", "configuration invalid"};
  const Result<CommandResponse> response = ask(options, RequestType::kGetState);
  if (!response) {
    return errorOf(response);
  }
  const std::size_t number = (*response).state;
  print(std::string(number < kStates.size() ? kStates[number] : "unknown") + "\n");
  return {};
}

Result<> dump(const Options& options) {
  return sendOnly(options, encodeRequest(RequestType::kDump, 1));
}

Result<> metadata(const Options& options) {
  return sendOnly(options, encodeMetadataRequest(1, options.metadata));
}

// ---- statistics

std::string format(const Options& options, const Stats& stats) {
  return options.json ? toJson(stats) : options.prometheus ? toPrometheus(stats) : toText(stats);
}

// Prints once per second, until the daemon ends or the output cannot be written.
Result<> watch(const Options& options, Stats before) {
  const bool rates = !options.json && !options.prometheus;
  for (;;) {
    ::sleep(1);
    const Result<Stats> after = readStats(kStatsPath);
    if (!after) {
      return errorOf(after);
    }
    const Stats now = *after;
    if (!now.ownerAlive) {
      return Error{"tarnikd (process " + std::to_string(now.ownerPid) + ") has ended", kNoDaemon};
    }
    // A restarted daemon counts from 0 again: the next pair of readings has rates.
    if (now.ownerPid == before.ownerPid) {
      print(rates ? toRates(before, now) : format(options, now));
      if (Result<> flushed = flushOutput(); !flushed) {
        return flushed;
      }
    }
    before = now;
  }
}

Result<> stats(const Options& options) {
  const Result<Stats> now = readStats(kStatsPath);
  if (!now) {
    return errorOf(now);
  }
  if (options.watch) {
    return watch(options, *now);
  }
  print(format(options, *now));
  if (!(*now).ownerAlive && !options.json && !options.prometheus) {
    printError(
        "process " + std::to_string((*now).ownerPid) + " has ended; these are its last numbers",
        kDone);
  }
  return {};
}

// ---- captures

Result<> list(const Options& options) {
  const Result<std::vector<Capture>> captures = readCaptures(options.directory);
  if (!captures) {
    return errorOf(captures);
  }
  print(options.json ? toJson(*captures) : toTable(*captures));
  return {};
}

// ---- command line

// CLI11 itself takes negative and too large numbers for unsigned ones, and reads octal.
template <class Number>
std::string checkNumber(const std::string& text) {
  Number number = 0;
  errno = 0;
  const bool octal = text.size() > 1 && text[0] == '0' && (text[1] | 0x20) != 'x';
  if (octal || text.starts_with('-') || !CLI::detail::lexical_cast(text, number) ||
      errno == ERANGE) {
    return "'" + text + "' is not a number from 0 to " +
           std::to_string(std::numeric_limits<Number>::max()) +
           " (decimal, or hexadecimal with 0x)";
  }
  return {};
}

std::string checkTimeout(const std::string& text) {
  double seconds = 0;
  const bool valid = CLI::detail::lexical_cast(text, seconds) && seconds > 0 && seconds <= 86400;
  return valid ? std::string() : "'" + text + "' is not a number of seconds, above 0, up to 86400";
}

using Command = Result<> (*)(const Options&);

void addCommands(CLI::App& app, Options& options, Command& chosen) {
  const auto add = [&](const char* name, const char* help, Command command) {
    CLI::App* const added = app.add_subcommand(name, help);
    added->callback([&chosen, command] { chosen = command; });
    return added;
  };
  add("reload", "Read the configuration and the policy again", reload);
  add("state", "Print the daemon's state", state);
  add("dump", "Write the settings and the capture metadata to the daemon's log", dump);

  CLI::App* const announce = add("metadata", "Send the metadata of a capture", metadata);
  CaptureMetadata& values = options.metadata;
  announce->add_option("capture", values.captureId, "Capture id (64 bits)")
      ->type_name("NUMBER")
      ->required()
      ->check(checkNumber<std::uint64_t>);
  announce->add_option("flow", values.flowId, "Flow id (64 bits)")
      ->type_name("NUMBER")
      ->required()
      ->check(checkNumber<std::uint64_t>);
  announce->add_option("trigger", values.triggerId, "Trigger id (32 bits)")
      ->type_name("NUMBER")
      ->required()
      ->check(checkNumber<std::uint32_t>);

  CLI::App* const counters = add("stats", "Print the frame counters", stats);
  counters->add_flag("--watch", options.watch,
                     "Print every second: rates, or the counters with --json or --prometheus");
  CLI::Option* const json = counters->add_flag("--json", options.json, "Print JSON");
  counters->add_flag("--prometheus", options.prometheus, "Print the Prometheus text format")
      ->excludes(json);

  CLI::App* const captures = add("list", "List the finished captures", list);
  captures->add_flag("--json", options.json, "Print JSON");
  captures->add_option("directory", options.directory, "Where the captures are")
      ->capture_default_str();
}

// Ends the program: prints what is left to print, and an error if there is one.
int finish(const Result<>& result) {
  if (!result) {
    return printError(result.error(), result.exitStatus());
  }
  const Result<> flushed = flushOutput();
  return flushed ? kDone : printError(flushed.error(), flushed.exitStatus());
}

int run(int argc, char** argv) {
  Options options;
  Command command = nullptr;
  CLI::App app{"Sends commands to a running tarnikd, and lists its captures.", "tarnikctl"};
  app.footer(kExitStatuses);
  app.set_version_flag("--version", "tarnikctl " TARNIK_VERSION, "Print the version and exit");
  app.add_option("--socket", options.socket, "The daemon's socket")
      ->type_name("PATH")
      ->capture_default_str();
  app.add_option("--timeout", options.timeout, "How long to wait for an answer")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(checkTimeout);
  app.require_subcommand(1);
  app.fallthrough();  // the options above may follow the command
  addCommands(app, options, command);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    app.exit(help);
    return finish({});
  } catch (const CLI::ParseError& error) {
    return printError(std::string(error.what()) + " (tarnikctl --help)", kUsage);
  }
  return finish(command(options));
}

}  // namespace
}  // namespace tarnik::ctl

int main(int argc, char** argv) {
  return tarnik::ctl::run(argc, argv);
}
