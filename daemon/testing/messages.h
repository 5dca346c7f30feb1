// Messages of the command socket, built byte by byte for tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace tarnik::test {

using Bytes = std::vector<std::uint8_t>;

// A valid request of its type, except for the fields that the test sets.
struct Message {
  std::uint16_t type = 2;
  std::uint16_t length = 19;
  std::uint64_t id = 0x1122334455667788;
  std::uint16_t component = 7;
  std::uint8_t flags = 1;
  std::uint32_t reserved = 0;
  Bytes payload = {};

  [[nodiscard]] Bytes bytes() const {
    Bytes result;
    const auto put = [&result](std::uint64_t value, unsigned size) {
      for (unsigned i = size; i > 0; --i) {
        result.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
      }
    };
    put(component, 2);
    put(length, 2);
    put(id, 8);
    put(reserved, 4);
    put(type, 2);
    put(flags, 1);
    result.insert(result.end(), payload.begin(), payload.end());
    return result;
  }
};

// A metadata request for capture 0x0102030405060708, flow 0x1112131415161718 and trigger
// 0x21222324. The message has each value's low byte first.
inline Bytes metadataMessage() {
  return Message{.type = 4, .length = 39, .payload = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02,
                                                      0x01, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13,
                                                      0x12, 0x11, 0x24, 0x23, 0x22, 0x21}}
      .bytes();
}

// `message` with its length cut or filled with `filler`.
inline Bytes resized(Bytes message, std::size_t size, std::uint8_t filler = 0) {
  message.resize(size, filler);
  return message;
}

}  // namespace tarnik::test
