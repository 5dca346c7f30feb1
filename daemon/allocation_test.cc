// The real command socket and the real metadata cache: a metadata message allocates only the
// cache's entry.
#include <gtest/gtest.h>
#include <orlo_sdk.h>
#include <sys/socket.h>

#include <cstring>

#include "base/log.h"
#include "base/owned.h"
#include "base/testing/captured_log.h"
#include "base/testing/counted_memory.h"
#include "capture/meta_cache.h"
#include "daemon/command_handlers.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {
namespace {

// How many allocations processing `message` takes.
std::uint64_t costOf(const Bytes& message) {
  const OwnedFd client(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, ORLO_RUN_DIR "/tarnikd.sock");
  EXPECT_EQ(::sendto(client.get(), message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
            static_cast<ssize_t>(message.size()));
  const std::uint64_t before = allocations();
  processMessage();
  return allocations() - before;
}

TEST(AllocationTest, MetadataCostsItsEntryAndNothingElse) {
  setDebugLevel(0);
  clearLog();
  TarnikMetaCache::instance().config(0);  // as the daemon's start does
  ASSERT_EQ(OrloCmdInit("tarnikd", 0), 0);
  const Bytes message = metadataMessage();
  EXPECT_EQ(costOf(message), 1U);
  EXPECT_EQ(costOf(message), 0U) << "an entry that is there is overwritten";
  OrloCmdFini();
  std::uint64_t flowId = 0;
  std::uint32_t triggerId = 0;
  EXPECT_TRUE(TarnikMetaCache::instance().lookup(0x0102030405060708, flowId, triggerId));
  EXPECT_TRUE(logLines().empty());
}

}  // namespace
}  // namespace tarnik::test
