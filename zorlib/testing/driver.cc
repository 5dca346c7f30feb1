#include "zorlib/testing/driver.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>

#include "base/log.h"
#include "platform/zorvik/driver.h"
#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/requests.h"
#include "platform/zorvik/setup.h"

namespace tarnik::test {
namespace {

std::mutex mutex;  // guards the variables below
std::map<unsigned long, Answer> answers;
std::map<unsigned long, std::pair<int, int>> rawAnswers;  // result, errno
std::vector<unsigned long> made;

}  // namespace

std::string text(const char* format, ...) {
  char line[400];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return line;
}

std::vector<LogLine> lines(const std::vector<std::string>& texts) {
  std::vector<LogLine> result;
  for (const std::string& each : texts) {
    const int priority = each.starts_with("Error: ")     ? LOG_ERR
                         : each.starts_with("Warning: ") ? LOG_WARNING
                         : each.starts_with("Debug: ")   ? LOG_DEBUG
                                                         : LOG_INFO;
    result.push_back({priority, each});
  }
  return result;
}

void expectFailure(const std::function<int()>& call, int expectedErrno,
                   const std::vector<std::string>& expectedLines, const char* file, int line) {
  const ::testing::ScopedTrace trace(file, line, "expectFailure");
  clearLog();
  errno = 0;
  EXPECT_EQ(call(), -1);
  EXPECT_EQ(errno, expectedErrno);
  EXPECT_EQ(logLines(), lines(expectedLines));
}

void answer(unsigned long request, Answer with) {
  const std::lock_guard guard(mutex);
  answers[request] = std::move(with);
}

void refuse(unsigned long request, int error) {
  answer(request, [error](int, void*) { return -error; });
}

void answerAsIs(unsigned long request, int result, int error) {
  const std::lock_guard guard(mutex);
  rawAnswers[request] = {result, error};
}

void answerNothing() {
  const std::lock_guard guard(mutex);
  answers.clear();
  rawAnswers.clear();
}

std::vector<unsigned long> requests() {
  const std::lock_guard guard(mutex);
  return made;
}

int count(unsigned long request) {
  const std::vector<unsigned long> all = requests();
  return static_cast<int>(std::count(all.begin(), all.end(), request));
}

void clearRequests() {
  const std::lock_guard guard(mutex);
  made.clear();
}

zorvik_ifg_config description(std::uint32_t count, std::uint32_t first) {
  zorvik_ifg_config config{};
  config.num_ifs = count;
  for (std::uint32_t i = 0; i < ZORVIK_IF_MAX; ++i) {
    config.ifs[i] = {.kern_if = first + i,
                     .mate = i ^ 1u,
                     .mode = ZORVIK_IF_INLINE,
                     .sub_mode = 2,
                     .mtu = 1500,
                     .speed = 1000,
                     .duplex = 2,
                     .reserved = 0};
  }
  return config;
}

HiddenFile::HiddenFile(std::string path) : path_(std::move(path)) {
  std::filesystem::rename(path_, path_ + ".hidden");
}

HiddenFile::~HiddenFile() {
  std::error_code ignored;
  std::filesystem::rename(path_ + ".hidden", path_, ignored);
}

void DriverTest::SetUp() {
  constexpr zorvik::ClassSize kClasses[] = {{2048, 128}, {65536, 8}};
  ASSERT_EQ(zorvik::load(kClasses), 0);
  zorvik::Driver* const driver = zorvik::Driver::latest();
  ASSERT_NE(driver, nullptr);
  {
    const zorvik::Lock lock(driver->state());
    ASSERT_EQ(zorvik::createGroup(*driver, "brund"), 0);
    ASSERT_EQ(
        zorvik::createFrameData(*driver, *zorvik::findGroup(driver->state(), "brund"), kFrames), 0);
    driver->state().faults.strictWaits = 1;  // a lost wake-up must show
  }
  clearLog();
  clearRequests();
  setDebugLevel(0);
}

void DriverTest::TearDown() {
  answerNothing();
  setDebugLevel(0);
  nodesAreReal();
  systemCalls.allocationsLeft = -1;
  EXPECT_EQ(zorvik::unload(), 0) << "something was left open";
}

zorlib_ifg* DriverTest::openGroup() {
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_open("brund", &ifg), 0);
  return ifg;
}

void DriverTest::configureElsewhere(std::uint32_t interfaces) {
  zorlib_ifg* const other = openGroup();
  const zorvik_ifg_config config = description(interfaces);
  EXPECT_EQ(zorlib_ifg_configure(other, &config), 0);
  EXPECT_EQ(zorlib_ifg_close(other), 0);
}

void DriverTest::createQueue(zorlib_ifg* ifg, std::uint32_t type, std::uint32_t size,
                             const char* name) {
  EXPECT_EQ(zorlib_ifg_q_create(ifg, name, type, size, 0, 0), 0);
}

zorlib_q* DriverTest::openQueue(zorlib_ifg* ifg, std::uint32_t mode, const char* name) {
  zorlib_q* q = nullptr;
  EXPECT_EQ(zorlib_q_app_open(ifg, name, mode, &q), 0);
  return q;
}

zorvik_frm_desc* DriverTest::allocFrame(zorlib_ifg* ifg, std::uint32_t size) {
  zorvik_frm_desc* frame = nullptr;
  EXPECT_EQ(zorlib_batch_alloc(ifg, size, &frame, 1), 1);
  return frame;
}

zorvik_qmem* DriverTest::sharedMemory(zorlib_q* q) {
  // It is not unmapped: the few pages end with the process.
  void* const memory = ::mmap(nullptr, sizeof(zorvik_qmem) + 8, PROT_READ | PROT_WRITE, MAP_SHARED,
                              zorlib_q_get_fd(q), 0);
  EXPECT_NE(memory, MAP_FAILED);
  return static_cast<zorvik_qmem*>(memory);
}

}  // namespace tarnik::test

extern "C" int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = va_arg(arguments, unsigned);
  va_end(arguments);
  const auto realOpen = [](const char* file, int with, unsigned permissions) {
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, file, with, permissions));
  };
  return tarnik::zorvik::openNode(realOpen, path, flags, mode);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (_IOC_TYPE(request) != ZORVIK_IOC) {
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
  }
  tarnik::test::Answer scripted;
  {
    const std::lock_guard guard(tarnik::test::mutex);
    tarnik::test::made.push_back(request);
    if (const auto raw = tarnik::test::rawAnswers.find(request);
        raw != tarnik::test::rawAnswers.end()) {
      errno = raw->second.second;
      return raw->second.first;
    }
    if (const auto found = tarnik::test::answers.find(request);
        found != tarnik::test::answers.end()) {
      scripted = found->second;
    }
  }
  const int before = errno;
  std::optional<int> result = scripted ? scripted(fd, argument) : std::nullopt;
  if (!result) {
    result = tarnik::zorvik::serve(fd, request, argument).value_or(-ENOTTY);
  }
  errno = *result < 0 ? -*result : before;
  return *result < 0 ? -1 : *result;
}
