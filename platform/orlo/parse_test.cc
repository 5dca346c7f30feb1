// Keys, booleans and integers as text.
#include <gtest/gtest.h>
#include <orlo_sdk.h>

#include <limits>
#include <string>

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(MatchPrefix, ReturnsThePartAfterThePrefix) {
  const char key[] = "acl.rule.priority._abc";
  EXPECT_EQ(OrloMatchPrefix(key, "acl.rule.priority."), key + 18);
  EXPECT_STREQ(OrloMatchPrefix(key, key), "");
  EXPECT_EQ(OrloMatchPrefix(key, ""), key);
}

TEST(MatchPrefix, RefusesEverythingElse) {
  EXPECT_EQ(OrloMatchPrefix("acl.rule", "acl.rule."), nullptr);
  EXPECT_EQ(OrloMatchPrefix("ACL.rule.x", "acl.rule."), nullptr);
  EXPECT_EQ(OrloMatchPrefix("xacl.rule.", "acl.rule."), nullptr);
  EXPECT_EQ(OrloMatchPrefix("", "a"), nullptr);
  EXPECT_EQ(OrloMatchPrefix(nullptr, "a"), nullptr);
  EXPECT_EQ(OrloMatchPrefix("a", nullptr), nullptr);
}

TEST(ParseBool, ReadsItsWordsInAnyCaseWithSurroundingSpace) {
  for (const char* word : {"true", "yes", "on", "enable", "enabled", "1", "TRUE", "Yes", "oN",
                           " true", "true\t", "\r\n 1 \v\f"}) {
    bool result = false;
    EXPECT_TRUE(OrloParseBool(word, &result)) << word;
    EXPECT_TRUE(result) << word;
  }
  for (const char* word :
       {"false", "no", "off", "disable", "disabled", "0", "FALSE", "No", " 0 "}) {
    bool result = true;
    EXPECT_TRUE(OrloParseBool(word, &result)) << word;
    EXPECT_FALSE(result) << word;
  }
}

TEST(ParseBool, RefusesOtherWordsAndLeavesTheResult) {
  for (const char* word :
       {"", " ", "2", "01", "tru", "truee", "y", "n", "true false", "-1", "t rue"}) {
    bool result = true;
    EXPECT_FALSE(OrloParseBool(word, &result)) << word;
    EXPECT_TRUE(result) << word;
  }
  bool result = true;
  EXPECT_FALSE(OrloParseBool(nullptr, &result));
  EXPECT_FALSE(OrloParseBool("1", nullptr));
}

struct Integer {
  const char* text;
  int64_t value;
};

TEST(ParseInt, ReadsDecimalAndHexadecimal) {
  constexpr Integer kIntegers[] = {
      {"0", 0},
      {"-0", 0},
      {"+7", 7},
      {"007", 7},
      {" 42\t", 42},
      {"-42", -42},
      {"0x10", 16},
      {"0Xff", 255},
      {"-0x10", -16},
      {"0xABCdef", 0xabcdef},
      {"9223372036854775807", kMax},
      {"0x7fffffffffffffff", kMax},
      {"-9223372036854775808", kMin},
      {"-0x8000000000000000", kMin},
  };
  for (const Integer& integer : kIntegers) {
    int64_t result = 99;
    EXPECT_TRUE(OrloParseInt(integer.text, kMin, kMax, &result)) << integer.text;
    EXPECT_EQ(result, integer.value) << integer.text;
  }
}

TEST(ParseInt, RefusesOtherTextAndLeavesTheResult) {
  for (const char* text : {"",
                           " ",
                           "+",
                           "-",
                           "0x",
                           "x10",
                           "1x",
                           "1 2",
                           "1.0",
                           "1e3",
                           "--1",
                           "+-1",
                           "- 1",
                           "0x-1",
                           "0xg",
                           "0x0x1",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "18446744073709551616",
                           "18446744073709551615",
                           "99999999999999999999999",
                           "-0x8000000000000001",
                           "10k",
                           "ten"}) {
    int64_t result = 99;
    EXPECT_FALSE(OrloParseInt(text, kMin, kMax, &result)) << text;
    EXPECT_EQ(result, 99) << text;
  }
  int64_t result = 99;
  EXPECT_FALSE(OrloParseInt(nullptr, kMin, kMax, &result));
  EXPECT_FALSE(OrloParseInt("1", kMin, kMax, nullptr));
}

TEST(ParseInt, RefusesValuesOutOfRange) {
  int64_t result = 99;
  EXPECT_FALSE(OrloParseInt("9", 10, 20, &result));
  EXPECT_FALSE(OrloParseInt("21", 10, 20, &result));
  EXPECT_FALSE(OrloParseInt("15", 20, 10, &result));
  EXPECT_EQ(result, 99);
  EXPECT_TRUE(OrloParseInt("10", 10, 20, &result));
  EXPECT_EQ(result, 10);
  EXPECT_TRUE(OrloParseInt("20", 10, 20, &result));
  EXPECT_EQ(result, 20);
  EXPECT_TRUE(OrloParseInt("-5", -5, -5, &result));
  EXPECT_EQ(result, -5);
}

}  // namespace
