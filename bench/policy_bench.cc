// Measures a reload with the policy files of a large sensor: 200,000 lines, 500 rules with capture.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/owned.h"
#include "policy/capture_rules.h"
#include "policy/issue_map.h"
#include "policy/nap_map.h"

namespace tarnik {
namespace {

constexpr unsigned kLines = 200000;
constexpr unsigned kReferences = 500;

// A file that exists as long as the process.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& content) {
    const OwnedFd fd(mkstemp(path_.data()));
    std::size_t written = 0;
    while (written < content.size()) {
      const ssize_t count = ::write(fd.get(), content.data() + written, content.size() - written);
      if (count <= 0) {
        std::perror("policy_bench");
        std::abort();
      }
      written += static_cast<std::size_t>(count);
    }
  }
  ~TemporaryFile() { ::unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] const char* path() const { return path_.c_str(); }

 private:
  std::string path_ = "/tmp/policy_bench.XXXXXX";
};

std::string uuid(unsigned rule) {
  char text[40];
  std::snprintf(text, sizeof text, "%08x-1c5e-4b0a-9d3f-%012x", rule * 2654435u, rule);
  return text;
}

// Four settings per rule. The response of every hundredth rule asks for capture.
const TemporaryFile& policy() {
  static const TemporaryFile file([] {
    std::string content;
    for (unsigned rule = 0; rule < kLines / 4; ++rule) {
      const bool captured = rule % (kLines / 4 / kReferences) == 0;
      const std::string id = uuid(rule);
      content += "acl.rule.priority._" + id + " = " + std::to_string(rule) + "\n";
      content +=
          "acl.rule.description._" + id + " = \"rule number " + std::to_string(rule) + "\"\n";
      content += "acl.rule.enabled._" + id + " = true\n";
      content += "acl.rule.responses._" + id + " = " + (captured ? "tarnik:all" : "block") + "\n";
    }
    return content;
  }());
  return file;
}

const TemporaryFile& issues() {
  static const TemporaryFile file([] {
    std::string content;
    for (unsigned issue = 0; issue < kLines; ++issue) {
      content +=
          std::to_string(2000000 + issue) + ",\"HTTP_Issue_" + std::to_string(issue) + "\",high\n";
    }
    return content;
  }());
  return file;
}

References references() {
  References found;
  if (!getTarnikReferences(policy().path(), found) || found.size() != kReferences) {
    std::abort();
  }
  return found;
}

void readReferences(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(references());
  }
}

// Reads the rules of all references, like the template generators.
void readRules(benchmark::State& state) {
  const References all = references();
  for (auto _ : state) {
    CaptureRules captureRules(policy().path(), all);
    for (const std::string& reference : all) {
      std::vector<RuleSpan> rules;
      if (!captureRules.getTarnikRules(reference, rules) || rules[0].size() != 4) {
        state.SkipWithError("wrong rules");
      }
    }
  }
}

void loadNapMap(benchmark::State& state) {
  for (auto _ : state) {
    NapMap map;
    if (!map.PopulateNapMap(policy().path()) || map.size() != kLines / 4) {
      state.SkipWithError("wrong map");
    }
  }
}

void loadIssueMap(benchmark::State& state) {
  for (auto _ : state) {
    IssueMap map;
    if (!map.PopulateIssueMap(issues().path()) || map.size() != kLines) {
      state.SkipWithError("wrong map");
    }
  }
}

BENCHMARK(readReferences)->Unit(benchmark::kMillisecond);
BENCHMARK(readRules)->Unit(benchmark::kMillisecond);
BENCHMARK(loadNapMap)->Unit(benchmark::kMillisecond);
BENCHMARK(loadIssueMap)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tarnik
