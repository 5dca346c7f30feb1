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
#include <sstream>

#include "base/owned.h"

namespace tarnik::ctl {
namespace {

constexpr std::array<const char*, kCounters> kHelp = {
    "Capture files in the directory, added up after every frame.",
    "Bytes used in the directory, added up after every frame.",
    "Frames read from the queue.",
    "Frames written to a capture file.",
    "Frames not written: a limit was reached or a file failed.",
    "Reads that gave no frame."};

// The owner lives if its process id does and belongs to a process started at the same time.
bool isAlive(const OrloStatsHeader& header) {
  std::ifstream stat("/proc/" + std::to_string(header.ownerPid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t name = text.rfind(')');  // the name before it may hold anything
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

ExitStatus readStats(const std::string& path, Stats& stats) {
  const OwnedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd && errno == ENOENT) {
    complain(kNoDaemon,
             "no statistics at %s: start tarnikd; if it runs, its log says what it lacks",
             path.c_str());
    return kNoDaemon;
  }
  if (!fd) {
    complain(kFailed, "cannot open %s: %s; run it as the daemon's user", path.c_str(),
             std::strerror(errno));
    return kFailed;
  }
  struct {
    OrloStatsHeader header;
    Counters counters;
  } area{};
  // One read: the counters are those of one moment as nearly as the owner's atomic additions allow.
  if (::pread(fd.get(), &area, sizeof area, 0) != static_cast<ssize_t>(sizeof area) ||
      area.header.magic != ORLO_STATS_MAGIC || area.header.headerSize != sizeof area.header ||
      area.header.size < sizeof area.counters) {
    complain(kFailed, "%s is no statistics area of tarnikd: remove it and restart tarnikd",
             path.c_str());
    return kFailed;
  }
  stats.readAt = std::chrono::steady_clock::now();
  stats.counters = area.counters;
  stats.ownerPid = area.header.ownerPid;
  stats.ownerAlive = isAlive(area.header);
  return kDone;
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
  std::ostringstream out;
  out << '{';
  for (std::size_t i = 0; i < kCounters; ++i) {
    out << '"' << kCounterNames[i] << "\":" << stats.counters[i] << ',';
  }
  out << "\"pid\":" << stats.ownerPid << ",\"running\":" << (stats.ownerAlive ? "true" : "false")
      << "}\n";
  return out.str();
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
  const auto mean = [&](std::size_t i) {  // the sums grow by the measured value on every frame
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
