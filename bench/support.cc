#include "bench/support.h"

#include <sys/resource.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include "base/owned.h"
#include "base/paths.h"
#include "capture/capture_manager.h"

namespace tarnik::bench {
namespace {

double timeOf(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double nanoseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
}

void writeFile(const std::string& path, const char* content) {
  Stream stream(std::fopen(path.c_str(), "we"));
  if (!stream || std::fputs(content, stream.get()) < 0 || !closeStream(stream)) {
    giveUp(path.c_str());
  }
}

}  // namespace

void giveUp(const char* what) {
  std::fprintf(stderr, "benchmark: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

void requirePrivateRoot() {
  if (std::getenv("TARNIK_PRIVATE_ROOT") == nullptr) {
    std::fputs("this empties the capture directory: run it in a private root\n", stderr);
    std::exit(1);
  }
}

void emptyDirectory(const char* path) {
  requirePrivateRoot();
  std::filesystem::create_directories(path);
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    std::filesystem::remove_all(entry);
  }
}

double threadTime() {
  return timeOf(CLOCK_THREAD_CPUTIME_ID);
}

double processTime() {
  return timeOf(CLOCK_PROCESS_CPUTIME_ID);
}

double processTimeWithChildren() {
  rusage children{};
  ::getrusage(RUSAGE_CHILDREN, &children);
  return processTime() + nanoseconds(children.ru_utime) + nanoseconds(children.ru_stime);
}

Traffic::Traffic(std::size_t flows, std::size_t frames) : frames_(frames) {
  std::mt19937 random(1);
  std::size_t size = 0;
  for (std::size_t i = 0; i < frames; ++i) {
    Frame& frame = frames_[i];
    frame.flow = 1 + (i < flows ? i : random() % flows);
    frame.header.capturedLength = static_cast<std::uint32_t>(40 + random() % 921);
    frame.header.wireLength = frame.header.capturedLength;
    frame.header.seconds = 1700000000;
    frame.header.microseconds = static_cast<std::uint32_t>(i % 1000000);
    size += frame.header.capturedLength;
  }
  bytes_.assign(size, 0x5a);
  std::uint8_t* at = bytes_.data();
  for (Frame& frame : frames_) {
    std::memcpy(at, &frame.flow, sizeof frame.flow);
    frame.data = at;
    at += frame.header.capturedLength;
  }
}

void setUpManager() {
  requirePrivateRoot();
  constexpr char kIssuesPath[] = "/etc/issues.csv";
  writeFile(kNapPolicyPath, "acl.rule.priority._uuid-five = 5\n");
  writeFile(kIssuesPath, "70000,HTTP_Something\n70001,HTTP;Something\n");
  const char* const rule =
      "acl.rule.priority._uuid-five=5\nacl.rule.description._uuid-five=\"a rule\"\n"
      "acl.rule.enabled._uuid-five=true\nacl.rule.responses._uuid-five=tarnik:all\n";
  writeFile(kIpsTemplatePath, rule);
  writeFile(kNapTemplatePrefix + std::string("uuid-five"), rule);
  constexpr std::int64_t kHuge = std::int64_t{1} << 40;
  if (CaptureManager::instance().Init(kIssuesPath, kHuge, kHuge, kHuge, kHuge, 10, 1000) != 0) {
    giveUp("Init");
  }
}

void emptyCaptureDirectory() {
  requirePrivateRoot();
  for (const auto& entry : std::filesystem::directory_iterator(kCaptureDir)) {
    if (!entry.path().filename().string().starts_with("template.")) {
      std::filesystem::remove_all(entry);
    }
  }
}

void inRounds(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(1)
      ->Repetitions(kRounds)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->ReportAggregatesOnly(false)
      ->DisplayAggregatesOnly(true);
}

}  // namespace tarnik::bench
