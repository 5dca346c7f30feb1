#include "daemon/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "base/log.h"

namespace tarnik {
namespace {

constexpr int kBadCommandLine = 12;

constexpr char kShortOptions[] = "vDw:p:";
constexpr option kLongOptions[] = {
    {"verbose", no_argument, nullptr, 'v'},
    {"nodaemon", no_argument, nullptr, 'D'},
    {"watchdogtime", required_argument, nullptr, 'w'},
    {"qandir", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

Options options;

int parseOptions(int argc, char** argv, std::uint32_t& flags) {
  int result = 0;
  opterr = 0;
  int letter = 0;
  while ((letter = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
    switch (letter) {
      case 'v':
        raiseDebugLevel();
        break;
      case 'D':
        flags |= kNoDaemon;
        break;
      case 'w':
        // Deliberately unchecked: text that is no number is 0, and only 32 bits are kept.
        options.watchdogTime = static_cast<std::int32_t>(std::strtol(optarg, nullptr, 10));
        break;
      case 'p':
        options.moduleDir = optarg;
        break;
      default:
        result = kBadCommandLine;
        break;
    }
  }
  if (optind < argc) {
    result = kBadCommandLine;
  }
  options.issuesPath = options.moduleDir + "/issues.csv";
  return result;
}

void usage() {
  std::fprintf(stderr, "Usage: %s [-D] [--nodaemon] [-v] [--verbose]\n", kProgramName);
}

}  // namespace tarnik
