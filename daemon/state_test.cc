#include "daemon/state.h"

#include "daemon/testing/daemon_fixture.h"

namespace tarnik::test {
namespace {

struct StateCase {
  unsigned code;
  Record silent;   // at debug level 0
  Record verbose;  // at debug level 1
};

const Record kUnknown = {"OrloLogEventNoArg(\"VRKUA0008E\", \"VRK_events\")",
                         "<3>Error: tarnikd Daemon state unknown"};
const Record kFailed = {"OrloLogEventNoArg(\"VRKUA0007E\", \"VRK_events\")",
                        "<3>Error: tarnikd Daemon failed to start"};
const Record kInvalid = {"OrloLogEventNoArg(\"VRKUA0006E\", \"VRK_events\")",
                         "<3>Error: tarnikd Daemon configuration invalid"};

class StateTest : public DaemonTest, public ::testing::WithParamInterface<StateCase> {};

TEST_P(StateTest, StoresRaisesThenLogs) {
  setState(GetParam().code);
  EXPECT_EQ(DaemonState, GetParam().code);
  EXPECT_EQ(sdk().entries(), GetParam().silent);
  sdk().clear();
  OrloLogDebugLevel = 1;
  setState(GetParam().code);
  EXPECT_EQ(sdk().entries(), GetParam().verbose);
  sdk().clear();
  OrloLogDebugLevel = 3;
  setState(GetParam().code);
  EXPECT_EQ(sdk().entries(), GetParam().verbose);
  sdk().clear();
  OrloLogDebugLevel = 4;
  setState(GetParam().code);
  Record chatty = GetParam().verbose;
  chatty.insert(chatty.begin(), "<7>Debug: setState: " + std::to_string(GetParam().code));
  EXPECT_EQ(sdk().entries(), chatty);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, StateTest,
    ::testing::Values(StateCase{0, kUnknown, kUnknown},
                      StateCase{1, {}, {"<7>Debug: tarnikd Daemon starting..."}},
                      StateCase{2, {}, {"<7>Debug: tarnikd Daemon started"}},
                      StateCase{3, {}, {"<7>Debug: tarnikd Daemon stopping..."}},
                      StateCase{4, {}, {"<7>Debug: tarnikd Daemon stopped"}},
                      StateCase{5, kFailed, kFailed},
                      StateCase{6, {}, {"<7>Debug: tarnikd Daemon configuration reloading"}},
                      StateCase{7, kInvalid, kInvalid}, StateCase{8, kUnknown, kUnknown},
                      StateCase{9, kUnknown, kUnknown}, StateCase{255, kUnknown, kUnknown}));

TEST_F(StateTest, KeepsTheLowByte) {
  OrloLogDebugLevel = 4;
  setState(0x102);
  EXPECT_EQ(DaemonState, 2);
  EXPECT_EQ(sdk().entries(), (Record{"<7>Debug: setState: 2", "<7>Debug: tarnikd Daemon started"}));
}

}  // namespace
}  // namespace tarnik::test
