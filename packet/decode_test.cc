#include "packet/decode.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "packet/testing/frames.h"

namespace tarnik {
namespace {

using namespace test;

std::string flowOf(const Bytes& bytes) {
  return decode(frameOf(bytes)).key.text();
}

constexpr std::uint8_t kHopByHop = 0, kTcp = 6, kUdp = 17, kRouting = 43, kFragmentHeader = 44,
                       kGre = 47, kAh = 51, kIcmp6 = 58, kNoNext = 59, kOptions = 60, kSctp = 132;
const char kTcpFlow[] = "tcp 10.0.0.1:1025 <-> 10.0.0.2:80";
const char kTcp6Flow[] = "tcp [2001::1]:1025 <-> [2001::2]:80";
const char kIpv4Macs[] = "ipv4 02:00:00:00:00:01 <-> 02:00:00:00:00:02";

const Bytes kSegment = tcp(1025, 80);
const Bytes kPacket = ipv4({}, kSegment);

struct Case {
  const char* what;
  Bytes frame;
  const char* flow;
};

class FlowOfFrame : public ::testing::TestWithParam<Case> {};

TEST_P(FlowOfFrame, IsFound) {
  EXPECT_EQ(flowOf(GetParam().frame), GetParam().flow);
}

std::vector<Case> ipv4Cases() {
  return {
      {"Tcp", ethernet(0x0800, kPacket), kTcpFlow},
      {"Udp", ethernet(0x0800, ipv4({.protocol = kUdp}, udp(53, 4096))),
       "udp 10.0.0.1:53 <-> 10.0.0.2:4096"},
      {"Sctp", ethernet(0x0800, ipv4({.protocol = kSctp}, be(7, 2) + be(9, 2) + be(0, 8))),
       "sctp 10.0.0.1:7 <-> 10.0.0.2:9"},
      {"Icmp", ethernet(0x0800, ipv4({.protocol = 1}, be(0x0800, 8))),
       "icmp 10.0.0.1 <-> 10.0.0.2"},
      {"UnnamedProtocol", ethernet(0x0800, ipv4({.protocol = 200}, be(1, 8))),
       "ip-protocol-200 10.0.0.1 <-> 10.0.0.2"},
      {"TunnelIsNotEntered", ethernet(0x0800, ipv4({.protocol = kGre}, be(0x0800, 4) + kPacket)),
       "gre 10.0.0.1 <-> 10.0.0.2"},
      {"IpInIpIsNotEntered", ethernet(0x0800, ipv4({.protocol = 4}, kPacket)),
       "ip-protocol-4 10.0.0.1 <-> 10.0.0.2"},
      {"Options", ethernet(0x0800, ipv4({.options = Bytes(40, 1)}, kSegment)), kTcpFlow},
      {"LengthZeroOfOffload", ethernet(0x0800, ipv4({.total = 0}, kSegment)), kTcpFlow},
      {"LengthBelowHeader", ethernet(0x0800, ipv4({.total = 19}, kSegment)),
       "tcp 10.0.0.1 <-> 10.0.0.2"},
      {"PortsAfterTheDatagram", ethernet(0x0800, ipv4({.total = 20}, kSegment)),
       "tcp 10.0.0.1 <-> 10.0.0.2"},
      {"HeaderLengthBelow20",
       ethernet(0x0800, Bytes{0x44} + Bytes(kPacket.begin() + 1, kPacket.end())),
       "tcp 10.0.0.1 <-> 10.0.0.2"},
      {"OtherVersion", ethernet(0x0800, Bytes{0x65} + Bytes(kPacket.begin() + 1, kPacket.end())),
       kIpv4Macs},
      {"PaddingIsNoPort", ethernet(0x0800, ipv4({.protocol = kUdp, .total = 20}, Bytes(26, 0xaa))),
       "udp 10.0.0.1 <-> 10.0.0.2"},
  };
}

std::vector<Case> tagCases() {
  return {
      {"Vlan", ethernet(0x8100, vlan(7, 0x0800, kPacket)), kTcpFlow},
      {"QinQ", ethernet(0x88a8, vlan(7, 0x8100, vlan(8, 0x0800, kPacket))), kTcpFlow},
      {"OldQinQ", ethernet(0x9100, vlan(7, 0x8100, vlan(8, 0x0800, kPacket))), kTcpFlow},
      {"VlanIpv6", ethernet(0x8100, vlan(7, 0x86dd, ipv6(kTcp, kSegment))), kTcp6Flow},
      {"VlanArp", ethernet(0x8100, vlan(7, 0x0806, be(1, 28))),
       "arp 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"Mpls", ethernet(0x8847, label(16, true) + kPacket), kTcpFlow},
      {"MplsStack", ethernet(0x8847, label(16, false) + label(17, true) + ipv6(kTcp, kSegment)),
       kTcp6Flow},
      {"MplsMulticast", ethernet(0x8848, label(16, true) + kPacket), kTcpFlow},
      {"VlanMpls", ethernet(0x8100, vlan(7, 0x8847, label(16, true) + kPacket)), kTcpFlow},
      {"MplsOfSomethingElse", ethernet(0x8847, label(16, true) + Bytes(40, 0)),
       "mpls 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"MplsWithoutBottom", ethernet(0x8847, label(16, false)),
       "mpls 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
  };
}

std::vector<Case> ipv6Cases() {
  const Bytes options = Bytes{kTcp, 0} + Bytes(6, 0);
  const Bytes longOptions = Bytes{kTcp, 2} + Bytes(22, 0);
  return {
      {"Tcp6", ethernet(0x86dd, ipv6(kTcp, kSegment)), kTcp6Flow},
      {"Icmp6", ethernet(0x86dd, ipv6(kIcmp6, be(1, 8))), "icmp6 2001::1 <-> 2001::2"},
      {"HopByHop", ethernet(0x86dd, ipv6(kHopByHop, options + kSegment)), kTcp6Flow},
      {"LongRouting", ethernet(0x86dd, ipv6(kRouting, longOptions + kSegment)), kTcp6Flow},
      {"Chain",
       ethernet(0x86dd, ipv6(kHopByHop, Bytes{kOptions, 0} + Bytes(6, 0) + longOptions + kSegment)),
       kTcp6Flow},
      {"Authentication", ethernet(0x86dd, ipv6(kAh, Bytes{kTcp, 4} + Bytes(22, 0) + kSegment)),
       kTcp6Flow},
      {"AtomicFragment",
       ethernet(0x86dd, ipv6(kFragmentHeader, Bytes{kTcp, 0, 0, 0} + be(9, 4) + kSegment)),
       kTcp6Flow},
      {"NoNext", ethernet(0x86dd, ipv6(kNoNext, {})), "ip-protocol-59 2001::1 <-> 2001::2"},
      {"ExtensionCutShort", ethernet(0x86dd, ipv6(kRouting, {kTcp, 0, 0})),
       "ip-protocol-43 2001::1 <-> 2001::2"},
      {"ExtensionBeyondTheEnd", ethernet(0x86dd, ipv6(kRouting, Bytes{kTcp, 200} + Bytes(6, 0))),
       "tcp 2001::1 <-> 2001::2"},
  };
}

std::vector<Case> linkCases() {
  return {
      {"Arp", ethernet(0x0806, be(1, 28)), "arp 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"UnnamedType", ethernet(0x1234, {}),
       "ethertype-0x1234 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"Length802Dot3", ethernet(38, Bytes(38, 0x42)),
       "802.3 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"OtherLength802Dot3", ethernet(1500, Bytes(50, 0x42)),
       "802.3 02:00:00:00:00:01 <-> 02:00:00:00:00:02"},
      {"Short", Bytes(13, 1), "frames without an Ethernet header"},
      {"Nothing", {}, "frames without an Ethernet header"},
  };
}

const auto kName = [](const auto& test) { return std::string(test.param.what); };
INSTANTIATE_TEST_SUITE_P(OverIpv4, FlowOfFrame, ::testing::ValuesIn(ipv4Cases()), kName);
INSTANTIATE_TEST_SUITE_P(AfterTags, FlowOfFrame, ::testing::ValuesIn(tagCases()), kName);
INSTANTIATE_TEST_SUITE_P(OverIpv6, FlowOfFrame, ::testing::ValuesIn(ipv6Cases()), kName);
INSTANTIATE_TEST_SUITE_P(BelowIp, FlowOfFrame, ::testing::ValuesIn(linkCases()), kName);

TEST(Decode, BothDirectionsAreOneFlow) {
  const Bytes there = ethernet(0x0800, ipv4({}, tcp(1025, 80)));
  const Bytes back = ethernet(
      0x0800, ipv4({.source = {10, 0, 0, 2}, .destination = {10, 0, 0, 1}}, tcp(80, 1025)), true);
  const Decoded one = decode(frameOf(there));
  const Decoded other = decode(frameOf(back));
  EXPECT_EQ(one.key, other.key);
  EXPECT_EQ(one.key.id(), other.key.id());
  EXPECT_TRUE(one.fromLow);
  EXPECT_FALSE(other.fromLow);
  EXPECT_EQ(decode(frameOf(ethernet(0x0806, be(1, 28)))).key,
            decode(frameOf(ethernet(0x0806, be(2, 28), true))).key);
}

// Crossed ports between the same hosts are another connection.
TEST(Decode, PortsStayWithTheirAddresses) {
  EXPECT_NE(decode(frameOf(ethernet(0x0800, ipv4({}, tcp(1025, 80))))).key,
            decode(frameOf(ethernet(0x0800, ipv4({}, tcp(80, 1025))))).key);
}

TEST(Decode, FlowsWithAndWithoutPortsDiffer) {
  const FlowKey with = decode(frameOf(ethernet(0x0800, ipv4({}, tcp(0, 0))))).key;
  const FlowKey without = decode(frameOf(ethernet(0x0800, ipv4({.fragment = 5}, tcp(0, 0))))).key;
  EXPECT_TRUE(with.hasPorts);
  EXPECT_FALSE(without.hasPorts);
  EXPECT_NE(with, without);
}

TEST(Decode, TagsAreNoPartOfTheFlow) {
  EXPECT_EQ(decode(frameOf(ethernet(0x8100, vlan(7, 0x0800, kPacket)))).key,
            decode(frameOf(ethernet(0x0800, kPacket))).key);
}

TEST(Decode, IdIsPositiveAndDiffersByFlow) {
  const FlowKey one = decode(frameOf(ethernet(0x0800, ipv4({}, tcp(1, 2))))).key;
  const FlowKey other = decode(frameOf(ethernet(0x0800, ipv4({}, tcp(1, 3))))).key;
  EXPECT_NE(one.id(), other.id());
  EXPECT_GT(static_cast<std::int64_t>(one.id()), 0);
}

TEST(Decode, TcpHeaderWithWirePayload) {
  Bytes bytes = ethernet(0x0800, ipv4({}, tcp(1, 2, 0x11, 5, 6, Bytes(100, 0))));
  Frame frame = frameOf(bytes);
  frame.data = frame.data.first(14 + 20 + 20);  // cut after the TCP header
  const Decoded decoded = decode(frame);
  ASSERT_TRUE(decoded.tcp);
  EXPECT_EQ(decoded.tcp->sequence, 5u);
  EXPECT_EQ(decoded.tcp->acknowledgement, 6u);
  EXPECT_EQ(decoded.tcp->flags, 0x11);
  EXPECT_EQ(decoded.tcp->payload, 100u);
}

TEST(Decode, FragmentsAreRecognised) {
  EXPECT_EQ(decode(frameOf(ethernet(0x0800, kPacket))).fragment, Fragment::kNone);
  EXPECT_EQ(decode(frameOf(ethernet(0x0800, ipv4({.fragment = 0x4000}, kSegment)))).fragment,
            Fragment::kNone);  // "don't fragment"
  EXPECT_EQ(decode(frameOf(ethernet(0x0800, ipv4({.fragment = 0x2000}, kSegment)))).fragment,
            Fragment::kFirst);
  EXPECT_EQ(decode(frameOf(ethernet(0x0800, ipv4({.fragment = 0x2010}, kSegment)))).fragment,
            Fragment::kLater);
  EXPECT_EQ(decode(frameOf(ethernet(0x0800, ipv4({.fragment = 0x0010}, kSegment)))).fragment,
            Fragment::kLater);
}

// A frame cut anywhere is decoded as far as it goes, and never read beyond its end (each cut has
// its own buffer, so that the address sanitizer notices a byte too many).
TEST(Decode, CutAtEveryByte) {
  std::vector<Case> all;
  for (const auto& cases : {ipv4Cases(), tagCases(), ipv6Cases(), linkCases()}) {
    all.insert(all.end(), cases.begin(), cases.end());
  }
  for (const Case& entry : all) {
    for (std::size_t size = 0; size < entry.frame.size(); ++size) {
      const Bytes cut(entry.frame.begin(), entry.frame.begin() + static_cast<std::ptrdiff_t>(size));
      Frame frame = frameOf(cut);
      frame.wireLength = static_cast<std::uint32_t>(entry.frame.size());
      const FlowKey key = decode(frame).key;
      EXPECT_EQ(key.kind == FlowKey::Kind::kShort, size < 14) << entry.what << " " << size;
      EXPECT_FALSE(key.text().empty());
    }
  }
}

TEST(Decode, CutWithinPortsIsAFlowOfAddresses) {
  Bytes bytes = ethernet(0x0800, kPacket);
  bytes.resize(14 + 20 + 3);
  EXPECT_EQ(flowOf(bytes), "tcp 10.0.0.1 <-> 10.0.0.2");
  bytes.resize(14 + 19);
  EXPECT_EQ(flowOf(bytes), kIpv4Macs);
}

TEST(Decode, ChainsAreBounded) {
  Bytes tags;
  for (int i = 0; i < 10000; ++i) {
    tags = tags + vlan(1, 0x8100, {});
  }
  EXPECT_EQ(flowOf(ethernet(0x8100, tags)),
            "ethertype-0x8100 02:00:00:00:00:01 <-> 02:00:00:00:00:02");
  Bytes headers;
  for (int i = 0; i < 5000; ++i) {
    headers = headers + Bytes{kOptions, 0} + Bytes(6, 0);
  }
  EXPECT_EQ(flowOf(ethernet(0x86dd, ipv6(kOptions, headers))),
            "ip-protocol-60 2001::1 <-> 2001::2");
}

TEST(Decode, RandomBytesAreSurvived) {
  std::mt19937 random(1);
  const std::uint16_t types[] = {0x0800, 0x86dd, 0x8100, 0x8847, 0x88a8};
  for (int i = 0; i < 200000; ++i) {
    Bytes bytes(random() % 120);
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(random());
    }
    if (bytes.size() >= 15) {
      const std::uint16_t type = types[random() % 5];
      bytes[12] = static_cast<std::uint8_t>(type >> 8);
      bytes[13] = static_cast<std::uint8_t>(type);
      bytes[14] = static_cast<std::uint8_t>((type == 0x0800 ? 0x40 : 0x60) | (bytes[14] & 15));
    }
    Frame frame = frameOf(bytes);
    frame.wireLength = static_cast<std::uint32_t>(random());
    EXPECT_FALSE(decode(frame).key.text().empty());
  }
}

}  // namespace
}  // namespace tarnik
