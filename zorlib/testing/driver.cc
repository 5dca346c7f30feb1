#include "zorlib/testing/driver.h"

#include <net/if.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
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
std::map<unsigned long, std::pair<int, int>> rawAnswers;  // result, errno
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

// The objects of nothrow new. Without memory of its own, for it is kept by new and delete.
std::array<std::atomic<void*>, 256> objects;
std::array<std::uint32_t, 256> words;
std::atomic<std::size_t> wordCount{0};

void keepObject(void* object) {
  for (std::atomic<void*>& place : objects) {
    void* nobody = nullptr;
    if (place.compare_exchange_strong(nobody, object)) {
      return;
    }
  }
}

// Before the object's memory goes back.
void loseObject(void* object) {
  for (std::atomic<void*>& place : objects) {
    void* expected = object;
    if (object != nullptr && place.compare_exchange_strong(expected, nullptr)) {
      const std::size_t at = wordCount++;
      if (at < words.size()) {
        std::memcpy(&words[at], object, sizeof words[at]);
      }
    }
  }
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

std::vector<std::uint32_t> lastWords() {
  return {words.begin(), words.begin() + std::min(wordCount.load(), words.size())};
}

int livingObjects() {
  return static_cast<int>(std::count_if(objects.begin(), objects.end(),
                                        [](const auto& place) { return place != nullptr; }));
}

void forgetObjects() {
  wordCount = 0;
}

int openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

int mappingsOf(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  int found = 0;
  for (std::string line; std::getline(maps, line);) {
    found += line.ends_with(path) ? 1 : 0;
  }
  return found;
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
  systemCalls.fakeInterfaces = false;
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

// The linker puts these in the place of the system library's where the program calls those.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_access(const char* path, int mode);
int __real_usleep(useconds_t microseconds);
void* __real_calloc(std::size_t count, std::size_t size);
char* __real_strndup(const char* text, std::size_t length);
char* __real_if_indextoname(unsigned index, char* name);
// operator new(std::size_t, const std::nothrow_t&)
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
// operator new[](std::size_t, const std::nothrow_t&)
void* __real__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
// operator delete(void*), and with the size
void __real__ZdlPv(void* object);
void __real__ZdlPvm(void* object, std::size_t size);

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

char* __wrap_strndup(const char* text, std::size_t length) {
  return tarnik::test::allocationFails() ? nullptr : __real_strndup(text, length);
}

char* __wrap_if_indextoname(unsigned index, char* name) {
  if (!systemCalls.fakeInterfaces) {
    return __real_if_indextoname(index, name);
  }
  if (index < 101 || index > 164) {
    errno = ENXIO;
    return nullptr;
  }
  std::snprintf(name, IF_NAMESIZE, "test%u", index);
  return name;
}

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
  if (tarnik::test::allocationFails()) {
    return nullptr;
  }
  void* const object = __real__ZnwmRKSt9nothrow_t(size, tag);
  std::memset(object, tarnik::test::kFresh, size);
  tarnik::test::keepObject(object);
  return object;
}

void __wrap__ZdlPv(void* object) {
  tarnik::test::loseObject(object);
  __real__ZdlPv(object);
}

void __wrap__ZdlPvm(void* object, std::size_t size) {
  tarnik::test::loseObject(object);
  __real__ZdlPvm(object, size);
}

void* __wrap__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
  return tarnik::test::allocationFails() ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}
}
// NOLINTEND(bugprone-reserved-identifier)
