#include <cstdio>
#include <string>

#include "platform/brund/options.h"
#include "platform/brund/policy_files.h"
#include "platform/brund/rules.h"
#include "platform/brund/run.h"

namespace {

using tarnik::brund::Options;

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kRefused = 2;

void complain(const std::string& line) {
  std::fprintf(stderr, "brund-sim: %s\n", line.c_str());
}

int writePolicyFiles(const Options& options, const tarnik::brund::RuleSet& rules) {
  const std::string issues =
      options.issues.empty() ? options.policy_dir + "/issues.csv" : options.issues;
  std::string error;
  if (!tarnik::brund::writePolicy(rules.rules(), options.policy_dir, issues, error)) {
    complain(error);
    return kFailed;
  }
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!tarnik::brund::parseOptions(argc, argv, options, error)) {
    complain(error);
    std::fputs("Try 'brund-sim --help'.\n", stderr);
    return kRefused;
  }
  if (options.action == Options::Action::kHelp) {
    std::fputs(tarnik::brund::kHelp, stdout);
    return kDone;
  }
  const auto rules = tarnik::brund::RuleSet::load(options.rules);
  for (const std::string& problem : rules.problems()) {
    std::fprintf(stderr, "%s\n", problem.c_str());
  }
  if (!rules.problems().empty()) {
    return kRefused;
  }
  switch (options.action) {
    case Options::Action::kCheck:
      if (!options.quiet) {
        std::printf("%s: %zu rules\n", options.rules.c_str(), rules.rules().size());
      }
      return kDone;
    case Options::Action::kWritePolicy:
      return writePolicyFiles(options, rules);
    default:
      return tarnik::brund::run(options, rules) ? kDone : kFailed;
  }
}
