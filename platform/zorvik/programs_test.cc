// The programs as users run them: an application with the library preloaded, and zorvikctl.
#include <sstream>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::HasSubstr;

const std::vector<std::string> kPreloaded = {"LD_PRELOAD=" ZORVIK_PRELOAD};

class PreloadTest : public DriverTest {};

TEST_F(PreloadTest, ServesAnApplication) {
  const auto result = test::runProgram({ZORVIK_CLIENT}, kPreloaded);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.ending, test::kSucceeded);
}

TEST_F(PreloadTest, ServesTheChildrenOfAShell) {
  const auto result = test::runProgram({"sh", "-c", ZORVIK_CLIENT " && echo done"}, kPreloaded);
  EXPECT_EQ(result.output, "done\n");
}

TEST_F(PreloadTest, WithoutTheLibraryTheKernelRefusesTheRequests) {
  const auto result = test::runProgram({ZORVIK_CLIENT});
  EXPECT_EQ(result.ending, test::exited(1));
  EXPECT_THAT(result.output, HasSubstr("Inappropriate ioctl for device"));
}

TEST_F(PreloadTest, WithoutTheDriverTheNodesAreMissing) {
  ASSERT_EQ(unload(), 0);
  const auto result = test::runProgram({ZORVIK_CLIENT}, kPreloaded);
  EXPECT_EQ(result.ending, test::exited(1));
  EXPECT_THAT(result.output, HasSubstr("No such file or directory"));
  ASSERT_EQ(load(kClasses), 0);
}

TEST_F(PreloadTest, ASleeperIsWokenByAnotherProcess) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  const OpenQueue queue("brund/q");
  Process sleeper({ZORVIK_CLIENT, "wait"}, kPreloaded);
  // Repeatedly, because it may not sleep yet.
  EXPECT_TRUE(test::eventually([&] {
    EXPECT_EQ(queue.wakeReader(), 0);
    return !sleeper.running();
  }));
  EXPECT_EQ(sleeper.wait(), test::kSucceeded);
}

// ---- zorvikctl

test::Finished ctl(const std::string& arguments) {
  std::vector<std::string> command = {ZORVIKCTL};
  std::istringstream words(arguments);
  for (std::string word; words >> word;) {
    command.push_back(word);
  }
  return test::runProgram(command);
}

void succeeds(const std::string& arguments) {
  const test::Finished result = ctl(arguments);
  EXPECT_EQ(result.ending, test::kSucceeded) << arguments;
  EXPECT_EQ(result.output + result.errors, "") << arguments;
}

struct Failure {
  const char* arguments;
  int status;
  const char* message;  // part of it
};
void expectFailures(std::initializer_list<Failure> failures) {
  for (const Failure& each : failures) {
    const test::Finished result = ctl(each.arguments);
    EXPECT_EQ(result.ending, test::exited(each.status)) << each.arguments;
    EXPECT_THAT(result.errors, HasSubstr(each.message)) << each.arguments;
    EXPECT_EQ(result.output, "") << each.arguments;
  }
}

class CtlTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (exists("ctl")) {
      EXPECT_EQ(unload(), 0);
    }
  }
};

TEST_F(CtlTest, Usage) {
  const test::Finished help = ctl("--help");
  EXPECT_EQ(help.ending, test::kSucceeded);
  EXPECT_THAT(help.output, HasSubstr("Usage: zorvikctl"));
  expectFailures({{"", 2, "subcommand"},
                  {"dance", 2, "subcommand"},
                  {"load --frames 2048", 2, "'2048' is not SIZExCOUNT"},
                  {"load --frames 2048x1,64xx", 2, "'64xx' is not SIZExCOUNT"},
                  {"load --frames 2047x1", 1, "multiples of 64"},
                  {"load now", 2, "now"},
                  {"unload now", 2, "now"},
                  {"create-ifg", 2, "NAME is required"},
                  {"create-ifg x --frames 0", 2, "1 to 1000000"},
                  {"fault", 2, "subcommand"},
                  {"fault dance", 2, "subcommand"},
                  {"fault eintr", 2, "N is required"},
                  {"fault eintr -1", 2, "-1"},
                  {"fault put brund", 2, "required"},
                  {"fault put brund q seven", 2, "seven"}});
}

TEST_F(CtlTest, WithoutTheDriver) {
  for (const char* command : {"status", "create-ifg a", "remove-ifg a", "fault clear"}) {
    expectFailures({{command, 1, "the driver is not loaded; 'zorvikctl load' loads it\n"}});
  }
  expectFailures({{"unload", 1, "it is not loaded\n"}});
}

TEST_F(CtlTest, LoadCreateStatusRemoveUnload) {
  succeeds("load --frames 2048x10,65536x2");
  succeeds("create-ifg brund");
  succeeds("create-ifg small --frames 0x5");
  expectFailures({{"load", 1, "loaded already"},
                  {"create-ifg brund", 1, "exists already"},
                  {"create-ifg a/b", 1, "a name has"},
                  {"create-ifg _nil_ifg", 1, "not ctl, net_data or _nil_ifg"},
                  {"create-ifg ABCDEFGHIJKLMNOPQ", 1, "a name has"},
                  {"remove-ifg nobody", 1, "there is no such group"}});
  EXPECT_GT(createQ(node("brund/ctl"), "TarnikQ", 5000), 0);
  Fd desc = node("brund/frm_desc");
  EXPECT_EQ(alloc(desc, 1, 3).size(), 3u);
  Process dead([] { return static_cast<int>(alloc(node("brund/frm_desc"), 1, 2).size()); });
  EXPECT_EQ(dead.wait(), test::exited(2));
  // The index of no interface of any machine.
  zorvik_ifg_config config = description(2, 0x7fffff00);
  EXPECT_EQ(call(node("brund/ctl"), ZORVIK_IFG_CONFIGURE, &config), 0);
  EXPECT_EQ(ctl("status").output,
            "buffers of 2048 bytes: 10, 7 free\n"
            "buffers of 65536 bytes: 2, 2 free\n"
            "group brund  frames 12, 9 free\n"
            "  interface 0 (gone)  index 2147483392\n"
            "  interface 1 (gone)  index 2147483393\n"
            "  queue TarnikQ  type 5  entries 8192  queued 0  closed\n"
            "group small  frames 5, 5 free\n");
  desc = Fd();
  {
    const OpenQueue queue("brund/TarnikQ");
    expectFailures({{"remove-ifg brund", 1, "it is in use"}, {"unload", 1, "it is in use"}});
    EXPECT_THAT(ctl("status").output, HasSubstr("queued 0  open\n"));
  }
  succeeds("remove-ifg brund");
  succeeds("unload");
}

TEST_F(CtlTest, Faults) {
  succeeds("load --frames 64x8");
  succeeds("create-ifg brund");
  EXPECT_GT(createQ(node("brund/ctl"), "q", 4), 0);
  const OpenQueue queue("brund/q");
  const Faults& faults = Driver::latest()->state().faults;
  succeeds("fault slow-wake 5");
  succeeds("fault drop-wakes 0x10");
  succeeds("fault eintr 1");
  EXPECT_EQ(faults.slowWakeMs, 5u);
  EXPECT_EQ(faults.dropWakes, 16u);
  EXPECT_EQ(queue.waitToRead(10), -EINTR);
  succeeds("fault strict-waits 1");
  EXPECT_EQ(faults.strictWaits, 1u);
  succeeds("fault clear");
  EXPECT_EQ(faults.slowWakeMs + faults.dropWakes + faults.eintrIn + faults.strictWaits, 0u);
  succeeds("fault put brund q 0xffffff");
  EXPECT_EQ(queue.entries()[0], 0xffffffu);
  succeeds("fault dead-reader brund q");
  EXPECT_EQ(queue.qmem().dequeue, 1u);
  EXPECT_EQ(queue.entries()[0], 0xffffffu);
  expectFailures({{"fault dead-reader brund q", 1, "the queue is empty"}});
  succeeds("fault dead-writer brund q");
  EXPECT_EQ(queue.qmem().enqueue, 2u);
  EXPECT_EQ(queue.entries()[1], 0u);
  succeeds("fault put brund q 7");
  succeeds("fault put brund q 7");
  expectFailures({{"fault put brund q 7", 1, "the queue is full"},
                  {"fault put brund nix 7", 1, "there is no queue 'nix' in a group 'brund'"}});
}

}  // namespace
}  // namespace tarnik::zorvik
