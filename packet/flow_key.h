// Keys of flows and of fragmented datagrams.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

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

// Identifies a fragmented datagram.
struct DatagramKey {
  FlowKey::Kind kind = FlowKey::Kind::kShort;
  std::uint8_t protocol = 0;
  std::uint32_t id = 0;
  std::array<std::uint8_t, 16> source{};
  std::array<std::uint8_t, 16> destination{};
  bool operator==(const DatagramKey&) const = default;
};

struct FlowKeyHash {
  std::size_t operator()(const FlowKey& key) const noexcept {
    return static_cast<std::size_t>(key.id());
  }
};

struct DatagramKeyHash {
  std::size_t operator()(const DatagramKey& key) const noexcept;
};

}  // namespace tarnik
