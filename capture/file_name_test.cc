#include "capture/file_name.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>

namespace tarnik {
namespace {

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

TEST(TriggerClassTest, EveryBoundary) {
  const struct {
    std::int32_t triggerId;
    TriggerClass expected;
  } cases[] = {
      {kLowest, TriggerClass::kIpsIssue}, {-65535, TriggerClass::kIpsIssue},
      {-1, TriggerClass::kIpsIssue},      {0, TriggerClass::kUnknown},
      {1, TriggerClass::kNapRule},        {2, TriggerClass::kNapRule},
      {65533, TriggerClass::kNapRule},    {65534, TriggerClass::kNapRule},
      {65535, TriggerClass::kUnknown},    {65536, TriggerClass::kIpsIssue},
      {65537, TriggerClass::kIpsIssue},   {kHighest, TriggerClass::kIpsIssue},
  };
  for (const auto& [triggerId, expected] : cases) {
    EXPECT_EQ(classifyTrigger(triggerId), expected) << triggerId;
  }
}

struct Moment {
  std::time_t time;
  const char* text;
};

std::tm utc(std::time_t time) {
  std::tm result{};
  EXPECT_NE(::gmtime_r(&time, &result), nullptr);
  return result;
}

constexpr std::time_t kMarch = 1709622489;  // 2024-03-05 07:08:09

TEST(CaptureFileNameTest, TimeIsUtcWithFixedWidths) {
  const Moment moments[] = {
      {0, "19700101-000000"},
      {kMarch, "20240305-070809"},
      {1709251199, "20240229-235959"},  // leap day, last second
      {1709251200, "20240301-000000"},  // and the next
      {4107542400, "21000301-000000"},  // 2100 has none
      {4107542399, "21000228-235959"},
      {1704067199, "20231231-235959"},
      {253402300799, "99991231-235959"},
      {253402300800, "100000101-000000"},  // the year takes the digits it needs
      {-62167219200, "00000101-000000"},
      {-1, "19691231-235959"},
  };
  for (const Moment& moment : moments) {
    EXPECT_EQ(captureFileName(utc(moment.time), 0, "", 0),
              "/var/support/tarnik/" + std::string(moment.text) + ".unknown.0.pcap");
  }
}

TEST(CaptureFileNameTest, ALeapSecondHasItsNumber) {
  std::tm time = utc(kMarch);
  time.tm_sec = 60;
  EXPECT_EQ(captureFileName(time, 0, "", 0), "/var/support/tarnik/20240305-070860.unknown.0.pcap");
}

TEST(CaptureFileNameTest, TheZoneOfTheProcessDoesNotMatter) {
  ::setenv("TZ", "XXX-13", 1);
  ::tzset();
  EXPECT_EQ(captureFileName(utc(kMarch), 0, "", 0),
            "/var/support/tarnik/20240305-070809.unknown.0.pcap");
  ::unsetenv("TZ");
  ::tzset();
}

TEST(CaptureFileNameTest, EveryTriggerClass) {
  const struct {
    std::int32_t triggerId;
    std::uint64_t sequence;
    const char* expected;
  } cases[] = {
      {65536, 1, ".ips.X_Y.1.pcap"},
      {kHighest, 0, ".ips.X_Y.0.pcap"},
      {-1, 2, ".ips.X_Y.2.pcap"},
      {kLowest, 3, ".ips.X_Y.3.pcap"},
      {1, 0, ".naprule-1.0.pcap"},
      {65534, 1, ".naprule-65534.1.pcap"},
      {0, 0, ".unknown.0.pcap"},
      {65535, 7, ".unknown.7.pcap"},
      {0, std::numeric_limits<std::uint64_t>::max(), ".unknown.18446744073709551615.pcap"},
  };
  for (const auto& [triggerId, sequence, expected] : cases) {
    EXPECT_EQ(captureFileName(utc(kMarch), triggerId, "X_Y", sequence),
              std::string("/var/support/tarnik/20240305-070809") + expected);
  }
}

TEST(CaptureFileNameTest, IssueNamesStandAsTheyAre) {
  for (const char* const name : {"", "A B  C ", "a.b.pcap", "../up/../and/../on", "%s%n%d",
                                 "\xc3\x9c"
                                 "ber-\xe6\x97\xa5\xe6\x9c\xac",
                                 "tab\there", "line\nbreak", "quote'\"`$(x);|&"}) {
    EXPECT_EQ(captureFileName(utc(kMarch), 65536, name, 1),
              "/var/support/tarnik/20240305-070809.ips." + std::string(name) + ".1.pcap");
  }
}

// 20 characters of directory, 15 of time, 5 of ".ips." stand before the name; ".1.pcap" behind it.
TEST(CaptureFileNameTest, LongNamesAreCut) {
  const std::string front = "/var/support/tarnik/20240305-070809.ips.";
  ASSERT_EQ(front.size(), 40U);
  const auto named = [&](std::size_t length) {
    return captureFileName(utc(kMarch), 65536, std::string(length, 'n'), 1);
  };
  EXPECT_EQ(named(206), front + std::string(206, 'n') + ".1.pcap");  // 253
  EXPECT_EQ(named(207), front + std::string(207, 'n') + ".1.pcap");  // 254, the longest
  EXPECT_EQ(named(208), front + std::string(208, 'n') + ".1.pca");
  EXPECT_EQ(named(213), front + std::string(213, 'n') + ".");
  EXPECT_EQ(named(214), front + std::string(214, 'n'));
  EXPECT_EQ(named(215), front + std::string(214, 'n'));
  EXPECT_EQ(named(100000), front + std::string(214, 'n'));
}

TEST(CaptureFileNameTest, OtherClassesIgnoreTheName) {
  EXPECT_EQ(captureFileName(utc(kMarch), 5, std::string(300, 'n'), 1),
            "/var/support/tarnik/20240305-070809.naprule-5.1.pcap");
}

}  // namespace
}  // namespace tarnik
