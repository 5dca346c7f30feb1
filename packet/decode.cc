#include "packet/decode.h"

#include <algorithm>
#include <span>
#include <utility>

namespace tarnik {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kEthernetHeader = 14;
constexpr int kMaxTags = 8;
constexpr int kMaxLabels = 16;
constexpr int kMaxExtensions = 16;

constexpr std::uint16_t kTypeIpv4 = 0x0800;
constexpr std::uint16_t kTypeIpv6 = 0x86dd;
constexpr std::uint16_t kMax8023Length = 1500;

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kSctp = 132;

std::uint16_t be16(Bytes bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::uint32_t be32(Bytes bytes, std::size_t at) {
  return static_cast<std::uint32_t>(be16(bytes, at)) << 16 | be16(bytes, at + 2);
}

std::array<std::uint8_t, 16> address(Bytes bytes, std::size_t at, std::size_t size) {
  std::array<std::uint8_t, 16> result{};
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), size, result.begin());
  return result;
}

bool isVlan(std::uint16_t type) {
  return type == 0x8100 || type == 0x88a8 || type == 0x9100;
}
bool isMpls(std::uint16_t type) {
  return type == 0x8847 || type == 0x8848;
}
bool hasPorts(std::uint8_t protocol) {
  return protocol == kTcp || protocol == kUdp || protocol == kSctp;
}

void setEndpoints(Decoded& out, const Endpoint& source, const Endpoint& destination) {
  out.fromLow = source <= destination;
  out.key.low = out.fromLow ? source : destination;
  out.key.high = out.fromLow ? destination : source;
}

// An IP datagram and its payload.
struct Datagram {
  FlowKey::Kind kind = FlowKey::Kind::kIpv4;
  std::array<std::uint8_t, 16> source{};
  std::array<std::uint8_t, 16> destination{};
  std::uint8_t protocol = 0;
  std::uint8_t fragmentProtocol = 0;
  std::uint32_t id = 0;
  Fragment fragment = Fragment::kNone;
  Bytes payload;                // the captured part, without bytes after the datagram
  std::size_t wirePayload = 0;  // bytes on the wire
};

Fragment fragmentOf(std::uint32_t offset, bool more) {
  if (offset != 0) {
    return Fragment::kLater;
  }
  return more ? Fragment::kFirst : Fragment::kNone;
}

std::optional<Datagram> readIpv4(Bytes packet, std::size_t wireLength) {
  constexpr std::size_t kHeader = 20;
  if (packet.size() < kHeader || packet[0] >> 4 != 4) {
    return std::nullopt;
  }
  Datagram out;
  out.kind = FlowKey::Kind::kIpv4;
  out.source = address(packet, 12, 4);
  out.destination = address(packet, 16, 4);
  out.protocol = packet[9];
  out.fragmentProtocol = out.protocol;
  out.id = be16(packet, 4);
  const std::uint16_t fragment = be16(packet, 6);
  out.fragment = fragmentOf(fragment & 0x1fffu, (fragment & 0x2000u) != 0);

  const std::size_t header = std::size_t{packet[0] & 0x0fu} * 4;
  // Segmentation offload leaves the length 0.
  const std::size_t total = be16(packet, 2) != 0 ? be16(packet, 2) : wireLength;
  if (header < kHeader || total < header || packet.size() < header) {
    return out;
  }
  out.payload = packet.first(std::min(packet.size(), total)).subspan(header);
  out.wirePayload = total - header;
  return out;
}

std::size_t extensionLength(std::uint8_t protocol, Bytes header) {
  constexpr std::uint8_t kFragment = 44;
  constexpr std::uint8_t kAuthentication = 51;
  switch (protocol) {
    case 0:    // hop-by-hop options
    case 43:   // routing
    case 60:   // destination options
    case 135:  // mobility
    case 139:  // host identity
    case 140:  // shim6
      return header.size() < 8 ? 0 : (std::size_t{header[1]} + 1) * 8;
    case kFragment:
      return header.size() < 8 ? 0 : 8;
    case kAuthentication:
      return header.size() < 8 ? 0 : (std::size_t{header[1]} + 2) * 4;
    default:
      return 0;
  }
}

// Walks the extension headers up to their payload, or to the first that cannot be skipped.
void walkExtensions(Datagram& datagram) {
  constexpr std::uint8_t kFragmentHeader = 44;
  for (int i = 0; i < kMaxExtensions; ++i) {
    const Bytes header = datagram.payload;
    const std::size_t length = extensionLength(datagram.protocol, header);
    if (length == 0) {
      return;
    }
    const bool fragment = datagram.protocol == kFragmentHeader;
    datagram.protocol = header[0];
    if (fragment) {
      const std::uint16_t field = be16(header, 2);
      datagram.fragment = fragmentOf(field & 0xfff8u, (field & 1u) != 0);
      datagram.fragmentProtocol = datagram.protocol;
      datagram.id = be32(header, 4);
    }
    datagram.payload = header.subspan(std::min(length, header.size()));
    datagram.wirePayload -= std::min(length, datagram.wirePayload);
    if (datagram.fragment == Fragment::kLater) {
      return;  // the payload continues an earlier one
    }
  }
}

std::optional<Datagram> readIpv6(Bytes packet, std::size_t wireLength) {
  constexpr std::size_t kHeader = 40;
  if (packet.size() < kHeader || packet[0] >> 4 != 6) {
    return std::nullopt;
  }
  Datagram out;
  out.kind = FlowKey::Kind::kIpv6;
  out.source = address(packet, 8, 16);
  out.destination = address(packet, 24, 16);
  out.protocol = packet[6];
  // Jumbograms and segmentation offload leave the length 0.
  const std::size_t length = be16(packet, 4);
  const std::size_t total = length != 0 ? kHeader + length : std::max(wireLength, kHeader);
  out.payload = packet.first(std::min(packet.size(), total)).subspan(kHeader);
  out.wirePayload = total - kHeader;
  walkExtensions(out);
  return out;
}

std::optional<TcpHeader> readTcp(const Datagram& datagram) {
  constexpr std::size_t kHeader = 20;
  const Bytes bytes = datagram.payload;
  if (bytes.size() < kHeader) {
    return std::nullopt;
  }
  TcpHeader out;
  out.sequence = be32(bytes, 4);
  out.acknowledgement = be32(bytes, 8);
  out.flags = bytes[13];
  const std::size_t header = std::size_t{bytes[12]} / 16 * 4;
  out.payload =
      static_cast<std::uint32_t>(datagram.wirePayload - std::min(header, datagram.wirePayload));
  return out;
}

void setDatagram(Decoded& out, const Datagram& datagram) {
  Endpoint source{datagram.source, 0};
  Endpoint destination{datagram.destination, 0};
  out.key.kind = datagram.kind;
  out.key.protocol = datagram.protocol;
  out.fragment = datagram.fragment;
  out.datagram = {datagram.kind, datagram.fragmentProtocol, datagram.id, datagram.source,
                  datagram.destination};
  if (datagram.fragment != Fragment::kLater && hasPorts(datagram.protocol) &&
      datagram.payload.size() >= 4) {
    out.key.hasPorts = true;
    source.port = be16(datagram.payload, 0);
    destination.port = be16(datagram.payload, 2);
    if (datagram.protocol == kTcp && datagram.fragment == Fragment::kNone) {
      out.tcp = readTcp(datagram);
    }
  }
  setEndpoints(out, source, destination);
}

// Skips tags and labels. `type` becomes the ethertype of the packet and `at` its offset. After
// labels, IP is recognised by its version.
void skipTags(Bytes data, std::uint16_t& type, std::size_t& at) {
  for (int i = 0; i < kMaxTags && isVlan(type) && data.size() >= at + 4; ++i) {
    type = be16(data, at + 2);
    at += 4;
  }
  if (!isMpls(type)) {
    return;
  }
  std::size_t label = at;
  for (int i = 0; i < kMaxLabels && data.size() >= label + 4; ++i) {
    const bool bottom = (data[label + 2] & 1) != 0;
    label += 4;
    if (!bottom) {
      continue;
    }
    if (data.size() > label && (data[label] >> 4 == 4 || data[label] >> 4 == 6)) {
      type = data[label] >> 4 == 4 ? kTypeIpv4 : kTypeIpv6;
      at = label;
    }
    return;
  }
}

}  // namespace

Decoded decode(const Frame& frame) {
  const Bytes data = frame.data;
  Decoded out;
  if (data.size() < kEthernetHeader) {
    return out;
  }
  std::uint16_t type = be16(data, 12);
  std::size_t at = kEthernetHeader;
  skipTags(data, type, at);

  const Bytes packet = data.subspan(at);
  const std::size_t wireLength = frame.wireLength > at ? frame.wireLength - at : 0;
  std::optional<Datagram> datagram;
  if (type == kTypeIpv4) {
    datagram = readIpv4(packet, wireLength);
  } else if (type == kTypeIpv6) {
    datagram = readIpv6(packet, wireLength);
  }
  if (datagram) {
    setDatagram(out, *datagram);
    return out;
  }
  out.key.kind = FlowKey::Kind::kEthernet;
  out.key.protocol = type <= kMax8023Length ? std::uint16_t{0} : type;
  setEndpoints(out, {address(data, 6, 6), 0}, {address(data, 0, 6), 0});
  return out;
}

}  // namespace tarnik
