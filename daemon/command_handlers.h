// Serves the command socket: receives a message, does what it asks, answers. Main thread.
#pragma once

#include <orlo_sdk.h>

#include <cstdint>

#include "command/message.h"

namespace tarnik {

using SenderAddress = OrloCmdSender;

// Receives one message and handles it. What is not acceptable is logged and gets no answer.
void processMessage();

// Handlers of the request types. 0, or a number other than 0 that processMessage logs.
[[nodiscard]] int processReloadRequest(std::uint64_t messageId, const SenderAddress& sender);
[[nodiscard]] int processGetStateRequest(std::uint64_t messageId, const SenderAddress& sender);
[[nodiscard]] int processMetadata(const MessageView& message, std::uint32_t received);

// Sends a response: 0 when all of it was sent, 2 when sending failed, 3 when less was sent.
[[nodiscard]] int clientResp(const std::uint8_t* response, std::uint16_t length,
                             const SenderAddress& sender);

}  // namespace tarnik
