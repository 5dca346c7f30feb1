// The command line.
#pragma once

#include <cstdint>
#include <string>

#include "base/paths.h"

namespace tarnik {

inline constexpr char kProgramName[] = "tarnikd";

// Bit of the option flags: stay in the foreground.
inline constexpr std::uint32_t kNoDaemon = 0x1;

// The command line's options. parseOptions writes the one instance before anything reads it.
struct Options {
  std::uint32_t flags = 0;
  std::int64_t watchdogTime = 50;  // in the unit of the platform's watchdog
  std::string moduleDir = kDefaultModuleDir;
  std::string issuesPath;  // empty until the command line is parsed
};
extern Options options;

// Parses the command line into `options` and `flags`. Each -v raises the platform's debug level.
// Returns 0, or 12 when the command line is not acceptable; then too it parses to the end.
// Prints nothing.
[[nodiscard]] int parseOptions(int argc, char** argv, std::uint32_t& flags);

// Writes the usage line to standard error.
void usage();

}  // namespace tarnik
