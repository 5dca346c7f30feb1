// The messages of the daemon's command socket. Each datagram is one message: a header of 19 bytes
// and a payload.
//
//   offset  size  field          byte order
//        0     2  componentId    big-endian, 7
//        2     2  messageLength  big-endian, includes the header
//        4     8  messageId      big-endian, not 0; a response repeats that of its request
//       12     4  reserved       0
//       16     2  requestType    big-endian; a response repeats that of its request
//       18     1  flags          bit 0: request, bit 1: response
//       19        payload
//
//   payload of             offset  size  field
//   metadata request           19     8  captureId, little-endian
//                              27     8  flowId, little-endian
//                              35     4  triggerId, little-endian
//   all responses              19     2  status, big-endian
//   get-state response         21     2  daemon state, little-endian
//
// The functions here only read and write bytes. They are thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tarnik {

inline constexpr std::uint16_t kComponentId = 7;
inline constexpr std::size_t kMaxMessage = 4096;
inline constexpr std::size_t kHeaderSize = 19;
inline constexpr std::size_t kMetadataRequestSize = kHeaderSize + 20;
inline constexpr std::size_t kReloadResponseSize = kHeaderSize + 2;
inline constexpr std::size_t kStateResponseSize = kHeaderSize + 4;

enum : std::uint8_t { kRequestFlag = 0x01, kResponseFlag = 0x02 };

enum class RequestType : std::uint16_t {
  kReload = 1,
  kGetState = 2,
  kDump = 3,
  kMetadata = 4,
};

struct CommandHeader {
  std::uint16_t componentId;
  std::uint16_t messageLength;
  std::uint64_t messageId;
  std::uint16_t requestType;  // any number: the sender is not trusted
  std::uint8_t flags;
};

struct CaptureMetadata {
  std::uint64_t captureId;
  std::uint64_t flowId;
  std::uint32_t triggerId;
};

struct CommandResponse {
  std::uint16_t status;  // 0: success
  std::uint16_t state;   // of a get-state response; else 0
};

// Client side.

// A request without a payload: reload, get state or dump.
[[nodiscard]] std::array<std::uint8_t, kHeaderSize> encodeRequest(RequestType type,
                                                                  std::uint64_t messageId);
[[nodiscard]] std::array<std::uint8_t, kMetadataRequestSize> encodeMetadataRequest(
    std::uint64_t messageId, const CaptureMetadata& metadata);

// The response to the reload or get-state request `messageId`. Empty when `message` is anything
// else.
[[nodiscard]] std::optional<CommandResponse> decodeResponse(std::span<const std::uint8_t> message,
                                                            RequestType type,
                                                            std::uint64_t messageId);

// Daemon side.

// Reads the header of a message of which `received` bytes arrived. `message` always has
// at least kHeaderSize bytes: zeroes follow those received. The first three fields are 0 when
// fewer than 16 bytes arrived.
[[nodiscard]] CommandHeader decodeHeader(const std::uint8_t* message, std::size_t received);

[[nodiscard]] CaptureMetadata decodeMetadata(
    std::span<const std::uint8_t, kMetadataRequestSize> message);

[[nodiscard]] std::array<std::uint8_t, kReloadResponseSize> encodeReloadResponse(
    std::uint64_t messageId, std::uint16_t status);
[[nodiscard]] std::array<std::uint8_t, kStateResponseSize> encodeStateResponse(
    std::uint64_t messageId, std::uint8_t state);

}  // namespace tarnik
