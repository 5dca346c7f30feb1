#include "command/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <vector>

namespace tarnik {
namespace {

using Bytes = std::vector<std::uint8_t>;
using ::testing::ElementsAreArray;

constexpr std::uint64_t kId = 0x0102030405060708;

TEST(CommandMessageTest, RequestsByteForByte) {
  EXPECT_THAT(encodeRequest(RequestType::kDump, kId),
              ElementsAreArray({0, 7, 0, 19, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 3, 1}));
  EXPECT_THAT(encodeMetadataRequest(kId, {0x1112131415161718, 0x2122232425262728, 0x31323334}),
              ElementsAreArray({0,    7,    0,    39,   1,    2,    3,    4,    5,    6,
                                7,    8,    0,    0,    0,    0,    0,    4,    1,    0x18,
                                0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x28, 0x27, 0x26,
                                0x25, 0x24, 0x23, 0x22, 0x21, 0x34, 0x33, 0x32, 0x31}));
}

// The memory of the result is not zero before: a byte that is not written shows.
template <typename Encode>
Bytes encodedInto(Encode encode) {
  using Message = decltype(encode());
  alignas(Message) std::uint8_t memory[sizeof(Message)];
  std::memset(memory, 0xee, sizeof memory);
  const auto* message = new (memory) Message(encode());
  return Bytes(message->begin(), message->end());
}

TEST(CommandMessageTest, ResponsesByteForByte) {
  EXPECT_EQ(encodedInto([] { return encodeReloadResponse(kId, 0x010c); }),
            (Bytes{0, 7, 0, 21, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 1, 2, 0x01, 0x0c}));
  EXPECT_EQ(encodedInto([] { return encodeStateResponse(kId, 7); }),
            (Bytes{0, 7, 0, 23, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 2, 2, 0, 0, 7, 0}));
}

TEST(CommandMessageTest, DecodesResponses) {
  const Bytes reload = {0, 7, 0, 21, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 1, 2, 0x01, 0x0c};
  auto response = decodeResponse(reload, RequestType::kReload, kId);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->status, 0x010c);
  EXPECT_EQ(response->state, 0);
  const Bytes state = {0, 7, 0, 23, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 2, 2, 0, 5, 0x34, 0x12};
  response = decodeResponse(state, RequestType::kGetState, kId);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->status, 5);
  EXPECT_EQ(response->state, 0x1234);
}

TEST(CommandMessageTest, DecodesOnlyTheResponseToTheRequest) {
  const Bytes reload = {0, 7, 0, 21, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0, 1, 2, 0, 0};
  EXPECT_FALSE(decodeResponse(reload, RequestType::kReload, kId + 1));
  EXPECT_FALSE(decodeResponse(reload, RequestType::kGetState, kId));
  for (const std::size_t at : {0U, 1U, 2U, 3U, 4U, 11U, 16U, 17U, 18U}) {
    Bytes changed = reload;
    changed[at] ^= 0x80;
    EXPECT_FALSE(decodeResponse(changed, RequestType::kReload, kId)) << at;
  }
  for (const std::size_t size : {0U, 15U, 19U, 20U, 22U, 23U}) {
    Bytes resized = reload;
    resized.resize(size);
    EXPECT_FALSE(decodeResponse(resized, RequestType::kReload, kId)) << size;
  }
}

}  // namespace
}  // namespace tarnik
