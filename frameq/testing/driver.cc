#include "frameq/testing/driver.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "base/log.h"
#include "platform/zorvik/driver.h"
#include "platform/zorvik/frames.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/requests.h"
#include "platform/zorvik/setup.h"

namespace tarnik::test {
namespace {

std::mutex mutex;  // guards what follows
std::map<unsigned long, Answer> answers;
std::vector<unsigned long> made;

// True once the allowance is used up.
bool allocationFails() {
  if (systemCalls.allocationsLeft < 0 || systemCalls.allocationsLeft-- > 0) {
    return false;
  }
  systemCalls.allocationsLeft = -1;
  errno = ENOMEM;
  return true;
}

}  // namespace

SystemCalls systemCalls;

std::string text(const char* format, ...) {
  char line[400];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  return line;
}

void answer(unsigned long request, Answer with) {
  const std::lock_guard guard(mutex);
  answers[request] = std::move(with);
}

void refuse(unsigned long request, int error) {
  answer(request, [error](int, void*) { return -error; });
}

void answerNothing() {
  const std::lock_guard guard(mutex);
  answers.clear();
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

void DriverTest::SetUp() {
  constexpr zorvik::ClassSize kClasses[] = {{2048, 128}, {65536, 8}};
  ASSERT_EQ(zorvik::load(kClasses), 0);
  zorvik::Driver* const driver = zorvik::Driver::get(true);
  ASSERT_NE(driver, nullptr);
  {
    const zorvik::Lock lock(driver->state());
    ASSERT_EQ(zorvik::createGroup(*driver, "brund"), 0);
    ASSERT_EQ(
        zorvik::createFrameData(*driver, *zorvik::findGroup(driver->state(), "brund"), kFrames), 0);
  }
  clearLog();
  clearRequests();
  setDebugLevel(0);
}

void DriverTest::TearDown() {
  answerNothing();
  setDebugLevel(0);
  systemCalls.fakeNode = false;
  EXPECT_EQ(zorvik::unload(), 0) << "something was left open";
}

zorlib_ifg* DriverTest::openGroup() {
  zorlib_ifg* ifg = nullptr;
  EXPECT_EQ(zorlib_ifg_open("brund", &ifg), 0);
  return ifg;
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
  // Never unmapped: the system takes the few pages back.
  void* const memory = ::mmap(nullptr, sizeof(zorvik_qmem) + 8, PROT_READ | PROT_WRITE, MAP_SHARED,
                              zorlib_q_get_fd(q), 0);
  EXPECT_NE(memory, MAP_FAILED);
  return static_cast<zorvik_qmem*>(memory);
}

}  // namespace tarnik::test

using tarnik::test::systemCalls;

// The driver's side of the system call.
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

// The linker puts these in the place of the system library's where the program calls those.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_access(const char* path, int mode);
int __real_usleep(useconds_t microseconds);
void* __real_calloc(std::size_t count, std::size_t size);
char* __real_strdup(const char* text);
// operator new(std::size_t, const std::nothrow_t&)
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

int __wrap_access(const char* path, int mode) {
  const int look = ++systemCalls.looks;
  if (!systemCalls.fakeNode) {
    return __real_access(path, mode);
  }
  const bool there = systemCalls.vanishesAt > 0
                         ? look < systemCalls.vanishesAt
                         : systemCalls.appearsAt > 0 && look >= systemCalls.appearsAt;
  errno = there ? errno : ENOENT;
  return there ? 0 : -1;
}

int __wrap_usleep(useconds_t microseconds) {
  ++systemCalls.sleeps;
  systemCalls.longestSleep = std::max(systemCalls.longestSleep.load(), microseconds);
  return systemCalls.fakeNode ? 0 : __real_usleep(microseconds);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return tarnik::test::allocationFails() ? nullptr : __real_calloc(count, size);
}

char* __wrap_strdup(const char* text) {
  return tarnik::test::allocationFails() ? nullptr : __real_strdup(text);
}

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
  return tarnik::test::allocationFails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
}
// NOLINTEND(bugprone-reserved-identifier)
