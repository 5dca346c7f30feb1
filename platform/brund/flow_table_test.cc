#include "platform/brund/flow_table.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "packet/testing/frames.h"

namespace tarnik::brund {
namespace {

using namespace test;

constexpr std::uint16_t kMore = 0x2000;
constexpr std::uint8_t kUdp = 17;
const char kDns[] = "udp 10.0.0.1:53 <-> 10.0.0.2:1000";
const char kOther[] = "udp 10.0.0.1:54 <-> 10.0.0.2:1000";
const char kAddresses[] = "udp 10.0.0.1 <-> 10.0.0.2";

// A fragment of the datagram `id`; `field` is its flags and offset.
Bytes fragment(std::uint16_t id, std::uint16_t field, const Bytes& payload,
               std::uint8_t protocol = kUdp) {
  return ethernet(0x0800, ipv4({.protocol = protocol, .id = id, .fragment = field}, payload));
}
Bytes first(std::uint16_t id, std::uint16_t port = 53) {
  return fragment(id, kMore, udp(port, 1000));
}
Bytes later(std::uint16_t id, std::uint16_t field = 1) {
  return fragment(id, field, Bytes(8, 1));
}
Bytes ipv6Fragment(std::uint16_t field, std::uint32_t id, const Bytes& payload) {
  return ethernet(0x86dd, ipv6(44, Bytes{kUdp, 0} + be(field, 2) + be(id, 4) + payload));
}

TEST(FlowFinder, FragmentsBelongToTheFlowOfTheirDatagram) {
  const Bytes back = ethernet(0x0800, ipv4({.protocol = kUdp,
                                            .source = {10, 0, 0, 2},
                                            .destination = {10, 0, 0, 1},
                                            .id = 1,
                                            .fragment = 1},
                                           Bytes(8, 1)));
  const std::vector<std::vector<std::pair<Bytes, const char*>>> inputs = {
      {{first(1), kDns},
       {first(2, 54), kOther},
       {later(1, kMore | 1), kDns},
       {later(2), kOther},
       {later(1, 2), kDns}},
      // The last first fragment counts.
      {{first(1), kDns}, {first(1, 54), kOther}, {later(1), kOther}},
      // A later fragment without a first one: too early, another identification, another protocol,
      // the other direction.
      {{later(1), kAddresses},
       {first(1), kDns},
       {later(2), kAddresses},
       {fragment(1, 1, Bytes(8, 1), 6), "tcp 10.0.0.1 <-> 10.0.0.2"},
       {back, kAddresses}},
      {{ipv6Fragment(1, 0x10001, udp(53, 1000)), "udp [2001::1]:53 <-> [2001::2]:1000"},
       {ipv6Fragment(8, 0x10001, Bytes(8, 1)), "udp [2001::1]:53 <-> [2001::2]:1000"},
       {ipv6Fragment(8, 0x20001, Bytes(8, 1)), "udp 2001::1 <-> 2001::2"}},
      // The finder remembers two datagrams.
      {{first(1), kDns},
       {first(2), kDns},
       {first(3), kDns},
       {later(1), kAddresses},
       {later(2), kDns},
       {later(3), kDns}},
  };
  for (const auto& input : inputs) {
    FlowFinder finder(2);
    for (const auto& [frame, flow] : input) {
      EXPECT_EQ(finder.find(frameOf(frame)).key.text(), flow);
    }
  }
}

constexpr std::uint8_t kFin = TcpHeader::kFin, kSyn = TcpHeader::kSyn, kRst = TcpHeader::kRst,
                       kAck = TcpHeader::kAck;

TcpHeader segment(std::uint8_t flags, std::uint32_t sequence, std::uint32_t acknowledgement,
                  std::uint32_t payload = 0) {
  return {sequence, acknowledgement, flags, payload};
}

struct Segment {
  TcpHeader tcp;
  bool fromLow;
};

TEST(TcpCloseTest, ClosesWithTheLastSegment) {
  const struct {
    const char* what;
    std::vector<Segment> segments;
  } cases[] = {
      {"one side after the other",
       {{segment(kAck, 10, 20, 5), true},
        {segment(kFin | kAck, 15, 20), true},
        {segment(kAck, 20, 16, 3), false},  // continues to send
        {segment(kAck, 16, 23), true},
        {segment(kFin | kAck, 23, 16, 7), false},
        {segment(kAck, 16, 30), true},  // the data, not yet the FIN
        {segment(kAck, 16, 31), true}}},
      {"a FIN that acknowledges the other",
       {{segment(kFin | kAck, 100, 200), false},
        {segment(kFin | kAck, 200, 101), true},
        {segment(kAck, 101, 201), false}}},
      {"at the same time, with sequence numbers that wrap",
       {{segment(kFin | kAck, 0xffffffff, 50), true},
        {segment(kFin | kAck, 50, 0xffffffff), false},
        {segment(kAck, 0, 51), true},
        {segment(kAck, 51, 0), false}}},
      {"a reset", {{segment(kSyn, 1, 0), true}, {segment(kRst | kAck, 0, 2), false}}},
  };
  for (const auto& entry : cases) {
    TcpClose close;
    for (std::size_t i = 0; i < entry.segments.size(); ++i) {
      EXPECT_EQ(close.closes(entry.segments[i].tcp, entry.segments[i].fromLow),
                i + 1 == entry.segments.size())
          << entry.what << ", segment " << i;
    }
  }
}

class FlowTableTest : public ::testing::Test {
 protected:
  static Decoded frame(std::uint16_t port, std::uint8_t flags = kAck) {
    const Bytes bytes = ethernet(0x0800, ipv4({}, tcp(port, 80, flags)));
    return decode(frameOf(bytes));
  }
  FlowTable table_{10, 3};
};

TEST_F(FlowTableTest, FindsAddedFlows) {
  EXPECT_EQ(table_.find(frame(1), 100), nullptr);
  FlowTable::Flow* added = table_.add(frame(1).key, nullptr, 100);
  EXPECT_EQ(table_.find(frame(1), 100), added);
  EXPECT_EQ(table_.find(frame(2), 100), nullptr);
}

TEST_F(FlowTableTest, AnIdleFlowEnds) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  EXPECT_NE(table_.find(frame(1), 110), nullptr);
  EXPECT_NE(table_.find(frame(1), 120), nullptr);
  EXPECT_NE(table_.find(frame(1), 90), nullptr);  // the clock went back
  EXPECT_EQ(table_.find(frame(1), 101), nullptr);
  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(FlowTableTest, AClosedFlowStaysForAWhile) {
  table_.add(frame(1).key, nullptr, 100)->closed = true;
  EXPECT_NE(table_.find(frame(1), 102), nullptr);
  EXPECT_NE(table_.find(frame(1, kSyn | kAck), 103), nullptr);
  EXPECT_EQ(table_.find(frame(1), 104), nullptr);
  table_.add(frame(1).key, nullptr, 200)->closed = true;
  EXPECT_EQ(table_.find(frame(1, kSyn), 200), nullptr);
  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(FlowTableTest, ASynDoesNotEndAnOpenFlow) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  EXPECT_NE(table_.find(frame(1, kSyn), 100), nullptr);
}

TEST_F(FlowTableTest, AFullTableDropsTheFlowThatWasSilentLongest) {
  for (std::uint16_t port = 1; port <= 3; ++port) {
    static_cast<void>(table_.add(frame(port).key, nullptr, 100));
  }
  EXPECT_NE(table_.find(frame(1), 101), nullptr);
  static_cast<void>(table_.add(frame(4).key, nullptr, 101));
  EXPECT_EQ(table_.size(), 3u);
  EXPECT_NE(table_.find(frame(1), 101), nullptr);
  EXPECT_EQ(table_.find(frame(2), 101), nullptr);
}

TEST_F(FlowTableTest, AddingRemovesIdleFlows) {
  static_cast<void>(table_.add(frame(1).key, nullptr, 100));
  static_cast<void>(table_.add(frame(2).key, nullptr, 100));
  static_cast<void>(table_.add(frame(3).key, nullptr, 111));
  EXPECT_EQ(table_.size(), 1u);
}

}  // namespace
}  // namespace tarnik::brund
