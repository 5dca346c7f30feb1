// From a frame's bytes to the flow that it belongs to. Pure functions over hostile bytes: every
// field is read only where it was captured, and every chain of headers is bounded.
//
// A flow is, in this order of preference:
//  1. both directions of addresses, protocol and ports: TCP, UDP and SCTP over IPv4 or IPv6, when
//     the ports were captured and lie inside the datagram;
//  2. both directions of addresses and protocol: any other datagram whose IP header (20 or 40
//     bytes) was captured. The protocol of an IPv6 datagram is the last "next header" that could
//     be read behind its extension headers;
//  3. both directions of MAC addresses and the ethertype: everything else with an Ethernet header.
//     802.3 frames, whose ethertype field is a length, all have ethertype 0;
//  4. one flow of all frames too short for an Ethernet header.
// VLAN tags (802.1Q, 802.1ad and its forerunner 0x9100) and MPLS labels are passed over when
// looking for IP and are no part of the flow. Tunnels (GRE, IP in IP, PPPoE, ...) are not entered.
// A fragment after the first has no ports of its own; FlowFinder gives it the flow of its datagram.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "packet/frame.h"

namespace tarnik {

struct Endpoint {
  std::array<std::uint8_t, 16> address{};  // MAC, IPv4 or IPv6 address, then zeros
  std::uint16_t port = 0;
  auto operator<=>(const Endpoint&) const = default;
};

struct FlowKey {
  enum class Kind : std::uint8_t { kShort, kEthernet, kIpv4, kIpv6 };

  Kind kind = Kind::kShort;
  bool hasPorts = false;
  std::uint16_t protocol = 0;  // ethertype, or IP protocol
  Endpoint low;                // the lesser of the two endpoints, so that both directions agree
  Endpoint high;
  bool operator==(const FlowKey&) const = default;

  // The same for the same flow in every run, never 0, and positive when read as signed.
  [[nodiscard]] std::uint64_t id() const;
  // "tcp 10.0.0.1:80 <-> 10.0.0.2:1025", "icmp 10.0.0.1 <-> 10.0.0.2",
  // "arp 02:00:00:00:00:01 <-> ff:ff:ff:ff:ff:ff"
  [[nodiscard]] std::string text() const;
};

// What tells the fragments of one datagram from others.
struct DatagramKey {
  FlowKey::Kind kind = FlowKey::Kind::kShort;
  std::uint8_t protocol = 0;
  std::uint32_t id = 0;
  std::array<std::uint8_t, 16> source{};
  std::array<std::uint8_t, 16> destination{};
  bool operator==(const DatagramKey&) const = default;
};

enum class Fragment : std::uint8_t { kNone, kFirst, kLater };

struct TcpHeader {
  static constexpr std::uint8_t kFin = 0x01;
  static constexpr std::uint8_t kSyn = 0x02;
  static constexpr std::uint8_t kRst = 0x04;
  static constexpr std::uint8_t kAck = 0x10;

  std::uint32_t sequence = 0;
  std::uint32_t acknowledgement = 0;
  std::uint8_t flags = 0;
  std::uint32_t payload = 0;  // bytes on the wire behind the header
};

struct Decoded {
  FlowKey key;
  bool fromLow = true;  // which endpoint sent the frame
  Fragment fragment = Fragment::kNone;
  DatagramKey datagram;          // of a fragment
  std::optional<TcpHeader> tcp;  // when the 20 bytes of the header were captured
};

[[nodiscard]] Decoded decode(const Frame& frame);

struct FlowKeyHash {
  std::size_t operator()(const FlowKey& key) const noexcept {
    return static_cast<std::size_t>(key.id());
  }
};

struct DatagramKeyHash {
  std::size_t operator()(const DatagramKey& key) const noexcept;
};

}  // namespace tarnik
