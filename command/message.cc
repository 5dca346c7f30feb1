#include "command/message.h"

#include <concepts>

#include "base/log.h"

namespace tarnik {
namespace {

constexpr std::uint16_t kIdentifiedSize = 16;  // below it a message has no readable identifier

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

void writeResponse(std::uint8_t* response, std::size_t length, std::uint64_t messageId,
                   RequestType type, std::uint16_t status) {
  putBigEndian(response, kComponentId);
  putBigEndian(response + 2, static_cast<std::uint16_t>(length));
  putBigEndian(response + 4, messageId);
  putBigEndian(response + 12, std::uint32_t{0});
  putBigEndian(response + 16, static_cast<std::uint16_t>(type));
  response[18] = kResponseFlag;
  putBigEndian(response + 19, status);
}

}  // namespace

CommandHeader readHeader(const MessageView& message) {
  CommandHeader header{};
  if (message.data == nullptr) {
    return header;
  }
  if (message.length >= kIdentifiedSize) {
    header.componentId = bigEndian<std::uint16_t>(message.data);
    header.messageLength = bigEndian<std::uint16_t>(message.data + 2);
    header.messageId = getMessageId(message);
  }
  header.requestType = bigEndian<std::uint16_t>(message.data + 16);
  header.flags = message.data[18];
  return header;
}

int validateMessage(const MessageView& message, std::uint32_t received) {
  constexpr char kName[] = "validateMessage";
  const CommandHeader header = readHeader(message);
  if (header.componentId != kComponentId) {
    TARNIK_ERROR("Error: %s: Component ID invalid: %d", kName, header.componentId);
    return 1;
  }
  if (received > kMaxMessage) {
    TARNIK_ERROR("Error: %s: Max length exceeded: got %d", kName, static_cast<int>(received));
    return 1;
  }
  if (received < header.messageLength) {
    TARNIK_ERROR("Error: %s: Incomplete message: exp %d got %d", kName, header.messageLength,
                 static_cast<int>(received));
    return 1;
  }
  if (header.requestType > kMetadataRequest) {
    TARNIK_ERROR("Error: %s: Unsupported type: %d", kName, header.requestType);
    return 1;
  }
  if ((header.flags & kRequestFlag) == 0) {
    TARNIK_ERROR("Error: %s: Invalid flags: %02x", kName, header.flags);
    return 1;
  }
  if (header.messageId == 0) {
    TARNIK_ERROR("Error: %s: Invalid message ID", kName);
    return 1;
  }
  return 0;
}

std::uint64_t getMessageId(const MessageView& message) {
  if (message.data == nullptr || message.length < kIdentifiedSize) {
    return 0;
  }
  return bigEndian<std::uint64_t>(message.data + 4);
}

CaptureMetadata readMetadata(const MessageView& message) {
  return {littleEndian<std::uint64_t>(message.data + 19),
          littleEndian<std::uint64_t>(message.data + 27),
          littleEndian<std::uint32_t>(message.data + 35)};
}

void writeReloadResponse(std::uint8_t (&response)[kReloadResponseSize], std::uint64_t messageId,
                         std::uint16_t status) {
  writeResponse(response, kReloadResponseSize, messageId, kReloadRequest, status);
}

void writeStateResponse(std::uint8_t (&response)[kStateResponseSize], std::uint64_t messageId,
                        std::uint8_t state) {
  writeResponse(response, kStateResponseSize, messageId, kGetStateRequest, 0);
  response[21] = state;
  response[22] = 0;
}

}  // namespace tarnik
