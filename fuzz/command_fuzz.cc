// Passes one datagram of the command socket to processMessage, with the recording SDK. The recorded
// calls must follow from its bytes.
#include <algorithm>
#include <string>
#include <vector>

#include "base/log.h"
#include "daemon/command_handlers.h"
#include "daemon/testing/recording_sdk.h"
#include "fuzz/input_file.h"

using namespace tarnik;

namespace {

std::uint64_t number(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    value = value << 8U | bytes.at(offset + i);
  }
  return value;
}

// The type of a valid request; 0 for all others, which must have no effect.
RequestType requestType(std::vector<std::uint8_t> bytes) {
  const std::size_t received = std::min(bytes.size(), kMaxMessage);
  bytes.resize(kMaxMessage);
  const bool acceptable = received >= 16 && number(bytes, 0, 2) == 7 &&
                          number(bytes, 2, 2) <= received && number(bytes, 4, 8) != 0 &&
                          number(bytes, 16, 2) <= 4 && (bytes[18] & 1) != 0;
  return RequestType{acceptable ? static_cast<std::uint16_t>(number(bytes, 16, 2))
                                : std::uint16_t{0}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> datagram(data, data + size);
  test::resetSdk();
  setDebugLevel(4);
  test::sdk().datagrams = {{datagram, "/tmp/client", {}}};
  processMessage();

  const RequestType type = requestType(datagram);
  const auto& responses = test::sdk().responses;
  const bool answered = type == RequestType::kReload || type == RequestType::kGetState;
  fuzz::require(responses.size() == (answered ? 1U : 0U), "reload and state are answered once");
  if (answered) {
    const std::vector<std::uint8_t>& response = responses.front().bytes;
    fuzz::require(response.size() == (type == RequestType::kReload ? 21U : 23U),
                  "the response's length");
    fuzz::require(number(response, 2, 2) == response.size(), "its length field");
    fuzz::require(number(response, 4, 8) == number(datagram, 4, 8), "its identifier");
    fuzz::require(number(response, 16, 2) == number(datagram, 16, 2) && response[18] == 2,
                  "its type and flags");
  }
  const std::vector<std::string> record = test::sdk().entries();
  const auto done = [&record](const char* call) {
    return std::any_of(record.begin(), record.end(),
                       [call](const std::string& entry) { return entry.starts_with(call); });
  };
  fuzz::require(done("TarnikMetaCache::add") ==
                    (type == RequestType::kMetadata && size == kMetadataRequestSize),
                "metadata of 39 bytes is added");
  fuzz::require(done("TarnikMetaCache::dump") == (type == RequestType::kDump), "a dump is a dump");
  return 0;
}
