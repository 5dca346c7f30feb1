#include "command/message.h"

#include <concepts>

namespace tarnik {
namespace {

constexpr std::size_t kIdentifiedSize = 16;  // a shorter message has no identifier to read

enum Offset : std::size_t {
  kComponentIdAt = 0,
  kMessageLengthAt = 2,
  kMessageIdAt = 4,
  kRequestTypeAt = 16,
  kFlagsAt = 18,
  kCaptureIdAt = 19,
  kFlowIdAt = 27,
  kTriggerIdAt = 35,
  kStatusAt = 19,
  kStateAt = 21,
};

template <std::unsigned_integral T>
T bigEndian(const std::uint8_t* bytes) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value = static_cast<T>(value << 8U | bytes[i]);
  }
  return value;
}

template <std::unsigned_integral T>
T littleEndian(const std::uint8_t* bytes) {
  T value = 0;
  for (std::size_t i = sizeof(T); i > 0; --i) {
    value = static_cast<T>(value << 8U | bytes[i - 1]);
  }
  return value;
}

template <std::unsigned_integral T>
void putBigEndian(std::uint8_t* bytes, T value) {
  for (std::size_t i = sizeof(T); i > 0; --i) {
    bytes[i - 1] = static_cast<std::uint8_t>(value);
    value = static_cast<T>(value >> 8U);
  }
}

template <std::unsigned_integral T>
void putLittleEndian(std::uint8_t* bytes, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    bytes[i] = static_cast<std::uint8_t>(value);
    value = static_cast<T>(value >> 8U);
  }
}

// A message of `size` bytes with its header filled in. All other bytes are 0.
template <std::size_t size>
std::array<std::uint8_t, size> makeMessage(RequestType type, std::uint64_t messageId,
                                           std::uint8_t flags) {
  std::array<std::uint8_t, size> message{};
  putBigEndian(&message[kComponentIdAt], kComponentId);
  putBigEndian(&message[kMessageLengthAt], static_cast<std::uint16_t>(size));
  putBigEndian(&message[kMessageIdAt], messageId);
  putBigEndian(&message[kRequestTypeAt], static_cast<std::uint16_t>(type));
  message[kFlagsAt] = flags;
  return message;
}

}  // namespace

std::array<std::uint8_t, kHeaderSize> encodeRequest(RequestType type, std::uint64_t messageId) {
  return makeMessage<kHeaderSize>(type, messageId, kRequestFlag);
}

std::array<std::uint8_t, kMetadataRequestSize> encodeMetadataRequest(
    std::uint64_t messageId, const CaptureMetadata& metadata) {
  auto message = makeMessage<kMetadataRequestSize>(RequestType::kMetadata, messageId, kRequestFlag);
  putLittleEndian(&message[kCaptureIdAt], metadata.captureId);
  putLittleEndian(&message[kFlowIdAt], metadata.flowId);
  putLittleEndian(&message[kTriggerIdAt], metadata.triggerId);
  return message;
}

std::optional<CommandResponse> decodeResponse(std::span<const std::uint8_t> message,
                                              RequestType type, std::uint64_t messageId) {
  const std::size_t expected =
      type == RequestType::kGetState ? kStateResponseSize : kReloadResponseSize;
  if (message.size() != expected) {
    return std::nullopt;
  }
  const CommandHeader header = decodeHeader(message.data(), message.size());
  if (header.componentId != kComponentId || header.messageLength != expected ||
      header.messageId != messageId || header.requestType != static_cast<std::uint16_t>(type) ||
      header.flags != kResponseFlag) {
    return std::nullopt;
  }
  CommandResponse response{bigEndian<std::uint16_t>(&message[kStatusAt]), 0};
  if (type == RequestType::kGetState) {
    response.state = littleEndian<std::uint16_t>(&message[kStateAt]);
  }
  return response;
}

CommandHeader decodeHeader(const std::uint8_t* message, std::size_t received) {
  CommandHeader header{};
  if (received >= kIdentifiedSize) {
    header.componentId = bigEndian<std::uint16_t>(message + kComponentIdAt);
    header.messageLength = bigEndian<std::uint16_t>(message + kMessageLengthAt);
    header.messageId = bigEndian<std::uint64_t>(message + kMessageIdAt);
  }
  header.requestType = bigEndian<std::uint16_t>(message + kRequestTypeAt);
  header.flags = message[kFlagsAt];
  return header;
}

CaptureMetadata decodeMetadata(std::span<const std::uint8_t, kMetadataRequestSize> message) {
  return {littleEndian<std::uint64_t>(&message[kCaptureIdAt]),
          littleEndian<std::uint64_t>(&message[kFlowIdAt]),
          littleEndian<std::uint32_t>(&message[kTriggerIdAt])};
}

std::array<std::uint8_t, kReloadResponseSize> encodeReloadResponse(std::uint64_t messageId,
                                                                   std::uint16_t status) {
  auto message = makeMessage<kReloadResponseSize>(RequestType::kReload, messageId, kResponseFlag);
  putBigEndian(&message[kStatusAt], status);
  return message;
}

std::array<std::uint8_t, kStateResponseSize> encodeStateResponse(std::uint64_t messageId,
                                                                 std::uint8_t state) {
  auto message = makeMessage<kStateResponseSize>(RequestType::kGetState, messageId, kResponseFlag);
  putLittleEndian(&message[kStateAt], std::uint16_t{state});
  return message;
}

}  // namespace tarnik
