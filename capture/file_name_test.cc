#include "capture/file_name.h"

#include <gtest/gtest.h>

#include <limits>

namespace tarnik {
namespace {

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();
constexpr std::time_t kMarch = 1709622489;  // 2024-03-05 07:08:09

std::tm utc(std::time_t time) {
  std::tm result{};
  EXPECT_NE(::gmtime_r(&time, &result), nullptr);
  return result;
}

// The name of a capture of March, without its directory and time.
std::string afterTime(std::int32_t triggerId, const std::string& issueName,
                      std::uint64_t sequence) {
  const std::string front = "/var/support/tarnik/20240305-070809.";
  const std::string path = captureFileName(utc(kMarch), triggerId, issueName, sequence);
  EXPECT_EQ(path.substr(0, front.size()), front);
  return path.substr(front.size());
}

TEST(CaptureFileNameTest, ContainsTheTimeInFixedWidths) {
  ::setenv("TZ", "XXX-13", 1);  // has no effect
  ::tzset();
  std::tm leapSecond = utc(kMarch);
  leapSecond.tm_sec = 60;
  const std::pair<std::tm, const char*> kTimes[] = {
      {utc(0), "19700101-000000"},
      {utc(kMarch), "20240305-070809"},
      {leapSecond, "20240305-070860"},
      {utc(1709251199), "20240229-235959"},
      {utc(1704067199), "20231231-235959"},
      {utc(253402300800), "100000101-000000"},  // the year takes the digits it needs
      {utc(-62167219200), "00000101-000000"},
      {utc(-1), "19691231-235959"},
  };
  for (const auto& [time, text] : kTimes) {
    EXPECT_EQ(captureFileName(time, 0, "", 0),
              "/var/support/tarnik/" + std::string(text) + ".unknown.0.pcap");
  }
  ::unsetenv("TZ");
  ::tzset();
}

TEST(CaptureFileNameTest, ContainsTheTriggerAndTheSequence) {
  using enum TriggerClass;
  constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
  const struct {
    std::int32_t triggerId;
    std::uint64_t sequence;
    TriggerClass triggerClass;
    const char* expected;
  } kCases[] = {
      {kLowest, 3, kIpsIssue, "ips.X_Y.3.pcap"},
      {-65535, 0, kIpsIssue, "ips.X_Y.0.pcap"},
      {-1, 2, kIpsIssue, "ips.X_Y.2.pcap"},
      {0, kLargest, kUnknown, "unknown.18446744073709551615.pcap"},
      {1, 0, kNapRule, "naprule-1.0.pcap"},
      {65534, 1, kNapRule, "naprule-65534.1.pcap"},
      {65535, 7, kUnknown, "unknown.7.pcap"},
      {65536, 1, kIpsIssue, "ips.X_Y.1.pcap"},
      {kHighest, 0, kIpsIssue, "ips.X_Y.0.pcap"},
  };
  for (const auto& [triggerId, sequence, triggerClass, expected] : kCases) {
    EXPECT_EQ(classifyTrigger(triggerId), triggerClass) << triggerId;
    EXPECT_EQ(afterTime(triggerId, "X_Y", sequence), expected);
  }
}

TEST(CaptureFileNameTest, ContainsTheIssueNameUnchanged) {
  for (const char* const name : {"", "A B  C ", "a.b.pcap", "../up/../and/../on", "%s%n%d",
                                 "\xc3\x9c tab\there", "line\nbreak", "quote'\"`$(x);|&"}) {
    EXPECT_EQ(afterTime(65536, name, 1), "ips." + std::string(name) + ".1.pcap");
  }
}

// The directory, the time and "ips." take 40 characters of 254; ".1.pcap" follows the name.
TEST(CaptureFileNameTest, TruncatesLongNames) {
  const std::pair<std::size_t, const char*> kEnds[] = {
      {206, ".1.pcap"}, {207, ".1.pcap"}, {208, ".1.pca"}, {213, "."}, {214, ""}};
  for (const auto& [length, end] : kEnds) {
    const std::string name(length, 'n');
    EXPECT_EQ(afterTime(65536, name, 1), "ips." + name + end) << length;
  }
  for (const std::size_t length : {std::size_t{215}, std::size_t{100000}}) {
    EXPECT_EQ(afterTime(65536, std::string(length, 'n'), 1), "ips." + std::string(214, 'n'));
  }
  EXPECT_EQ(afterTime(5, std::string(300, 'n'), 1), "naprule-5.1.pcap");
}

}  // namespace
}  // namespace tarnik
