// What the driver's tests share: a small driver, its nodes, and requests on them.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/testing/process.h"
#include "platform/zorvik/driver.h"
#include "platform/zorvik/groups.h"
#include "platform/zorvik/requests.h"
#include "platform/zorvik/setup.h"
#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

using test::Process;

// A request as an application makes it; -errno when it fails, also where the kernel refuses it.
inline int call(int fd, unsigned long request, void* argument) {
  return serve(fd, request, argument).value_or(-ENOTTY);
}
inline int call(const Fd& fd, unsigned long request, void* argument) {
  return call(fd.get(), request, argument);
}

// Opens a node as an application does, so that it is in use.
inline Fd node(const std::string& path) {
  const auto realOpen = [](const char* file, int flags, unsigned) { return ::open(file, flags); };
  return Fd(openNode(realOpen, (ZORVIK_DEV_DIR "/" + path).c_str(), O_RDWR | O_CLOEXEC, 0));
}

inline bool exists(const std::string& path) {
  return ::access((ZORVIK_DEV_DIR "/" + path).c_str(), F_OK) == 0;
}

inline int ifgRequest(unsigned long request, const std::string& name) {
  zorvik_ifg_create argument{};
  std::memcpy(argument.name, name.data(), std::min(name.size(), sizeof(argument.name)));
  return call(node("ctl"), request, &argument);
}

inline int createIfg(const std::string& name, std::uint32_t frames) {
  const int result = ifgRequest(ZORVIK_IFG_CREATE, name);
  return result != 0 ? result : call(node(name + "/ctl"), ZORVIK_FRM_DATA_CREATE, &frames);
}

inline int removeIfg(const std::string& name) {
  return ifgRequest(ZORVIK_IFG_REMOVE, name);
}

inline int createQ(const Fd& ifg, const std::string& name, std::uint32_t size,
                   std::uint32_t type = ZORVIK_Q_APP) {
  zorvik_q_create argument{};
  argument.type = type;
  argument.size = size;
  std::memcpy(argument.name, name.data(), std::min(name.size(), sizeof(argument.name)));
  return call(ifg, ZORVIK_Q_CREATE, &argument);
}

inline int removeQ(const Fd& ifg, int id) {
  auto argument = static_cast<std::uint32_t>(id);
  return call(ifg, ZORVIK_Q_REMOVE, &argument);
}

// Allocates frames. Empty when the request fails, with the result in `error`.
inline std::vector<std::uint32_t> alloc(const Fd& desc, std::uint32_t size, std::uint32_t count,
                                        int* error = nullptr) {
  zorvik_frm_alloc argument{};
  argument.count = count;
  argument.size = size;
  const int result = call(desc, ZORVIK_FRM_ALLOC, &argument);
  if (error != nullptr) {
    *error = result;
  }
  return result != 0 ? std::vector<std::uint32_t>()
                     : std::vector(argument.frame_ids, argument.frame_ids + argument.count);
}

// The error of an allocation that must fail.
inline int allocError(const Fd& desc, std::uint32_t size, std::uint32_t count = 1) {
  int error = 0;
  EXPECT_THAT(alloc(desc, size, count, &error), ::testing::IsEmpty());
  return error;
}

inline int freeId(const Fd& desc, std::uint32_t id) {
  zorvik_frm_free argument{};
  argument.frame_id = id;
  return call(desc, ZORVIK_FRM_FREE, &argument);
}

// The request by which an application opens a group's descriptors.
inline int descSize(const Fd& desc, zorvik_frm_desc_size&& size = {}) {
  const int result = call(desc, ZORVIK_FRM_DESC_SIZE, &size);
  return result != 0 ? result : static_cast<int>(size.size);
}

inline zorvik_ifg_stats statistics(const Fd& ifg) {
  zorvik_ifg_stats stats{};
  EXPECT_EQ(call(ifg, ZORVIK_IFG_STATS, &stats), 0);
  return stats;
}

// The names in an enumeration.
template <typename List>
std::vector<std::string> names(const List& list) {
  std::vector<std::string> result;
  for (std::uint32_t i = 0; i < std::min(list.count, ZORVIK_ENUM_MAX); ++i) {
    result.emplace_back(list.records[i].name, ::strnlen(list.records[i].name, ZORVIK_NAME_MAX));
  }
  return result;
}
template <typename List>
List enumerate(const Fd& fd, unsigned long request, std::uint32_t capacity = ZORVIK_ENUM_MAX) {
  List list{};
  list.count = capacity;
  EXPECT_EQ(call(fd, request, &list), 0);
  return list;
}

// A group of `count` interfaces with the indexes from `first` on.
inline zorvik_ifg_config description(std::uint32_t count, std::uint32_t first = 101) {
  zorvik_ifg_config config{};
  config.num_ifs = count;
  for (std::uint32_t i = 0; i < std::min(count, ZORVIK_IF_MAX); ++i) {
    config.ifs[i] = {.kern_if = first + i,
                     .mate = i ^ 1u,
                     .mode = ZORVIK_IF_PASSIVE,
                     .sub_mode = 4,
                     .mtu = 1500,
                     .speed = 1000,
                     .duplex = 2,
                     .reserved = 0};
  }
  return config;
}

// A queue as an application opens it.
struct OpenQueue {
  Fd fd;
  zorvik_q_stat stat{};
  std::unique_ptr<Mapping> memory;

  explicit OpenQueue(const std::string& path) : fd(node(path)) {
    EXPECT_TRUE(fd) << path;
    EXPECT_EQ(call(fd, ZORVIK_Q_STAT, &stat), 0);
    memory = std::make_unique<Mapping>(fd.get(), stat.mem_size);
  }
  [[nodiscard]] zorvik_qmem& qmem() const {
    return *reinterpret_cast<zorvik_qmem*>(memory->base());
  }
  [[nodiscard]] std::uint64_t* entries() const { return zorvik_qmem_entries(&qmem()); }
  [[nodiscard]] int wait(std::uint32_t handle, std::uint32_t ms) const {
    zorvik_q_wait argument{.kresq_handle = handle, .timeout_ms = ms};
    return call(fd, ZORVIK_Q_WAIT, &argument);
  }
  [[nodiscard]] int wake(std::uint32_t handle) const {
    zorvik_q_wake argument{.kresq_handle = handle, .reserved = 0};
    return call(fd, ZORVIK_Q_WAKE, &argument);
  }
  [[nodiscard]] int waitToRead(std::uint32_t ms) const {
    return wait(qmem().cresq.kresq_handle, ms);
  }
  [[nodiscard]] int wakeReader() const { return wake(qmem().cresq.kresq_handle); }
};

inline std::atomic_ref<std::uint32_t> word(std::uint32_t& at) {
  return std::atomic_ref(at);
}

// An event that a child process reports to its parent.
class Signal {
 public:
  Signal() { EXPECT_EQ(::pipe(ends_), 0); }
  ~Signal() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void send() const { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }
  void await() const {
    char byte = 0;
    EXPECT_EQ(::read(ends_[0], &byte, 1), 1);
  }

 private:
  int ends_[2] = {-1, -1};
};

// Checks that pool, tables and nodes are consistent. Returns one line for each fault.
std::string inconsistencies();

// Removes every queue and every group except `name`.
void removeAllBut(const std::string& name);

// A driver with 8 + 4 + 2 buffers and the group "brund" with 12 frames.
class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(load(kClasses), 0);
    ASSERT_EQ(createIfg("brund", 12), 0);
  }
  void TearDown() override {
    EXPECT_EQ(inconsistencies(), "");
    EXPECT_EQ(unload(), 0);
  }

  static constexpr ClassSize kClasses[] = {{2048, 8}, {16384, 4}, {65536, 2}};
};

}  // namespace tarnik::zorvik
