// The programs as they are used: a stranger's one with the library preloaded, and zorvikctl.
#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "platform/zorvik/testing/driver_test.h"

namespace tarnik::zorvik {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  int status;
  std::string output;  // standard output and standard error
};

Outcome run(const std::string& command) {
  std::FILE* pipe = ::popen(("exec 2>&1; " + command).c_str(), "r");
  Outcome result{-1, ""};
  char buffer[4096];
  while (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    result.output += buffer;
  }
  const int status = pipe == nullptr ? -1 : ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

Outcome ctl(const std::string& arguments) {
  return run(ZORVIKCTL " " + arguments);
}

// A refusal: its exit status and its one line.
void refused(const std::string& arguments, int status, const std::string& part) {
  const Outcome result = ctl(arguments);
  EXPECT_EQ(result.status, status) << arguments;
  EXPECT_THAT(result.output, AllOf(StartsWith("zorvikctl: "), HasSubstr(part), EndsWith("\n")));
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
}

class PreloadTest : public DriverTest {};

TEST_F(PreloadTest, ServesAStranger) {
  const Outcome result = run("LD_PRELOAD=" ZORVIK_PRELOAD " " ZORVIK_CLIENT);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(PreloadTest, ServesTheShellsChildrenAndTheShellIsWell) {
  const Outcome result =
      run("LD_PRELOAD=" ZORVIK_PRELOAD " sh -c '" ZORVIK_CLIENT " && echo well'");
  EXPECT_EQ(result.output, "well\n");
}

TEST_F(PreloadTest, WithoutTheLibraryTheKernelRefuses) {
  const Outcome result = run(ZORVIK_CLIENT);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("Inappropriate ioctl for device"));
}

TEST_F(PreloadTest, WithoutTheDriverTheNodesAreMissing) {
  ASSERT_EQ(unload(), 0);
  const Outcome result = run("LD_PRELOAD=" ZORVIK_PRELOAD " " ZORVIK_CLIENT);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("No such file or directory"));
  ASSERT_EQ(load(kClasses), 0);
}

TEST_F(PreloadTest, SleeperIsWokenByAnotherProcess) {
  ASSERT_GT(createQ(node("brund/ctl"), "q", 8), 0);
  const OpenQueue queue("brund/q");
  std::FILE* sleeper = ::popen("LD_PRELOAD=" ZORVIK_PRELOAD " " ZORVIK_CLIENT " wait", "r");
  ASSERT_NE(sleeper, nullptr);
  char line[16] = "";
  EXPECT_NE(std::fgets(line, sizeof(line), sleeper), nullptr);
  std::atomic<bool> ended{false};
  std::thread waker([&] {
    while (!ended) {  // again, in case it does not sleep yet
      std::this_thread::sleep_for(std::chrono::milliseconds(130));
      EXPECT_EQ(queue.wake(queue.qmem().cresq.kresq_handle), 0);
    }
  });
  EXPECT_EQ(::pclose(sleeper), 0);
  ended = true;
  waker.join();
}

class CtlTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (::access(ZORVIK_CTL_NODE, F_OK) == 0) {
      EXPECT_EQ(unload(), 0);
    }
  }
};

TEST_F(CtlTest, Usage) {
  const Outcome help = ctl("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, StartsWith("usage: zorvikctl COMMAND\n"));
  refused("", 2, "which command?");
  refused("dance", 2, "there is no command 'dance'");
  refused("load --frames 2048", 2, "'2048' is not SIZExCOUNT,...");
  refused("load --frames 2047x1", 2, "multiples of 64");
  refused("load now", 2, "nothing else");
  refused("unload now", 2, "no arguments");
}

TEST_F(CtlTest, WithoutTheDriver) {
  for (const char* command :
       {"status", "create-ifg a", "remove-ifg a", "fault clear", "repair a b", "reclaim a"}) {
    refused(command, 1, "the driver is not loaded; 'zorvikctl load' loads it");
  }
  refused("unload", 1, "the driver is not loaded");
}

TEST_F(CtlTest, LoadCreateStatusRemoveUnload) {
  EXPECT_EQ(ctl("load --frames 2048x10,65536x2").output, "");
  refused("load", 1, "loaded already");
  EXPECT_EQ(ctl("create-ifg brund").output, "");
  refused("create-ifg brund", 1, "exists already");
  refused("create-ifg a/b", 1, "cannot name a group");
  refused("create-ifg ABCDEFGHIJKLMNOPQ", 1, "cannot name a group");
  refused("create-ifg", 2, "takes NAME");
  refused("create-ifg x --frames 0", 2, "1 to 1000000");
  EXPECT_EQ(ctl("create-ifg small --frames 0x5").output, "");
  EXPECT_GT(createQ(node("brund/ctl"), "TarnikQ", 5000), 0);
  EXPECT_EQ(alloc(node("brund/frm_desc"), 1, 3).size(), 3u);
  EXPECT_EQ(
      ctl("status").output,
      "payload 151552 bytes, logging mask 0x0\n"
      "buffers of 2048 bytes: 10, free 7\n"
      "buffers of 65536 bytes: 2, free 2\n"
      "group brund  flags 0x0  frames 12, free 9\n"
      "  frames given out 3, taken back 0; requests that found none 0, that asked too much 0\n"
      "  no interfaces\n"
      "  queue TarnikQ  id 3  type 5  entries 8192  requested 5000  queued 0  producer"
      "  consumer  closed\n"
      "group small  flags 0x0  frames 5, free 5\n"
      "  frames given out 0, taken back 0; requests that found none 0, that asked too much 0\n"
      "  no interfaces\n");
  EXPECT_EQ(ctl("reclaim brund").output, "3 frames returned\n");
  refused("reclaim nobody", 1, "there is no group 'nobody'");
  refused("remove-ifg nobody", 1, "there is no group 'nobody'");
  {
    const OpenQueue queue("brund/TarnikQ");
    refused("remove-ifg brund", 1, "is in use");
    refused("unload", 1, "a group is in use");
    EXPECT_THAT(ctl("status").output, HasSubstr("consumer  open\n"));
    const Fd desc = node("brund/frm_desc");
    EXPECT_EQ(alloc(desc, 1, 1).size(), 1u);
    refused("reclaim brund", 1, "is in use");
  }
  EXPECT_EQ(ctl("remove-ifg brund").output, "");
  EXPECT_EQ(ctl("unload").output, "");
}

// The program meets the machine's true interfaces, which are none of these.
TEST_F(CtlTest, StatusTellsWhatAGroupWasTold) {
  EXPECT_EQ(ctl("load --frames 64x8").output, "");
  EXPECT_EQ(ctl("create-ifg brund").output, "");
  refused("create-ifg _nil_ifg", 1, "not ctl, net_data or _nil_ifg");
  zorvik_ifg_config wanted = description(2, 163);
  wanted.link_config = 0x21;
  wanted.fwd_unanalyzed = wanted.prop_link = 1;
  wanted.prop_link_time = 6000;
  zorvik_qpair_cfg pair{.index = 5, .size = 4000, .if_mask = 3, .cpu_mask = 0xc};
  ASSERT_EQ(call(node("brund/ctl"), ZORVIK_IFG_CONFIGURE, &wanted), 0);
  ASSERT_EQ(call(node("brund/ctl"), ZORVIK_QPAIR_SET, &pair), 0);
  {
    const Fd desc = node("brund/frm_desc");
    EXPECT_EQ(alloc(desc, 65, 1).size(), 0u);
    const auto ids = alloc(desc, 64, 62);
    EXPECT_EQ(alloc(desc, 64, 1).size(), 0u);
    EXPECT_EQ(freeId(desc, ids.at(3)), 0);
  }
  EXPECT_THAT(
      ctl("status").output,
      HasSubstr(
          "group brund  flags 0x0  frames 8, free 1\n"
          "  frames given out 8, taken back 1; requests that found none 1, that asked too much 1\n"
          "  configuration 1  link 0x21  fwd-unanalyzed 1  prop-link 1 after 6000 ms\n"
          "  interface 0 (gone)  kernel 163  mate 1  passive/4  mtu 1500  speed 1000  duplex 2\n"
          "  interface 1 (gone)  kernel 164  mate 0  passive/4  mtu 1500  speed 1000  duplex 2\n"
          "  queue pair 5  size 4000  interfaces 0x3  processors 0xc\n"));
}

TEST_F(CtlTest, Faults) {
  EXPECT_EQ(ctl("load --frames 64x8").output, "");
  EXPECT_EQ(ctl("create-ifg brund").output, "");
  EXPECT_GT(createQ(node("brund/ctl"), "q", 4), 0);
  const OpenQueue queue("brund/q");
  EXPECT_EQ(ctl("fault slow-wake 5").output, "");
  EXPECT_EQ(ctl("fault drop-wakes 0x10").output, "");
  EXPECT_EQ(ctl("fault eintr 1").output, "");
  EXPECT_THAT(ctl("status").output,
              HasSubstr("faults: slow-wake 5 ms, drop-wakes 16, eintr in 1 waits\n"));
  EXPECT_EQ(queue.waitToRead(10), -EINTR);
  EXPECT_EQ(ctl("fault clear").output, "");
  EXPECT_THAT(ctl("status").output, Not(HasSubstr("faults")));
  EXPECT_EQ(ctl("fault put brund q 0xffffff").output, "");
  EXPECT_EQ(queue.entries()[0], 0xffffffu);
  EXPECT_EQ(ctl("fault dead-reader brund q").output, "");
  EXPECT_EQ(queue.qmem().dequeue, 1u);
  EXPECT_EQ(queue.entries()[0], 0xffffffu);
  EXPECT_EQ(ctl("fault dead-writer brund q").output, "");
  EXPECT_EQ(queue.qmem().enqueue, 2u);
  EXPECT_EQ(queue.entries()[1], 0u);
  EXPECT_EQ(ctl("repair brund q").output, "1 slots put right\n");
  EXPECT_NE(queue.entries()[1], 0u);
  EXPECT_EQ(ctl("repair brund q").output, "0 slots put right\n");
  EXPECT_EQ(ctl("fault put brund q 7").output, "");
  EXPECT_EQ(ctl("fault put brund q 7").output, "");
  refused("fault put brund q 7", 1, "the queue is full");
  refused("fault put brund q seven", 2, "'seven' is not a number");
  refused("fault put brund nix 7", 1, "there is no queue 'nix' in a group 'brund'");
  refused("fault put brund", 2, "takes GROUP QUEUE ENTRY");
  refused("fault eintr", 2, "takes a number");
  refused("fault eintr -1", 2, "takes a number");
  refused("fault dance", 2, "there is no fault 'dance'");
  refused("fault", 2, "fault what?");
  refused("repair brund", 2, "takes GROUP QUEUE");
}

}  // namespace
}  // namespace tarnik::zorvik
