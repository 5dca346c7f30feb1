// The reload request: it runs the reload procedure and tells its outcome.
#include "daemon/command_handlers.h"
#include "daemon/state.h"
#include "daemon/testing/daemon_fixture.h"
#include "daemon/testing/messages.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAreArray;

class ReloadRequestTest : public DaemonTest {
 protected:
  static Record process() {
    sdk().datagrams = {{Message{.type = 1, .id = 0xa1}.bytes(), "/tmp/client", {}}};
    processMessage();
    return withoutParsing(sdk().entries());
  }
};

Bytes response(std::uint8_t status) {
  return {0, 7, 0, 21, 0, 0, 0, 0, 0, 0, 0, 0xa1, 0, 0, 0, 0, 0, 1, 2, 0, status};
}

TEST_F(ReloadRequestTest, ReloadsAndAnswersZero) {
  writeConfig("tarnik.debuglevel=1\n");
  OrloLogDebugLevel = 1;
  EXPECT_THAT(process(), ElementsAreArray({
                             "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                             "<7>Debug: processReloadRequest: entry",
                             "<6>onReload: Reloading",
                             "<7>Debug: tarnikd Daemon configuration reloading",
                             "CaptureManager::Reload(, 120, 53687091, 1000, 1048576, 0, 0)",
                             "system(rm -rf /var/support/tarnik/template*)",
                             "createIpsInfoTemplate()",
                             "createNapInfoTemplates()",
                             "TarnikMetaCache::config(1800)",
                             "<7>Debug: tarnikd Daemon started",
                             "OrloCmdResp(21, \"/tmp/client\")",
                         }));
  ASSERT_EQ(sdk().responses.size(), 1U);
  EXPECT_EQ(sdk().responses[0].bytes, response(0));
  EXPECT_EQ(DaemonState, 2);
}

TEST_F(ReloadRequestTest, AnswersTwelveAfterAFailure) {
  writeConfig("tarnik.file.maxno=9\n");
  EXPECT_THAT(process(), ElementsAreArray({
                             "OrloCmdRecv(zeroes, 4096, zeroes, 0)",
                             "<6>onReload: Reloading",
                             "<3>Error: loadTarnikCfg: Invalid value: maxno=9",
                             "<3>Error: onReload: Failed to reload base configuration",
                             "OrloLogEventNoArg(\"VRKUA0006E\", \"VRK_events\")",
                             "<3>Error: tarnikd Daemon configuration invalid",
                             "<3>Error: processReloadRequest: Failed to reload tarnikd config",
                             "OrloCmdResp(21, \"/tmp/client\")",
                         }));
  ASSERT_EQ(sdk().responses.size(), 1U);
  EXPECT_EQ(sdk().responses[0].bytes, response(12));
  EXPECT_EQ(DaemonState, 7);
}

TEST_F(ReloadRequestTest, FailingTemplatesAnswerTwelveToo) {
  writeConfig("");
  for (const char* generator : {"createIpsInfoTemplate", "createNapInfoTemplates"}) {
    resetSdk();
    sdk().failWhere(generator);
    process();
    ASSERT_EQ(sdk().responses.size(), 1U);
    EXPECT_EQ(sdk().responses[0].bytes, response(12)) << generator;
  }
}

TEST_F(ReloadRequestTest, AFailedAnswerIsLoggedAfterTheReload) {
  writeConfig("");
  sdk().failWhere("OrloCmdResp", -89);
  const Record record = process();
  EXPECT_EQ(
      Record(record.end() - 3, record.end()),
      (Record{"OrloCmdResp(21, \"/tmp/client\")", "<3>Error: clientResp: Socket comms failed: -89 ",
              "<3>Error: processMessage: Failed to process message: 2"}));
}

}  // namespace
}  // namespace tarnik::test
