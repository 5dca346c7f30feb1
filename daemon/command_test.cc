// The command protocol with the recording platform: the checks and their order, the actions, and
// the responses byte by byte.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "command/message.h"
#include "daemon/command_handlers.h"
#include "daemon/state.h"
#include "daemon/testing/daemon_fixture.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr char kSender[] = "/run/orlo/client";

class CommandTest : public DaemonTest {
 protected:
  // The record of one datagram, without its receipt.
  static Record process(const Bytes& bytes, const std::string& sender = kSender) {
    return process(RecordingSdk::Datagram{bytes, sender, {}});
  }
  static Record process(const RecordingSdk::Datagram& datagram) {
    sdk().clear();
    sdk().datagrams = {datagram};
    processMessage();
    Record record = sdk().entries();
    EXPECT_EQ(record.at(0), "OrloCmdRecv(zeroes, 4096, zeroes, 0)");
    record.erase(record.begin());
    return record;
  }
};

Record refusal(const std::string& reason) {
  return {"<3>Error: validateMessage: " + reason,
          "<3>Error: processMessage: Invalid message from /run/orlo/client"};
}

// ---- refusals

TEST_F(CommandTest, NothingReceived) {
  const Record expected = {"<3>Error: processMessage: Failed to receive message: 0"};
  EXPECT_EQ(process(Bytes{}), expected);
  // Only the low 32 bits of the count matter.
  EXPECT_EQ(process({Message().bytes(), kSender, 0x100000000}), expected);
  EXPECT_THAT(process({Message().bytes(), kSender, 0x100000013}),
              ElementsAre("OrloCmdResp(23, \"/run/orlo/client\")"));
}

TEST_F(CommandTest, HeaderChecks) {
  const struct {
    Bytes bytes;
    const char* reason;
  } cases[] = {
      {Message{.component = 6}.bytes(), "Component ID invalid: 6"},
      {Message{.component = 0x0700}.bytes(), "Component ID invalid: 1792"},
      {Message{.component = 65535}.bytes(), "Component ID invalid: 65535"},
      {Message{.length = 20}.bytes(), "Incomplete message: exp 20 got 19"},
      {Message{.length = 65535}.bytes(), "Incomplete message: exp 65535 got 19"},
      {Message{.length = 0x1300}.bytes(), "Incomplete message: exp 4864 got 19"},
      {Message{.type = 5}.bytes(), "Unsupported type: 5"},
      {Message{.type = 0x0200}.bytes(), "Unsupported type: 512"},
      {Message{.type = 65535}.bytes(), "Unsupported type: 65535"},
      {Message{.flags = 0}.bytes(), "Invalid flags: 00"},
      {Message{.flags = 2}.bytes(), "Invalid flags: 02"},
      {Message{.flags = 0xfe}.bytes(), "Invalid flags: fe"},
      {Message{.id = 0}.bytes(), "Invalid message ID"},
  };
  for (const auto& [bytes, reason] : cases) {
    EXPECT_EQ(process(bytes), refusal(reason)) << reason;
    EXPECT_EQ(validateMessage({bytes.data(), 19}, 19), 1) << reason;
  }
  EXPECT_EQ(validateMessage({Message().bytes().data(), 19}, 19), 0);
  EXPECT_TRUE(sdk().responses.empty());
}

// A message with all faults. Each correction shows the next fault.
TEST_F(CommandTest, HeaderChecksInTheirOrder) {
  Message message{.type = 5, .length = 5000, .id = 0, .component = 6, .flags = 2};
  const RecordingSdk::Datagram longer{resized(message.bytes(), 4096), kSender, 4097};
  EXPECT_EQ(process(longer), refusal("Component ID invalid: 6"));
  message.component = 7;
  EXPECT_EQ(process({resized(message.bytes(), 4096), kSender, 4097}),
            refusal("Max length exceeded: got 4097"));
  EXPECT_EQ(process(resized(message.bytes(), 4096)),
            refusal("Incomplete message: exp 5000 got 4096"));
  message.length = 19;
  EXPECT_EQ(process(message.bytes()), refusal("Unsupported type: 5"));
  message.type = 4;
  EXPECT_EQ(process(message.bytes()), refusal("Invalid flags: 02"));
  message.flags = 3;
  EXPECT_EQ(process(message.bytes()), refusal("Invalid message ID"));
  message.id = 1;
  EXPECT_EQ(process(message.bytes()),
            (Record{"<3>Error: processMetadata: Invalid message length, got 19, exp 39",
                    "<3>Error: processMessage: Failed to process message: 1"}));
}

TEST_F(CommandTest, EveryLengthOfAGoodMessage) {
  const Bytes whole = Message().bytes();
  for (std::size_t size = 1; size <= 4096; ++size) {
    const Record record = process(resized(whole, size));
    if (size < 16) {
      EXPECT_EQ(record, refusal("Component ID invalid: 0")) << size;
    } else if (size < 19) {
      EXPECT_EQ(record, refusal("Incomplete message: exp 19 got " + std::to_string(size)));
    } else {
      EXPECT_THAT(record, ElementsAre("OrloCmdResp(23, \"/run/orlo/client\")")) << size;
    }
  }
}

// The bytes after a short datagram are zeroes, not those of the last message.
TEST_F(CommandTest, ShortMessagesThatClaimTheirOwnLength) {
  EXPECT_EQ(process(resized(Message{.length = 16}.bytes(), 16)), refusal("Invalid flags: 00"));
  EXPECT_EQ(process(resized(Message{.length = 17}.bytes(), 17)), refusal("Invalid flags: 00"));
  EXPECT_EQ(process(resized(Message{.length = 18}.bytes(), 18)), refusal("Invalid flags: 00"));
  EXPECT_THAT(process(Message{.length = 0}.bytes()),
              ElementsAre("OrloCmdResp(23, \"/run/orlo/client\")"));
}

// The view of a message counts in 16 bits, the checks in 32.
TEST_F(CommandTest, CountsBeyondTheBuffer) {
  const Bytes bytes = resized(Message().bytes(), 4096);
  EXPECT_EQ(process({bytes, kSender, 4097}), refusal("Max length exceeded: got 4097"));
  EXPECT_EQ(process({bytes, kSender, 5000}), refusal("Max length exceeded: got 5000"));
  EXPECT_EQ(process({bytes, kSender, 65551}), refusal("Component ID invalid: 0"));
  EXPECT_EQ(process({bytes, kSender, 65552}), refusal("Max length exceeded: got 65552"));
  EXPECT_EQ(process({bytes, kSender, 0xffffffff}), refusal("Max length exceeded: got -1"));
}

TEST_F(CommandTest, SendersNames) {
  const Bytes bad = Message{.component = 0}.bytes();
  EXPECT_EQ(process(bad, "").at(1), "<3>Error: processMessage: Invalid message from ");
  const std::string longest(108, 'n');
  EXPECT_EQ(process(bad, longest).at(1),
            "<3>Error: processMessage: Invalid message from " + longest);
  EXPECT_EQ(process(bad, std::string("\0abstract", 9)).at(1),
            "<3>Error: processMessage: Invalid message from ");
}

// ---- type 0

TEST_F(CommandTest, TypeZeroPassesValidationAndIsNotSupported) {
  const Bytes bytes = Message{.type = 0}.bytes();
  const std::string failed = "<3>Error: processMessage: Failed to process message: 1";
  OrloLogDebugLevel = 2;
  EXPECT_EQ(process(bytes), Record{failed});
  OrloLogDebugLevel = 3;
  EXPECT_EQ(process(bytes), (Record{"<7>Debug: processMessage: Unsupported request 0 from "
                                    "/run/orlo/client",
                                    failed}));
}

// ---- type 2: state

TEST_F(CommandTest, StateResponseByteByByte) {
  DaemonState = kStarted;
  EXPECT_EQ(process(Message{.reserved = 0xffffffff}.bytes()),
            Record{"OrloCmdResp(23, \"/run/orlo/client\")"});
  ASSERT_EQ(sdk().responses.size(), 1U);
  EXPECT_THAT(
      sdk().responses[0].bytes,
      ElementsAreArray({0x00, 0x07, 0x00, 0x17, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00, 0x00, 0x02, 0x00}));
}

TEST_F(CommandTest, StateResponseCarriesTheStateInItsLowByte) {
  for (const std::uint8_t state : Bytes{0, 1, 7, 9, 255}) {
    DaemonState = state;
    sdk().responses.clear();
    process(Message().bytes());
    ASSERT_EQ(sdk().responses.size(), 1U);
    EXPECT_EQ(sdk().responses[0].bytes.at(21), state);
    EXPECT_EQ(sdk().responses[0].bytes.at(22), 0);
  }
}

TEST_F(CommandTest, AnyFlagsWithBitZeroAndAnyIdentifierWillDo) {
  EXPECT_EQ(process(Message{.id = 1, .flags = 0xff}.bytes()),
            Record{"OrloCmdResp(23, \"/run/orlo/client\")"});
  EXPECT_EQ(process(Message{.id = 0xffffffffffffffff}.bytes()),
            Record{"OrloCmdResp(23, \"/run/orlo/client\")"});
  EXPECT_THAT(Bytes(sdk().responses[1].bytes.begin() + 4, sdk().responses[1].bytes.begin() + 12),
              ::testing::Each(0xff));
}

TEST_F(CommandTest, TheSendersBlockGoesBackUnchanged) {
  process(Message().bytes(), "/tmp/a");
  ASSERT_EQ(sdk().responses.size(), 1U);
  OrloCmdSender expected{};
  expected.address.sun_family = AF_UNIX;
  std::copy_n("/tmp/a", 7, expected.address.sun_path);
  expected.addressLength = 8;
  EXPECT_EQ(std::memcmp(&sdk().responses[0].sender, &expected, sizeof expected), 0);
}

TEST_F(CommandTest, EntriesAreLoggedAboveDebugLevelZero) {
  OrloLogDebugLevel = 1;
  EXPECT_EQ(process(Message().bytes()), (Record{"<7>Debug: processGetStateRequest: entry",
                                                "OrloCmdResp(23, \"/run/orlo/client\")"}));
}

// ---- sending

TEST_F(CommandTest, SendingFails) {
  sdk().failWhere("OrloCmdResp", -111);
  EXPECT_EQ(process(Message().bytes()),
            (Record{"OrloCmdResp(23, \"/run/orlo/client\")",
                    "<3>Error: clientResp: Socket comms failed: -111 ",
                    "<3>Error: processMessage: Failed to process message: 2"}));
}

TEST_F(CommandTest, SendingSendsLessOrMore) {
  for (const int sent : {0, 22, 24}) {
    resetSdk();
    sdk().failWhere("OrloCmdResp", sent);
    EXPECT_EQ(
        process(Message().bytes()),
        (Record{"OrloCmdResp(23, \"/run/orlo/client\")",
                "<3>Error: clientResp: Socket comms error sending 23, sent " + std::to_string(sent),
                "<3>Error: processMessage: Failed to process message: 3"}));
  }
}

// ---- type 3: dump

TEST_F(CommandTest, DumpLogsTheSettingsThenTheCacheAndAnswersNothing) {
  const Record record = process(Message{.type = 3}.bytes());
  ASSERT_EQ(record.size(), 12U);
  EXPECT_EQ(record.front(), "<6>tarnik.enabled=0");
  EXPECT_EQ(record.at(10), "<6>tarnik.brund.qsize=5000000");
  EXPECT_EQ(record.at(11), "TarnikMetaCache::dump()");
}

// ---- type 4: metadata

TEST_F(CommandTest, MetadataIsTakenLowByteFirst) {
  const Record added = {"TarnikMetaCache::add(72623859790382856, 1230066625199609624, 555885348)"};
  EXPECT_EQ(process(metadataMessage()), added);
  Bytes one = resized(Message{.type = 4, .length = 39}.bytes(), 39);
  one[19] = 1;
  EXPECT_EQ(process(one), Record{"TarnikMetaCache::add(1, 0, 0)"});
  EXPECT_EQ(process(resized(Message{.type = 4, .length = 39}.bytes(), 39, 0xff)),
            Record{"TarnikMetaCache::add(18446744073709551615, 18446744073709551615, 4294967295)"});
}

TEST_F(CommandTest, MetadataIsLoggedByLevel) {
  const std::string added =
      "TarnikMetaCache::add(72623859790382856, 1230066625199609624, 555885348)";
  const std::string values =
      "<7>Debug: processMetadata: Adding 0x102030405060708 flowId=0x1112131415161718 "
      "triggerId=0x21222324";
  OrloLogDebugLevel = 1;
  EXPECT_EQ(process(metadataMessage()), (Record{values, added}));
  OrloLogDebugLevel = 3;
  EXPECT_EQ(process(metadataMessage()), (Record{values, added}));
  OrloLogDebugLevel = 4;
  EXPECT_EQ(process(metadataMessage()),
            (Record{"<7>Debug: processMetadata: entry", values, added}));
}

TEST_F(CommandTest, MetadataIsExactly39Bytes) {
  for (const std::size_t size : std::vector<std::size_t>{19, 38, 40, 4096}) {
    const Bytes bytes = resized(
        Message{.type = 4, .length = static_cast<std::uint16_t>(std::min(size, 39UL))}.bytes(),
        size);
    EXPECT_EQ(process(bytes), (Record{"<3>Error: processMetadata: Invalid message length, got " +
                                          std::to_string(size) + ", exp 39",
                                      "<3>Error: processMessage: Failed to process message: 1"}));
  }
  EXPECT_EQ(process(resized(metadataMessage(), 38)), refusal("Incomplete message: exp 39 got 38"));
  Bytes claims40 = metadataMessage();
  claims40[3] = 40;
  EXPECT_EQ(process(claims40), refusal("Incomplete message: exp 40 got 39"));
}

TEST_F(CommandTest, AMessageWithoutMemoryIsDropped) {
  sdk().onCall = [](const std::string& entry) {
    if (entry.starts_with("TarnikMetaCache::dump")) {
      throw std::bad_alloc();
    }
  };
  const Record record = process(Message{.type = 3}.bytes());
  EXPECT_EQ(Record(record.end() - 2, record.end()),
            (Record{"<3>Error: processMessage: Dropped a message: std::bad_alloc",
                    "<3>Error: processMessage: Failed to process message: 1"}));
}

// ---- the view

TEST_F(CommandTest, MessageIdentifiers) {
  const Bytes bytes = Message().bytes();
  EXPECT_EQ(getMessageId({bytes.data(), 19}), 0x1122334455667788U);
  EXPECT_EQ(getMessageId({bytes.data(), 16}), 0x1122334455667788U);
  EXPECT_EQ(getMessageId({bytes.data(), 15}), 0U);
  EXPECT_EQ(getMessageId({bytes.data(), 0}), 0U);
  EXPECT_EQ(getMessageId({nullptr, 19}), 0U);
}

TEST_F(CommandTest, AViewWithoutDataIsRefused) {
  EXPECT_EQ(validateMessage({nullptr, 19}, 19), 1);
  EXPECT_EQ(sdk().entries(), Record{"<3>Error: validateMessage: Component ID invalid: 0"});
}

}  // namespace
}  // namespace tarnik::test
