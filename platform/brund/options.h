// The command line of brund-sim.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"

namespace tarnik::brund {

enum class Speed : std::uint8_t { kMax, kRecorded, kRate };

struct Options {
  enum class Action : std::uint8_t { kHelp, kCheck, kWritePolicy, kReplay, kLive };

  Action action = Action::kReplay;
  std::string help;  // the text, with kHelp
  std::string rules;
  std::string policyDir;
  std::string issues;  // empty: issues.csv in policyDir
  std::string account;
  std::string interface;
  std::vector<std::string> ports;  // of the interface group; empty: chosen by GroupOwner
  std::vector<std::string> files;
  Speed speed = Speed::kMax;
  double framesPerSecond = 0;  // with kRate
  std::uint64_t loops = 1;
  std::uint64_t queueSize = 5000;
  std::uint64_t wait = 30;    // seconds to wait for tarnikd
  std::uint64_t seconds = 0;  // of live capture; 0: until a signal
  std::uint64_t idle = 30;    // seconds without a frame that end a flow
  bool stay = false;          // wait until tarnikd has ended
  bool quiet = false;
};

// The error is one line about what is wrong with the arguments.
[[nodiscard]] Result<Options> parseOptions(int argc, const char* const* argv);

}  // namespace tarnik::brund
