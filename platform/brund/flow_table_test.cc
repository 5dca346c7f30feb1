#include "platform/brund/flow_table.h"

#include <gtest/gtest.h>

#include "packet/testing/frames.h"

namespace tarnik::brund {
namespace {

using namespace test;

constexpr std::uint8_t kFin = TcpHeader::kFin, kSyn = TcpHeader::kSyn, kRst = TcpHeader::kRst,
                       kAck = TcpHeader::kAck;

TcpHeader segment(std::uint8_t flags, std::uint32_t sequence, std::uint32_t acknowledgement,
                  std::uint32_t payload = 0) {
  return {sequence, acknowledgement, flags, payload};
}

TEST(TcpCloseTest, ClosesWithTheLastAcknowledgement) {
  TcpClose close;
  EXPECT_FALSE(close.closes(segment(kAck, 10, 20, 5), true));
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 15, 20), true));
  EXPECT_FALSE(close.closes(segment(kAck, 20, 16, 3), false));  // goes on sending
  EXPECT_FALSE(close.closes(segment(kAck, 16, 23), true));
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 23, 16, 7), false));
  EXPECT_FALSE(close.closes(segment(kAck, 16, 30), true));  // the data, not yet the FIN
  EXPECT_TRUE(close.closes(segment(kAck, 16, 31), true));
}

TEST(TcpCloseTest, FinThatAcknowledgesTheOther) {
  TcpClose close;
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 100, 200), false));
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 200, 101), true));
  EXPECT_TRUE(close.closes(segment(kAck, 101, 201), false));
}

TEST(TcpCloseTest, SimultaneousAndWrappedAround) {
  TcpClose close;
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 0xffffffff, 50), true));
  EXPECT_FALSE(close.closes(segment(kFin | kAck, 50, 0xffffffff), false));
  EXPECT_FALSE(close.closes(segment(kAck, 0, 51), true));
  EXPECT_TRUE(close.closes(segment(kAck, 51, 0), false));
}

TEST(TcpCloseTest, ResetClosesAtOnce) {
  TcpClose close;
  EXPECT_FALSE(close.closes(segment(kSyn, 1, 0), true));
  EXPECT_TRUE(close.closes(segment(kRst | kAck, 0, 2), false));
}

class FlowTableTest : public ::testing::Test {
 protected:
  static Decoded frame(std::uint16_t port, std::uint8_t flags = kAck) {
    const Bytes bytes = ethernet(0x0800, ipv4({}, tcp(port, 80, flags)));
    return decode(frameOf(bytes));
  }
  FlowTable table_{10, 3};
};

TEST_F(FlowTableTest, FindsWhatWasAdded) {
  EXPECT_EQ(table_.find(frame(1), 100), nullptr);
  FlowTable::Flow* added = table_.add(frame(1).key, nullptr, 100);
  EXPECT_EQ(table_.find(frame(1), 100), added);
  EXPECT_EQ(table_.find(frame(2), 100), nullptr);
}

TEST_F(FlowTableTest, FlowEndsWhenIdle) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  EXPECT_NE(table_.find(frame(1), 110), nullptr);
  EXPECT_NE(table_.find(frame(1), 120), nullptr);
  EXPECT_NE(table_.find(frame(1), 90), nullptr);  // the clock stepped back
  EXPECT_EQ(table_.find(frame(1), 101), nullptr);
  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(FlowTableTest, ClosedFlowLingers) {
  table_.add(frame(1).key, nullptr, 100)->closed = true;
  EXPECT_NE(table_.find(frame(1), 102), nullptr);
  EXPECT_NE(table_.find(frame(1, kSyn | kAck), 103), nullptr);
  EXPECT_EQ(table_.find(frame(1), 104), nullptr);
  table_.add(frame(1).key, nullptr, 200)->closed = true;
  EXPECT_EQ(table_.find(frame(1, kSyn), 200), nullptr);
  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(FlowTableTest, OpenFlowIsNotEndedBySyn) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  EXPECT_NE(table_.find(frame(1, kSyn), 100), nullptr);
}

TEST_F(FlowTableTest, FullTableLosesTheSilentOne) {
  for (std::uint16_t port = 1; port <= 3; ++port) {
    static_cast<void>(table_.add(frame(port).key, nullptr, 100));
  }
  EXPECT_NE(table_.find(frame(1), 101), nullptr);
  static_cast<void>(table_.add(frame(4).key, nullptr, 101));
  EXPECT_EQ(table_.size(), 3u);
  EXPECT_NE(table_.find(frame(1), 101), nullptr);
  EXPECT_EQ(table_.find(frame(2), 101), nullptr);
}

TEST_F(FlowTableTest, AddingForgetsTheIdle) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  static_cast<void>(table_.add(frame(2).key, nullptr, 100));
  static_cast<void>(table_.add(frame(3).key, nullptr, 111));
  EXPECT_EQ(table_.size(), 1u);
}

}  // namespace
}  // namespace tarnik::brund
