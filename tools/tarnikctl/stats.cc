#include "tools/tarnikctl/stats.h"

#include <fcntl.h>
#include <orlo_sdk.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/owned.h"
#include "tools/tarnikctl/output.h"

namespace tarnik::ctl {
namespace {

constexpr std::array<const char*, kCounters> kHelp = {
    "Capture files in the directory, added up after every frame.",
    "Bytes used in the directory, added up after every frame.",
    "Frames read from the queue.",
    "Frames written to a capture file.",
    "Frames not written: a limit was reached or a file failed.",
    "Reads that returned no frame."};

// Whether the owner still runs. Another process may have its process id since, but then the start
// time differs.
bool isAlive(const OrloStatsHeader& header) {
  std::ifstream stat("/proc/" + std::to_string(header.ownerPid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t name = text.rfind(')');  // the name before it may contain anything
  if (name == std::string::npos) {
    return false;
  }
  std::istringstream fields(text.substr(name + 1));
  std::string field;
  for (int number = 3; number <= 22; ++number) {  // field 22: start time
    fields >> field;
  }
  return field == std::to_string(header.ownerStart);
}

}  // namespace

Result<Stats> readStats(const std::string& path) {
  const OwnedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd && errno == ENOENT) {
    return Error{"no statistics at " + path + ": start tarnikd, or look in its log", kNoDaemon};
  }
  if (!fd) {
    return Error{"cannot open " + path + ": " + std::strerror(errno) +
                 "; run tarnikctl as the daemon's user"};
  }
  struct {
    OrloStatsHeader header;
    Counters counters;
  } area{};
  // A single read, so that the counters belong together as far as possible: the daemon increments
  // each one on its own.
  if (::pread(fd.get(), &area, sizeof area, 0) != static_cast<ssize_t>(sizeof area) ||
      area.header.magic != ORLO_STATS_MAGIC || area.header.headerSize != sizeof area.header ||
      area.header.size < sizeof area.counters) {
    return Error{path + " is not a statistics area of tarnikd: remove it and restart tarnikd"};
  }
  return Stats{.readAt = std::chrono::steady_clock::now(),
               .counters = area.counters,
               .ownerPid = area.header.ownerPid,
               .ownerAlive = isAlive(area.header)};
}

std::string toText(const Stats& stats) {
  std::ostringstream out;
  for (std::size_t i = 0; i < kCounters; ++i) {
    out << std::left << std::setw(16) << kCounterNames[i] << std::right << std::setw(20)
        << stats.counters[i] << '\n';
  }
  return out.str();
}

std::string toJson(const Stats& stats) {
  nlohmann::ordered_json json;
  for (std::size_t i = 0; i < kCounters; ++i) {
    json[kCounterNames[i]] = stats.counters[i];
  }
  json["pid"] = stats.ownerPid;
  json["running"] = stats.ownerAlive;
  return json.dump() + "\n";
}

std::string toPrometheus(const Stats& stats) {
  std::ostringstream out;
  for (std::size_t i = 0; i < kCounters; ++i) {
    out << "# HELP tarnik_" << kCounterNames[i] << "_total " << kHelp[i] << "\n# TYPE tarnik_"
        << kCounterNames[i] << "_total counter\ntarnik_" << kCounterNames[i] << "_total "
        << stats.counters[i] << '\n';
  }
  out << "# HELP tarnik_up Whether tarnikd runs.\n# TYPE tarnik_up gauge\ntarnik_up "
      << (stats.ownerAlive ? 1 : 0) << '\n';
  return out.str();
}

std::string toRates(const Stats& before, const Stats& after) {
  std::ostringstream out;
  const double interval = std::chrono::duration<double>(after.readAt - before.readAt).count();
  const auto rate = [&](std::size_t i) {
    return static_cast<double>(after.counters[i] - before.counters[i]) / interval;
  };
  const std::uint64_t frames = after.counters[2] - before.counters[2];
  // Two of the counters are sums: each frame adds what was measured after it.
  const auto mean = [&](std::size_t i) {
    return frames == 0 ? 0.0
                       : static_cast<double>(after.counters[i] - before.counters[i]) /
                             static_cast<double>(frames);
  };
  out << std::fixed << std::setprecision(1) << "read/s " << rate(2) << "  accepted/s " << rate(3)
      << "  refused/s " << rate(4) << "  invalid/s " << rate(5);
  if (frames != 0) {
    out << "  files " << mean(0) << "  disk " << mean(1) << " B";
  }
  out << '\n';
  return out.str();
}

}  // namespace tarnik::ctl
