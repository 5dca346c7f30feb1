#include "platform/brund/account.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnik::brund {
namespace {

using ::testing::HasSubstr;

Rule rule() {
  return {RuleKind::kIps, 70000, "HTTP", "tcp", {}};
}

FlowKey flow() {
  FlowKey key;
  key.kind = FlowKey::Kind::kIpv4;
  key.has_ports = true;
  key.protocol = 6;
  key.low = {{10, 0, 0, 1}, 80};
  key.high = {{10, 0, 0, 2}, 1025};
  return key;
}

TEST(AccountTest, BalancesWhenEveryMatchedFrameHasAFate) {
  Account account;
  EXPECT_TRUE(account.balanced());
  account.seen();
  account.matched();
  EXPECT_FALSE(account.balanced());
  account.refused(Refusal::kTooLarge);
  EXPECT_TRUE(account.balanced());
  account.matched();
  account.queued(account.begin(1, flow(), rule()), 60, false);
  EXPECT_TRUE(account.balanced());
}

TEST(AccountTest, JsonToTheLetter) {
  Account account;
  for (int i = 0; i < 5; ++i) {
    account.seen();
  }
  const std::size_t capture = account.begin(0xfedcba9876543210, flow(), rule());
  account.matched();
  account.queued(capture, 60, false);
  account.matched();
  account.queued(capture, 1514, true);
  account.matched();
  account.refused(Refusal::kEmpty);
  account.dropped(4);
  account.problem("a \"b\"\\\n");
  EXPECT_EQ(
      account.json(),
      "{\n"
      "  \"seen\": 5,\n"
      "  \"matched\": 3,\n"
      "  \"queued\": 2,\n"
      "  \"captures\": 1,\n"
      "  \"refused\": 1,\n"
      "  \"refused_by_reason\": {\"no frame in the pool\": 0, \"queue full\": 0, \"too large\": "
      "0, \"empty\": 1, \"metadata socket full\": 0, \"no daemon\": 0, \"after close\": 0, "
      "\"stopped\": 0},\n"
      "  \"dropped_by_kernel\": 4,\n"
      "  \"balanced\": true,\n"
      "  \"problems\": [\n"
      "    \"a \\\"b\\\"\\\\\\u000a\"\n"
      "  ],\n"
      "  \"capture_list\": [\n"
      "    {\"id\": \"fedcba9876543210\", \"flow_id\": \"" +
          std::to_string(flow().id()) +
          "\", \"flow\": \"tcp 10.0.0.1:80 <-> 10.0.0.2:1025\", \"trigger\": {\"kind\": "
          "\"ips\", \"id\": 70000, \"name\": \"HTTP\"}, \"frames\": 2, \"bytes\": 1574, "
          "\"ended\": true}\n"
          "  ]\n"
          "}\n");
}

TEST(AccountTest, EmptyListsAreJsonToo) {
  EXPECT_THAT(Account().json(), HasSubstr("\"problems\": [],\n  \"capture_list\": []\n}"));
}

TEST(AccountTest, SummaryNamesTheReasons) {
  Account account;
  account.seen();
  account.matched();
  account.refused(Refusal::kQueueFull);
  account.refused(Refusal::kEmpty);
  account.refused(Refusal::kEmpty);
  EXPECT_EQ(account.summary(),
            "1 frames seen, 1 matched, 0 queued in 0 captures, 3 refused (1 queue full, 2 empty)");
}

}  // namespace
}  // namespace tarnik::brund
