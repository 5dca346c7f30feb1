#include "packet/flow_key.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <string>

namespace tarnik {
namespace {

class Fnv1a {
 public:
  void add(std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
      hash_ = (hash_ ^ (value >> (8 * i) & 0xff)) * 0x100000001b3u;
    }
  }
  void add(const std::array<std::uint8_t, 16>& bytes) {
    for (const std::uint8_t byte : bytes) {
      add(byte, 1);
    }
  }
  [[nodiscard]] std::uint64_t value() const { return hash_; }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325u;
};

struct Name {
  unsigned number;
  const char* name;
};

constexpr Name kProtocols[] = {{1, "icmp"},  {2, "igmp"},  {6, "tcp"},    {17, "udp"},
                               {47, "gre"},  {50, "esp"},  {51, "ah"},    {58, "icmp6"},
                               {89, "ospf"}, {103, "pim"}, {112, "vrrp"}, {132, "sctp"}};
constexpr Name kEthertypes[] = {{0, "802.3"},     {0x0800, "ipv4"}, {0x0806, "arp"},
                                {0x8035, "rarp"}, {0x86dd, "ipv6"}, {0x8847, "mpls"},
                                {0x88cc, "lldp"}, {0x888e, "eapol"}};

template <std::size_t N>
std::string nameOf(const Name (&names)[N], unsigned number, const char* otherwise) {
  for (const Name& entry : names) {
    if (entry.number == number) {
      return entry.name;
    }
  }
  char text[32];
  std::snprintf(text, sizeof text, otherwise, number);
  return text;
}

std::string addressText(const FlowKey& key, const Endpoint& endpoint) {
  const auto& a = endpoint.address;
  if (key.kind == FlowKey::Kind::kEthernet) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4],
                  a[5]);
    return text;
  }
  char text[INET6_ADDRSTRLEN] = "";
  const bool v6 = key.kind == FlowKey::Kind::kIpv6;
  inet_ntop(v6 ? AF_INET6 : AF_INET, a.data(), text, sizeof text);
  if (!key.hasPorts) {
    return text;
  }
  std::string host = v6 ? "[" : "";
  host.append(text).append(v6 ? "]:" : ":");
  return host + std::to_string(endpoint.port);
}

}  // namespace

std::uint64_t FlowKey::id() const {
  Fnv1a hash;
  hash.add(static_cast<std::uint64_t>(kind), 1);
  hash.add(hasPorts ? 1 : 0, 1);
  hash.add(protocol, 2);
  for (const Endpoint* endpoint : {&low, &high}) {
    hash.add(endpoint->address);
    hash.add(endpoint->port, 2);
  }
  const std::uint64_t value = hash.value() & 0x7fffffffffffffffu;
  return value == 0 ? 1 : value;
}

std::string FlowKey::text() const {
  if (kind == Kind::kShort) {
    return "frames without an Ethernet header";
  }
  const std::string name = kind == Kind::kEthernet
                               ? nameOf(kEthertypes, protocol, "ethertype-0x%04x")
                               : nameOf(kProtocols, protocol, "ip-protocol-%u");
  return name + " " + addressText(*this, low) + " <-> " + addressText(*this, high);
}

std::size_t DatagramKeyHash::operator()(const DatagramKey& key) const noexcept {
  Fnv1a hash;
  hash.add(static_cast<std::uint64_t>(key.kind), 1);
  hash.add(key.protocol, 1);
  hash.add(key.id, 4);
  hash.add(key.source);
  hash.add(key.destination);
  return static_cast<std::size_t>(hash.value());
}

}  // namespace tarnik
