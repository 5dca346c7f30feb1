#include "platform/brund/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarnik::brund {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Action = Options::Action;

Result<Options> parse(std::vector<std::string> words) {
  words.insert(words.begin(), "brund-sim");
  std::vector<const char*> argv;
  for (const std::string& word : words) {
    argv.push_back(word.c_str());
  }
  return parseOptions(static_cast<int>(argv.size()), argv.data());
}

TEST(OptionsTest, Replay) {
  const auto parsed = parse({"--rules", "r", "a.pcap", "--speed=250.5", "--loop", "3", "--account",
                             "x.json", "--queue-size", "51", "--wait", "7", "--ports", "a,b",
                             "--stay", "--quiet", "--", "b.pcap"});
  ASSERT_TRUE(parsed) << parsed.error();
  const Options& options = *parsed;
  EXPECT_EQ(options.action, Action::kReplay);
  EXPECT_EQ(options.rules, "r");
  EXPECT_THAT(options.files, ElementsAre("a.pcap", "b.pcap"));
  EXPECT_EQ(options.speed, Speed::kRate);
  EXPECT_EQ(options.framesPerSecond, 250.5);
  EXPECT_EQ(options.loops, 3u);
  EXPECT_EQ(options.account, "x.json");
  EXPECT_EQ(options.queueSize, 51u);
  EXPECT_EQ(options.wait, 7u);
  EXPECT_THAT(options.ports, ElementsAre("a", "b"));
  EXPECT_TRUE(options.stay);
  EXPECT_TRUE(options.quiet);
}

TEST(OptionsTest, Defaults) {
  const auto parsed = parse({"--rules", "r", "--ports", "a,b", "f"});
  ASSERT_TRUE(parsed) << parsed.error();
  EXPECT_THAT(parsed->files, ElementsAre("f"));
  EXPECT_EQ(parsed->speed, Speed::kMax);
  EXPECT_EQ(parsed->loops, 1u);
  EXPECT_EQ(parsed->queueSize, 5000u);
  EXPECT_EQ(parsed->wait, 30u);
  EXPECT_EQ(parsed->idle, 30u);
  EXPECT_EQ(parsed->seconds, 0u);
  EXPECT_FALSE(parsed->stay);
  EXPECT_FALSE(parsed->quiet);
}

TEST(OptionsTest, Speeds) {
  EXPECT_EQ(parse({"--rules", "r", "f", "--speed", "max"})->speed, Speed::kMax);
  EXPECT_EQ(parse({"--rules", "r", "f", "--speed", "recorded"})->speed, Speed::kRecorded);
}

TEST(OptionsTest, OtherActions) {
  EXPECT_EQ(parse({"--rules", "r", "--check"})->action, Action::kCheck);
  const auto policy = parse({"--rules", "r", "--write-policy", "d", "--issues", "i"});
  ASSERT_TRUE(policy) << policy.error();
  EXPECT_EQ(policy->action, Action::kWritePolicy);
  EXPECT_EQ(policy->policyDir, "d");
  EXPECT_EQ(policy->issues, "i");
  const auto live = parse({"--rules", "r", "--live", "eth0", "--seconds", "9", "--idle", "5"});
  ASSERT_TRUE(live) << live.error();
  EXPECT_EQ(live->action, Action::kLive);
  EXPECT_EQ(live->interface, "eth0");
  EXPECT_EQ(live->seconds, 9u);
  EXPECT_EQ(live->idle, 5u);
  const auto help = parse({"--check", "--help"});
  ASSERT_TRUE(help) << help.error();
  EXPECT_EQ(help->action, Action::kHelp);
  EXPECT_THAT(help->help, HasSubstr("--queue-size"));
}

TEST(OptionsTest, WrongUsageIsRefused) {
  const struct {
    std::vector<std::string> words;  // after --rules r
    const char* error;
  } cases[] = {
      {{}, "no capture file and no --live"},
      {{"--fast", "f"}, "--fast"},
      {{"--live"}, "--live"},
      {{"--check", "--live", "x"}, "--check"},
      {{"--write-policy", "d", "--live", "x"}, "--write-policy"},
      {{"--check", "--write-policy", "d"}, "--check"},
      {{"--live", "x", "f"}, "CAPTURE excludes --live"},
      {{"--check", "f"}, "--check"},
      {{"--write-policy", "d", "f"}, "--write-policy"},
      {{"--issues", "i", "f"}, "--issues requires --write-policy"},
      {{"f", "--speed", "0"}, "--speed: '0' is neither max nor recorded nor a number"},
      {{"f", "--speed", "fast"}, "--speed: 'fast' is neither"},
      {{"f", "--speed", "inf"}, "--speed: 'inf' is neither"},
      {{"f", "--speed", "nan"}, "--speed: 'nan' is neither"},
      {{"f", "--loop", "0"}, "--loop"},
      {{"f", "--loop", "-1"}, "--loop"},
      {{"f", "--queue-size", "50"}, "--queue-size"},
      {{"f", "--queue-size", "100000"}, "--queue-size"},
      {{"f", "--wait", "0"}, "--wait"},
      {{"f", "--ports"}, "--ports"},
      {{"--live", "x", "--seconds", "1x"}, "--seconds"},
      {{"--live", "x", "--idle", "0"}, "--idle"},
  };
  for (const auto& entry : cases) {
    std::vector<std::string> words{"--rules", "r"};
    words.insert(words.end(), entry.words.begin(), entry.words.end());
    const auto parsed = parse(words);
    ASSERT_FALSE(parsed) << entry.error;
    EXPECT_THAT(parsed.error(), HasSubstr(entry.error));
  }
  EXPECT_EQ(parse({"f"}).error(), "--rules is required");
}

}  // namespace
}  // namespace tarnik::brund
