// The driver's logging mask.
#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "zorlib/testing/driver.h"

namespace tarnik::test {
namespace {

using ::testing::IsEmpty;

class LoggingTest : public DriverTest {
 protected:
  static std::uint64_t mask() {
    std::uint64_t result = 0;
    EXPECT_EQ(zorlib_get_logging_mask(&result), 0);
    return result;
  }

  // Each function, and the requests that it makes.
  struct Function {
    const char* name;
    std::function<int()> call;
    bool reads, writes;
  };
  std::uint64_t read_ = 0;
  const std::array<Function, 4> functions_ = {{
      {"zorlib_get_logging_mask", [this] { return zorlib_get_logging_mask(&read_); }, true, false},
      {"zorlib_set_logging_mask", [] { return zorlib_set_logging_mask(0xf0); }, false, true},
      {"zorlib_add_logging", [] { return zorlib_add_logging(0x0f); }, true, true},
      {"zorlib_del_logging", [] { return zorlib_del_logging(0x81); }, true, true},
  }};
};

TEST_F(LoggingTest, ReadsAndChangesTheMask) {
  EXPECT_EQ(zorlib_set_logging_mask(0xf0000000000000f0), 0);
  EXPECT_EQ(mask(), 0xf0000000000000f0u);
  EXPECT_EQ(zorlib_add_logging(0x800000000000001f), 0) << "some of the bits are set already";
  EXPECT_EQ(mask(), 0xf0000000000000ffu);
  EXPECT_EQ(zorlib_del_logging(0x7800000000000101), 0) << "some of the bits are clear already";
  EXPECT_EQ(mask(), 0x80000000000000feu);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(LoggingTest, NoBitsMakeNoRequest) {
  systemCalls.looks = 0;
  EXPECT_EQ(zorlib_add_logging(0), 0);
  EXPECT_EQ(zorlib_del_logging(0), 0);
  EXPECT_EQ(systemCalls.looks, 0);
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(LoggingTest, EachCallOpensTheControlNodeAndClosesIt) {
  const int before = openDescriptors();
  std::vector<std::string> nodes;
  const Answer look = [&](int fd, void*) -> std::optional<int> {
    nodes.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(openDescriptors(), before + 1);
    return std::nullopt;
  };
  answer(ZORVIK_GET_LOG_MASK, look);
  answer(ZORVIK_SET_LOG_MASK, look);
  for (const Function& each : functions_) {
    nodes.clear();
    nodeAppearsAt(3);
    EXPECT_EQ(each.call(), 0);
    nodesAreReal();
    EXPECT_EQ(systemCalls.looks, 3);
    EXPECT_EQ(nodes,
              std::vector<std::string>(each.reads && each.writes ? 2 : 1, "/dev/zorvik/ctl"));
    EXPECT_EQ(openDescriptors(), before);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(LoggingTest, OpensTheControlNodeEvenIfTheWaitDidNotFindIt) {
  for (const Function& each : functions_) {
    clearLog();
    nodeAppearsAt(kNever);
    EXPECT_EQ(each.call(), 0);
    EXPECT_EQ(systemCalls.looks, 1501);
    EXPECT_EQ(logLines(), lines({"Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode "
                                 "/dev/zorvik/ctl to appear"}));
  }
  EXPECT_EQ(mask(), 0x7eu);
}

TEST_F(LoggingTest, LogsTheStepThatFails) {
  const int before = openDescriptors();
  for (const Function& each : functions_) {
    const std::string start = std::string("Error: ") + each.name + ": ";
    const auto refused = [&](unsigned long request, const char* message) {
      refuse(request, EIO);
      expectFailure(each.call, EIO, {start + message});
      EXPECT_EQ(openDescriptors(), before);
      answerNothing();
    };
    if (each.reads) {
      clearRequests();
      refused(ZORVIK_GET_LOG_MASK, "get logging mask ioctl(2) failed - Input/output error");
      EXPECT_EQ(count(ZORVIK_SET_LOG_MASK), 0);
    }
    if (each.writes) {
      refused(ZORVIK_SET_LOG_MASK, "set logging mask ioctl(2) failed - Input/output error");
    }
    const HiddenFile hidden("/dev/zorvik/ctl");
    nodeAppearsAt(1);
    expectFailure(each.call, ENOENT,
                  {start + "Cannot open zorvik ctl - No such file or directory"});
    nodesAreReal();
  }
}

}  // namespace
}  // namespace tarnik::test
