// The command line of brund-sim.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnik::brund {

enum class Speed : std::uint8_t { kMax, kRecorded, kRate };

struct Options {
  enum class Action : std::uint8_t { kHelp, kCheck, kWritePolicy, kReplay, kLive };

  Action action = Action::kReplay;
  std::string rules;
  std::string policy_dir;
  std::string issues;  // empty: issues.csv in policy_dir
  std::string account;
  std::string interface;
  std::vector<std::string> ports;  // of the interface group; empty: chosen
  std::vector<std::string> files;
  Speed speed = Speed::kMax;
  double frames_per_second = 0;
  std::uint64_t loops = 1;
  std::uint64_t queue_size = 5000;
  std::uint64_t seconds = 0;  // of live sniffing; 0: until a signal
  std::uint64_t idle = 30;
  bool stay = false;
  bool quiet = false;
};

extern const char kHelp[];

// False, with one line in `error`, when the arguments make no sense.
[[nodiscard]] bool parseOptions(int argc, char* const* argv, Options& options, std::string& error);

}  // namespace tarnik::brund
