// The messages of the command socket: one a datagram, a header of 19 bytes and a payload.
//
//   offset  size  field          byte order
//        0     2  componentId    big-endian, 7
//        2     2  messageLength  big-endian, header included
//        4     8  messageId      big-endian, not 0
//       12     4  reserved
//       16     2  requestType    big-endian
//       18     1  flags          bit 0: request, bit 1: response
//       19        payload
//
//   metadata request   19  8 captureId, 27  8 flowId, 35  4 triggerId: little-endian
//   any response       19  2 status, big-endian
//   get-state response 21  2 daemon state, little-endian
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarnik {

inline constexpr std::uint16_t kComponentId = 7;
inline constexpr std::size_t kMaxMessage = 4096;
inline constexpr std::size_t kHeaderSize = 19;
inline constexpr std::size_t kMetadataSize = kHeaderSize + 20;
inline constexpr std::size_t kReloadResponseSize = kHeaderSize + 2;
inline constexpr std::size_t kStateResponseSize = kHeaderSize + 4;

enum : std::uint8_t { kRequestFlag = 0x01, kResponseFlag = 0x02 };

enum RequestType : std::uint16_t {
  kReloadRequest = 1,
  kGetStateRequest = 2,
  kDumpRequest = 3,
  kMetadataRequest = 4,
};

struct CommandHeader {
  std::uint16_t componentId;
  std::uint16_t messageLength;
  std::uint64_t messageId;
  std::uint16_t requestType;
  std::uint8_t flags;
};

struct CaptureMetadata {
  std::uint64_t captureId;
  std::uint64_t flowId;
  std::uint32_t triggerId;
};

// A received message. The bytes stay the caller's. They are null or at least kHeaderSize, zeroes
// standing in for what a short datagram does not hold; `length` counts those received.
class MessageView {
 public:
  MessageView(const std::uint8_t* bytes, std::uint16_t byteCount)
      : data(bytes), length(byteCount) {}
  virtual ~MessageView() = default;
  MessageView(const MessageView&) = delete;
  MessageView& operator=(const MessageView&) = delete;

  const std::uint8_t* const data;
  const std::uint16_t length;
};

// The header's fields; the first three are 0 when fewer than 16 bytes were received.
[[nodiscard]] CommandHeader readHeader(const MessageView& message);

// 0 when the header of a message of `received` bytes is acceptable; else 1, with a log line.
[[nodiscard]] int validateMessage(const MessageView& message, std::uint32_t received);

// The message's identifier, or 0 when it holds none.
[[nodiscard]] std::uint64_t getMessageId(const MessageView& message);

// `message` holds kMetadataSize bytes.
[[nodiscard]] CaptureMetadata readMetadata(const MessageView& message);

// Fill a response completely.
void writeReloadResponse(std::uint8_t (&response)[kReloadResponseSize], std::uint64_t messageId,
                         std::uint16_t status);
void writeStateResponse(std::uint8_t (&response)[kStateResponseSize], std::uint64_t messageId,
                        std::uint8_t state);

}  // namespace tarnik
