#include "platform/brund/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "platform/brund/pacer.h"

namespace tarnik::brund {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Parsed {
  bool good;
  Options options;
  std::string error;
};

Parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "brund-sim");
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  Parsed result{false, {}, {}};
  result.good =
      parseOptions(static_cast<int>(words.size()), argv.data(), result.options, result.error);
  return result;
}

TEST(OptionsTest, Replay) {
  const Parsed parsed =
      parse({"--rules", "r", "a.pcap", "--speed=250.5", "--loop", "3", "--account", "x.json",
             "--queue-size", "51", "--ports", "a,b", "--stay", "--quiet", "b.pcap"});
  ASSERT_TRUE(parsed.good) << parsed.error;
  const Options& options = parsed.options;
  EXPECT_EQ(options.action, Options::Action::kReplay);
  EXPECT_EQ(options.rules, "r");
  EXPECT_THAT(options.files, ElementsAre("a.pcap", "b.pcap"));
  EXPECT_EQ(options.speed, Speed::kRate);
  EXPECT_EQ(options.frames_per_second, 250.5);
  EXPECT_EQ(options.loops, 3u);
  EXPECT_EQ(options.account, "x.json");
  EXPECT_EQ(options.queue_size, 51u);
  EXPECT_THAT(options.ports, ElementsAre("a", "b"));
  EXPECT_TRUE(options.stay);
  EXPECT_TRUE(options.quiet);
}

TEST(OptionsTest, OtherActions) {
  EXPECT_EQ(parse({"--rules", "r", "--check"}).options.action, Options::Action::kCheck);
  const Parsed policy = parse({"--rules", "r", "--write-policy", "d", "--issues", "i"});
  EXPECT_TRUE(policy.good);
  EXPECT_EQ(policy.options.action, Options::Action::kWritePolicy);
  EXPECT_EQ(policy.options.policy_dir, "d");
  EXPECT_EQ(policy.options.issues, "i");
  const Parsed live = parse({"--rules", "r", "--live", "eth0", "--seconds", "9", "--idle", "5"});
  EXPECT_TRUE(live.good);
  EXPECT_EQ(live.options.action, Options::Action::kLive);
  EXPECT_EQ(live.options.interface, "eth0");
  EXPECT_EQ(live.options.seconds, 9u);
  EXPECT_EQ(live.options.idle, 5u);
  EXPECT_EQ(parse({"--check", "--help"}).options.action, Options::Action::kHelp);
}

TEST(OptionsTest, WrongUsage) {
  const struct {
    std::vector<std::string> words;
    const char* error;
  } cases[] = {
      {{}, "--rules FILE is missing"},
      {{"--rules"}, "--rules needs an argument"},
      {{"--rules", "r"}, "no capture file and no --live"},
      {{"--rules", "r", "--fast", "f"}, "unknown option '--fast'"},
      {{"--rules", "r", "--check", "--live", "x"}, "only one of"},
      {{"--rules", "r", "--live", "x", "f"}, "'f': capture files are for a replay only"},
      {{"--rules", "r", "--issues", "i", "f"}, "--issues goes with --write-policy only"},
      {{"--rules", "r", "f", "--speed", "0"}, "--speed: '0' is not possible"},
      {{"--rules", "r", "f", "--speed", "fast"}, "--speed: 'fast' is not possible"},
      {{"--rules", "r", "f", "--speed", "inf"}, "--speed: 'inf' is not possible"},
      {{"--rules", "r", "f", "--loop", "0"}, "--loop: '0' is not possible"},
      {{"--rules", "r", "f", "--loop", "-1"}, "--loop: '-1' is not possible"},
      {{"--rules", "r", "f", "--queue-size", "50"}, "--queue-size: '50' is not possible"},
      {{"--rules", "r", "f", "--queue-size", "100000"}, "is not possible"},
      {{"--rules", "r", "f", "--ports", ""}, "--ports: '' is not possible"},
      {{"--rules", "r", "f", "--ports", "a,,b"}, "--ports: 'a,,b' is not possible"},
      {{"--rules", "r", "f", "--ports", "a,b,"}, "--ports: 'a,b,' is not possible"},
      {{"--rules", "r", "f", "--create-queue"}, "unknown option '--create-queue'"},
      {{"--rules", "r", "--live", "x", "--seconds", "1x"}, "--seconds: '1x' is not possible"},
  };
  for (const auto& entry : cases) {
    const Parsed parsed = parse(entry.words);
    EXPECT_FALSE(parsed.good) << entry.error;
    EXPECT_THAT(parsed.error, HasSubstr(entry.error));
  }
}

std::vector<std::int64_t> dues(Pacer pacer, const std::vector<double>& times) {
  std::vector<std::int64_t> result;
  for (const double time : times) {
    Frame frame;
    frame.ts_sec = static_cast<std::uint32_t>(time);
    frame.ts_usec = static_cast<std::uint32_t>((time - frame.ts_sec) * 1e6 + 0.5);
    result.push_back(pacer.due(frame).count());
  }
  return result;
}

TEST(PacerTest, RecordedSpeedKeepsThePauses) {
  EXPECT_THAT(dues(Pacer(Speed::kRecorded, 0), {1000, 1000.25, 1002.25, 1062.25}),
              ElementsAre(0, 250000, 2250000, 62250000));
}

TEST(PacerTest, StepsBackAndSeamsAreNoPauses) {
  EXPECT_THAT(dues(Pacer(Speed::kRecorded, 0), {1000, 900, 900.5, 1900, 1900}),
              ElementsAre(0, 0, 500000, 1500000, 1500000));
}

TEST(PacerTest, Rate) {
  EXPECT_THAT(dues(Pacer(Speed::kRate, 4), {9, 1, 5}), ElementsAre(0, 250000, 500000));
}

TEST(PacerTest, MaximumNeverWaits) {
  EXPECT_THAT(dues(Pacer(Speed::kMax, 0), {1, 1000}), ElementsAre(0, 0));
}

}  // namespace
}  // namespace tarnik::brund
