#include "daemon/command_handlers.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <exception>
#include <span>

#include "base/log.h"
#include "capture/meta_cache.h"
#include "daemon/reload.h"
#include "daemon/settings.h"
#include "daemon/state.h"

namespace tarnik {
namespace {

constexpr int kRefused = 1;
constexpr int kSendFailed = 2;
constexpr int kSentShort = 3;
constexpr std::uint16_t kStatusReloadFailed = 12;

static_assert(sizeof(SenderAddress) == 116 && offsetof(sockaddr_un, sun_path) == 2);

// The sender's name as text; empty without a name. The longest path fills its field and has no NUL.
class SenderName {
 public:
  explicit SenderName(const SenderAddress& sender) {
    std::memcpy(text_, sender.address.sun_path, sizeof sender.address.sun_path);
  }
  [[nodiscard]] const char* text() const { return text_; }

 private:
  char text_[sizeof SenderAddress::address.sun_path + 1] = {};
};

CommandHeader headerOf(const MessageView& message) {
  return message.data == nullptr ? CommandHeader{} : decodeHeader(message.data, message.length);
}

int dispatch(const MessageView& message, std::uint32_t received, const SenderAddress& sender) {
  const std::uint16_t type = headerOf(message).requestType;
  switch (static_cast<RequestType>(type)) {
    case RequestType::kReload:
      return processReloadRequest(getMessageId(message), sender);
    case RequestType::kGetState:
      return processGetStateRequest(getMessageId(message), sender);
    case RequestType::kDump:
      dumpSettings(getSettings());
      TarnikMetaCache::instance().dump();
      return 0;
    case RequestType::kMetadata:
      return processMetadata(message, received);
    default:
      TARNIK_DEBUG(2, "Debug: %s: Unsupported request %d from %s", "processMessage", type,
                   SenderName(sender).text());
      return kRefused;
  }
}

}  // namespace

int validateMessage(const MessageView& message, std::uint32_t received) {
  constexpr char kName[] = "validateMessage";
  const CommandHeader header = headerOf(message);
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
  if (header.requestType > static_cast<std::uint16_t>(RequestType::kMetadata)) {
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
  return headerOf(message).messageId;
}

void processMessage() {
  SenderAddress sender{};
  std::array<std::uint8_t, kMaxMessage> buffer{};
  const auto received =
      static_cast<std::uint32_t>(OrloCmdRecv(buffer.data(), buffer.size(), &sender, 0));
  if (received == 0) {
    TARNIK_ERROR("Error: %s: Failed to receive message: %d", "processMessage", 0);
    return;
  }
  const MessageView message(buffer.data(), static_cast<std::uint16_t>(received));
  if (validateMessage(message, received) != 0) {
    TARNIK_ERROR("Error: %s: Invalid message from %s", "processMessage", SenderName(sender).text());
    return;
  }
  int result = kRefused;
  try {
    result = dispatch(message, received, sender);
  } catch (const std::exception& error) {
    TARNIK_ERROR("Error: %s: Dropped a message: %s", "processMessage", error.what());
  }
  if (result != 0) {
    TARNIK_ERROR("Error: %s: Failed to process message: %d", "processMessage", result);
  }
}

int processReloadRequest(std::uint64_t messageId, const SenderAddress& sender) {
  TARNIK_DEBUG(0, "Debug: %s: entry", "processReloadRequest");
  std::uint16_t status = 0;
  if (onReload(0, nullptr) != 1) {
    TARNIK_ERROR("Error: %s: Failed to reload tarnikd config", "processReloadRequest");
    status = kStatusReloadFailed;
  }
  const auto response = encodeReloadResponse(messageId, status);
  return clientResp(response.data(), response.size(), sender);
}

int processGetStateRequest(std::uint64_t messageId, const SenderAddress& sender) {
  TARNIK_DEBUG(0, "Debug: %s: entry", "processGetStateRequest");
  const auto response = encodeStateResponse(messageId, DaemonState);
  return clientResp(response.data(), response.size(), sender);
}

int processMetadata(const MessageView& message, std::uint32_t received) {
  TARNIK_DEBUG(3, "Debug: %s: entry", "processMetadata");
  if (received != kMetadataRequestSize) {
    TARNIK_ERROR("Error: %s: Invalid message length, got %d, exp %d", "processMetadata",
                 static_cast<int>(received), static_cast<int>(kMetadataRequestSize));
    return kRefused;
  }
  const CaptureMetadata metadata =
      decodeMetadata(std::span<const std::uint8_t, kMetadataRequestSize>(message.data, received));
  TARNIK_DEBUG(0, "Debug: %s: Adding 0x%lx flowId=0x%lx triggerId=0x%x", "processMetadata",
               metadata.captureId, metadata.flowId, metadata.triggerId);
  TarnikMetaCache::instance().add(metadata.captureId, metadata.flowId, metadata.triggerId);
  return 0;
}

int clientResp(const std::uint8_t* response, std::uint16_t length, const SenderAddress& sender) {
  const int sent = OrloCmdResp(response, length, &sender);
  if (sent < 0) {
    TARNIK_ERROR("Error: %s: Socket comms failed: %d ", "clientResp", sent);
    return kSendFailed;
  }
  if (sent == length) {
    return 0;
  }
  TARNIK_ERROR("Error: %s: Socket comms error sending %d, sent %d", "clientResp", length, sent);
  return kSentShort;
}

}  // namespace tarnik
