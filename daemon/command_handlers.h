// Handles the messages of the command socket. Main thread.
#pragma once

#include <orlo_sdk.h>

#include <cstdint>

#include "command/message.h"

namespace tarnik {

using SenderAddress = OrloCmdSender;

// A received message. The bytes belong to the caller: null, or at least kHeaderSize of them, with
// zeroes in place of those that a short datagram lacks. `length` counts the bytes received.
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

// 0 when the header of a message of `received` bytes is acceptable; else 1, with a log line.
[[nodiscard]] int validateMessage(const MessageView& message, std::uint32_t received);

// The message's identifier, or 0 when it holds none.
[[nodiscard]] std::uint64_t getMessageId(const MessageView& message);

// Receives one message and handles it. An invalid message is logged and gets no response. So is one
// for which there is no memory; never throws.
void processMessage();

// Handle a request. Return 0 or, after a failure, a number that processMessage logs.
[[nodiscard]] int processReloadRequest(std::uint64_t messageId, const SenderAddress& sender);
[[nodiscard]] int processGetStateRequest(std::uint64_t messageId, const SenderAddress& sender);
[[nodiscard]] int processMetadata(const MessageView& message, std::uint32_t received);

// Sends a response: 0 when all of it was sent, 2 when sending failed, 3 when less was sent.
[[nodiscard]] int clientResp(const std::uint8_t* response, std::uint16_t length,
                             const SenderAddress& sender);

}  // namespace tarnik
