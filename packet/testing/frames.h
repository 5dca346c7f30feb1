// Frames made by hand, for the tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "packet/frame.h"

namespace tarnik::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// A big-endian number; above 8 bytes it starts with zeros.
inline Bytes be(std::uint64_t value, std::size_t size) {
  Bytes bytes(size, 0);
  for (std::size_t i = size; i > 0 && value != 0; --i, value >>= 8) {
    bytes[i - 1] = static_cast<std::uint8_t>(value);
  }
  return bytes;
}

// 02:00:00:00:00:NN
inline Bytes mac(std::uint8_t last) {
  return {2, 0, 0, 0, 0, last};
}

// Ethernet from station 1 to station 2, or back.
inline Bytes ethernet(std::uint16_t type, const Bytes& payload, bool back = false) {
  return (back ? mac(1) + mac(2) : mac(2) + mac(1)) + be(type, 2) + payload;
}
inline Bytes vlan(std::uint16_t id, std::uint16_t type, const Bytes& payload) {
  return be(id, 2) + be(type, 2) + payload;
}
inline Bytes label(std::uint32_t value, bool bottom) {
  return be(value << 12 | (bottom ? 0x100u : 0u) | 64, 4);
}

struct Ipv4 {
  std::uint8_t protocol = 6;
  Bytes source = {10, 0, 0, 1};
  Bytes destination = {10, 0, 0, 2};
  std::uint16_t id = 0x1234;
  std::uint16_t fragment = 0;  // flags and offset
  Bytes options = {};          // a multiple of 4 bytes
  int total = -1;              // the length field; -1: the right one
};

inline Bytes ipv4(const Ipv4& header, const Bytes& payload) {
  const std::size_t size = 20 + header.options.size();
  const auto total =
      header.total >= 0 ? static_cast<std::size_t>(header.total) : size + payload.size();
  return Bytes{static_cast<std::uint8_t>(0x40 | size / 4), 0} + be(total, 2) + be(header.id, 2) +
         be(header.fragment, 2) + Bytes{64, header.protocol, 0, 0} + header.source +
         header.destination + header.options + payload;
}

inline Bytes ipv6Address(std::uint8_t last) {
  Bytes address(16, 0);
  address[0] = 0x20;
  address[1] = 0x01;
  address[15] = last;
  return address;
}

// From 2001::1 to 2001::2, or back.
inline Bytes ipv6(std::uint8_t next, const Bytes& payload, bool back = false) {
  return Bytes{0x60, 0, 0, 0} + be(payload.size(), 2) + Bytes{next, 64} +
         ipv6Address(back ? 2 : 1) + ipv6Address(back ? 1 : 2) + payload;
}

inline Bytes tcp(std::uint16_t source, std::uint16_t destination, std::uint8_t flags = 0x10,
                 std::uint32_t sequence = 1000, std::uint32_t acknowledgement = 2000,
                 const Bytes& payload = {}) {
  return be(source, 2) + be(destination, 2) + be(sequence, 4) + be(acknowledgement, 4) +
         Bytes{0x50, flags} + be(0xffff, 2) + be(0, 4) + payload;
}
inline Bytes udp(std::uint16_t source, std::uint16_t destination, const Bytes& payload = {}) {
  return be(source, 2) + be(destination, 2) + be(8 + payload.size(), 2) + be(0, 2) + payload;
}

// A frame over `bytes`, which must outlive it.
inline Frame frameOf(const Bytes& bytes) {
  return {bytes, static_cast<std::uint32_t>(bytes.size()), 0, 0};
}

// A classic capture file with one record per frame, one second apart.
inline std::string captureFile(const std::vector<Bytes>& frames, std::uint32_t linkType = 1,
                               std::uint32_t snaplen = 65535) {
  const auto le = [](std::uint64_t value, int size) {
    std::string text;
    for (int i = 0; i < size; ++i) {
      text += static_cast<char>(value >> (8 * i));
    }
    return text;
  };
  std::string file =
      le(0xa1b2c3d4, 4) + le(2, 2) + le(4, 2) + le(0, 8) + le(snaplen, 4) + le(linkType, 4);
  std::uint32_t second = 1700000000;
  for (const Bytes& frame : frames) {
    file += le(second++, 4) + le(123456, 4) + le(frame.size(), 4) + le(frame.size(), 4);
    file.append(frame.begin(), frame.end());
  }
  return file;
}

}  // namespace tarnik::test
