// Finds the flow of a frame. The functions are pure, and safe on any bytes: a field is read only if
// it was captured, and every chain of headers has a limit.
//
// A flow is, in this order of preference:
//  1. both directions of addresses, protocol and ports: TCP, UDP and SCTP over IPv4 or IPv6, if the
//     ports were captured and are inside the datagram;
//  2. both directions of addresses and protocol: any other datagram with a captured IP header (20
//  or
//     40 bytes). The protocol of an IPv6 datagram is the last "next header" that could be read in
//     its extension headers;
//  3. both directions of MAC addresses and the ethertype: all other frames with an Ethernet header.
//     802.3 frames have a length instead of an ethertype; they all count as ethertype 0;
//  4. all frames that are too short for an Ethernet header.
// VLAN tags (802.1Q, 802.1ad and the older 0x9100) and MPLS labels are skipped and not part of the
// flow. Tunnels (GRE, IP in IP, PPPoE, ...) are not entered. A fragment after the first has no
// ports.
#pragma once

#include <cstdint>
#include <optional>

#include "packet/flow_key.h"
#include "packet/frame.h"

namespace tarnik {

enum class Fragment : std::uint8_t { kNone, kFirst, kLater };

struct TcpHeader {
  static constexpr std::uint8_t kFin = 0x01;
  static constexpr std::uint8_t kSyn = 0x02;
  static constexpr std::uint8_t kRst = 0x04;
  static constexpr std::uint8_t kAck = 0x10;

  std::uint32_t sequence = 0;
  std::uint32_t acknowledgement = 0;
  std::uint8_t flags = 0;
  std::uint32_t payload = 0;  // bytes on the wire after the header
};

struct Decoded {
  FlowKey key;
  bool fromLow = true;  // which endpoint sent the frame
  Fragment fragment = Fragment::kNone;
  DatagramKey datagram;          // of a fragment
  std::optional<TcpHeader> tcp;  // when the 20 bytes of the header were captured
};

[[nodiscard]] Decoded decode(const Frame& frame);

}  // namespace tarnik
