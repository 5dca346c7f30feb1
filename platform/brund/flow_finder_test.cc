#include "platform/brund/flow_finder.h"

#include <gtest/gtest.h>

#include "packet/testing/frames.h"

namespace tarnik::brund {
namespace {

using namespace test;

constexpr std::uint16_t kMore = 0x2000;
constexpr std::uint8_t kUdp = 17;

Bytes fragment(std::uint16_t id, std::uint16_t field, const Bytes& payload,
               std::uint8_t protocol = kUdp) {
  return ethernet(0x0800, ipv4({.protocol = protocol, .id = id, .fragment = field}, payload));
}

std::string find(FlowFinder& finder, const Bytes& bytes) {
  return finder.find(frameOf(bytes)).key.text();
}

TEST(FlowFinder, FragmentsFollowTheirFirst) {
  FlowFinder finder;
  EXPECT_EQ(find(finder, fragment(1, kMore, udp(53, 1000))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(2, kMore, udp(54, 2000))), "udp 10.0.0.1:54 <-> 10.0.0.2:2000");
  EXPECT_EQ(find(finder, fragment(1, kMore | 1, Bytes(8, 1))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(2, 1, Bytes(8, 1))), "udp 10.0.0.1:54 <-> 10.0.0.2:2000");
  EXPECT_EQ(find(finder, fragment(1, 2, Bytes(8, 1))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
}

TEST(FlowFinder, LastFirstFragmentCounts) {
  FlowFinder finder;
  EXPECT_EQ(find(finder, fragment(1, kMore, udp(53, 1000))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(1, kMore, udp(54, 1000))), "udp 10.0.0.1:54 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(1, 1, Bytes(8, 1))), "udp 10.0.0.1:54 <-> 10.0.0.2:1000");
}

TEST(FlowFinder, WithoutAFirstToAddressesAndProtocol) {
  FlowFinder finder;
  const char* const addresses = "udp 10.0.0.1 <-> 10.0.0.2";
  EXPECT_EQ(find(finder, fragment(1, 1, Bytes(8, 1))), addresses);
  EXPECT_EQ(find(finder, fragment(1, kMore, udp(53, 1000))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(2, 1, Bytes(8, 1))), addresses);  // another identification
  EXPECT_EQ(find(finder, fragment(1, 1, Bytes(8, 1), 6)),
            "tcp 10.0.0.1 <-> 10.0.0.2");  // another protocol
  const Bytes back = ethernet(0x0800, ipv4({.protocol = kUdp,
                                            .source = {10, 0, 0, 2},
                                            .destination = {10, 0, 0, 1},
                                            .id = 1,
                                            .fragment = 1},
                                           Bytes(8, 1)));
  EXPECT_EQ(find(finder, back), addresses);  // the other direction
}

TEST(FlowFinder, FragmentsOfIpv6) {
  const auto piece = [](std::uint16_t field, std::uint32_t id, const Bytes& payload) {
    return ethernet(0x86dd, ipv6(44, Bytes{kUdp, 0} + be(field, 2) + be(id, 4) + payload));
  };
  FlowFinder finder;
  const char* const flow = "udp [2001::1]:53 <-> [2001::2]:1000";
  EXPECT_EQ(find(finder, piece(1, 0x10001, udp(53, 1000))), flow);
  EXPECT_EQ(find(finder, piece(8, 0x10001, Bytes(8, 1))), flow);
  EXPECT_EQ(find(finder, piece(8, 0x20001, Bytes(8, 1))), "udp 2001::1 <-> 2001::2");
}

TEST(FlowFinder, RemembersSoManyDatagrams) {
  FlowFinder finder(2);
  for (std::uint16_t id = 1; id <= 3; ++id) {
    static_cast<void>(finder.find(frameOf(fragment(id, kMore, udp(53, 1000)))));
  }
  EXPECT_EQ(find(finder, fragment(1, 1, Bytes(8, 1))), "udp 10.0.0.1 <-> 10.0.0.2");
  EXPECT_EQ(find(finder, fragment(2, 1, Bytes(8, 1))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
  EXPECT_EQ(find(finder, fragment(3, 1, Bytes(8, 1))), "udp 10.0.0.1:53 <-> 10.0.0.2:1000");
}

}  // namespace
}  // namespace tarnik::brund
