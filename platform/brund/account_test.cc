#include "platform/brund/account.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/owned.h"

namespace tarnik::brund {
namespace {

using ::testing::HasSubstr;

const Trigger kHttp{RuleKind::kIps, 70000, "HTTP"};

FlowKey flow() {
  FlowKey key;
  key.kind = FlowKey::Kind::kIpv4;
  key.hasPorts = true;
  key.protocol = 6;
  key.low = {{10, 0, 0, 1}, 80};
  key.high = {{10, 0, 0, 2}, 1025};
  return key;
}

TEST(AccountTest, BalancesWhenEveryMatchedFrameIsQueuedOrRefused) {
  Account account;
  EXPECT_TRUE(account.balanced());
  account.seen();
  account.matched();
  EXPECT_FALSE(account.balanced());
  account.refused(Refusal::kTooLarge);
  EXPECT_TRUE(account.balanced());
  account.matched();
  account.queued(account.begin(1, flow(), kHttp), 60, false);
  EXPECT_TRUE(account.balanced());
}

TEST(AccountTest, WritesJson) {
  Account account;
  for (int i = 0; i < 5; ++i) {
    account.seen();
  }
  const std::size_t capture = account.begin(0xfedcba9876543210, flow(), kHttp);
  for (int i = 0; i < 3; ++i) {
    account.matched();
  }
  account.queued(capture, 60, false);
  account.queued(capture, 1514, true);
  account.refused(Refusal::kEmpty);
  account.dropped(4);
  account.problem("a \"b\"\\\n\xff");  // not UTF-8
  static_cast<void>(account.begin(2, flow(), {RuleKind::kNap, 9, "u"}));
  const std::string flowId = std::to_string(flow().id());
  EXPECT_EQ(account.json(),
            R"({
  "seen": 5,
  "matched": 3,
  "queued": 2,
  "captures": 2,
  "refused": 1,
  "refused_by_reason": {
    "no frame in the pool": 0,
    "queue full": 0,
    "too large": 0,
    "empty": 1,
    "metadata socket full": 0,
    "no daemon": 0,
    "after close": 0,
    "stopped": 0
  },
  "dropped_by_kernel": 4,
  "balanced": true,
  "problems": [
    "a \"b\"\\\n)"
            "\xef\xbf\xbd"
            R"("
  ],
  "capture_list": [
    {"id":"fedcba9876543210","flow_id":")" +
                flowId +
                R"(","flow":"tcp 10.0.0.1:80 <-> 10.0.0.2:1025","trigger":)"
                R"({"kind":"ips","id":70000,"name":"HTTP"},"frames":2,"bytes":1574,"ended":true},
    {"id":"2","flow_id":")" +
                flowId +
                R"(","flow":"tcp 10.0.0.1:80 <-> 10.0.0.2:1025","trigger":)"
                R"({"kind":"nap","id":9,"name":"u"},"frames":0,"bytes":0,"ended":false}
  ]
}
)");
  EXPECT_THAT(Account().json(), HasSubstr("\"problems\": [],\n  \"capture_list\": []\n}\n"));
}

TEST(AccountTest, SummaryNamesTheReasons) {
  Account account;
  account.seen();
  account.matched();
  EXPECT_EQ(account.summary(), "1 frames seen, 1 matched, 0 queued in 0 captures, 0 refused");
  account.refused(Refusal::kQueueFull);
  account.refused(Refusal::kEmpty);
  account.refused(Refusal::kEmpty);
  account.dropped(7);
  EXPECT_EQ(account.summary(),
            "1 frames seen, 1 matched, 0 queued in 0 captures, 3 refused (1 queue full, 2 empty), "
            "7 dropped by the kernel before they were seen");
}

TEST(AccountTest, VerdictSaysWhatWasNotQueuedAndWhy) {
  const struct {
    int matched;
    int queued;
    std::vector<Refusal> refused;
    std::uint64_t dropped;
    bool complete;
    const char* verdict;
  } cases[] = {
      {0, 0, {}, 0, true, "nothing was queued: no frame matched a rule"},
      {2, 2, {}, 0, true, "all 2 matched frames were queued"},
      {2,
       2,
       {},
       3,
       false,
       "all 2 matched frames were queued; the kernel dropped 3 frames before they were read"},
      {2,
       1,
       {Refusal::kAfterClose},
       0,
       true,
       "1 of 2 matched frames were not queued (1: after the close of their connection)"},
      {5,
       1,
       {Refusal::kQueueFull, Refusal::kEmpty, Refusal::kEmpty, Refusal::kAfterClose},
       0,
       false,
       "4 of 5 matched frames were not queued (1: the queue was full; 2: without data; 1: after "
       "the close of their connection)"},
  };
  for (const auto& entry : cases) {
    Account account;
    for (int i = 0; i < entry.matched; ++i) {
      account.matched();
    }
    for (int i = 0; i < entry.queued; ++i) {
      account.queued(0, 1, false);
    }
    for (const Refusal reason : entry.refused) {
      account.refused(reason);
    }
    account.dropped(entry.dropped);
    EXPECT_EQ(account.verdict(), entry.verdict);
    EXPECT_EQ(account.complete(), entry.complete) << entry.verdict;
  }
}

// Standard error is a pseudoterminal.
class ProgressTest : public ::testing::Test {
 protected:
  void openTerminal(unsigned short columns) {
    int terminal = -1;
    int program = -1;
    winsize size{24, columns, 0, 0};
    ASSERT_EQ(openpty(&terminal, &program, nullptr, nullptr, &size), 0);
    terminal_.reset(terminal);
    program_.reset(program);
    ASSERT_EQ(fcntl(terminal, F_SETFL, O_NONBLOCK), 0);
    error_.reset(dup(STDERR_FILENO));
    ASSERT_EQ(dup2(program, STDERR_FILENO), STDERR_FILENO);
  }
  void TearDown() override { dup2(error_.get(), STDERR_FILENO); }
  [[nodiscard]] std::string shown() const {
    char text[4096];
    const ssize_t size = read(terminal_.get(), text, sizeof text);
    return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
  }

  OwnedFd terminal_;
  OwnedFd program_;
  OwnedFd error_;
  Account account_;
};

TEST_F(ProgressTest, ShowsTheSummaryInOneLineAndRemovesIt) {
  openTerminal(200);
  account_.seen();
  {
    Progress progress(account_, false);
    progress.show();
    EXPECT_EQ(shown(), "\r" + account_.summary() + "\033[K");
    progress.show();  // too soon
    EXPECT_EQ(shown(), "");
  }
  EXPECT_EQ(shown(), "\r\033[K");
}

TEST_F(ProgressTest, CutsTheLineToTheTerminal) {
  openTerminal(12);
  Progress progress(account_, false);
  progress.showRead(12);
  EXPECT_EQ(shown(), "\r12 frames r\033[K");
}

TEST_F(ProgressTest, ShowsNothingWhenQuiet) {
  openTerminal(80);
  {
    Progress progress(account_, true);
    progress.show();
    progress.showRead(12);
  }
  EXPECT_EQ(shown(), "");
}

}  // namespace
}  // namespace tarnik::brund
