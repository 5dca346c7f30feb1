// What the tests of the driver share: a small driver, its nodes, and requests on them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "platform/zorvik/driver.h"
#include "platform/zorvik/os.h"
#include "platform/zorvik/requests.h"
#include "platform/zorvik/setup.h"
#include "zorlib/zorvik_layout.h"

namespace tarnik::zorvik {

// A request as an application sees it, with -errno in the place of -1. What the driver does not
// answer is refused by the kernel.
inline int call(int fd, unsigned long request, void* argument) {
  return serve(fd, request, argument).value_or(-ENOTTY);
}
inline int call(const Fd& fd, unsigned long request, void* argument) {
  return call(fd.get(), request, argument);
}

inline Fd node(const std::string& path) {
  return Fd::open(ZORVIK_DEV_DIR "/" + path);
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

// Takes frames; empty when refused, with the reason in `error`.
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

inline int freeId(const Fd& desc, std::uint32_t id) {
  zorvik_frm_free argument{};
  argument.frame_id = id;
  return call(desc, ZORVIK_FRM_FREE, &argument);
}

// A description of `count` interfaces, of those from `first` on. In a test program the machine has
// the interfaces 101 to 164 and no others.
inline zorvik_ifg_config description(std::uint32_t count, std::uint32_t first = 101) {
  zorvik_ifg_config config{};
  config.num_ifs = count;
  for (std::uint32_t i = 0; i < count; ++i) {
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

// The group's interfaces and, in `cookie`, the request's result.
inline std::vector<zorvik_if_record> interfaces(const Fd& ifg, int* cookie = nullptr,
                                                std::uint32_t capacity = ZORVIK_IF_MAX) {
  std::vector<zorvik_if_record> records(ZORVIK_IF_MAX);
  zorvik_ifg_query query{};
  query.flags = reinterpret_cast<std::uintptr_t>(records.data());
  query.count = capacity;
  const int result = call(ifg, ZORVIK_IFG_QUERY, &query);
  EXPECT_GE(result, 0);
  if (cookie != nullptr) {
    *cookie = result;
  }
  EXPECT_LE(query.count, std::min(capacity, ZORVIK_IF_MAX));
  records.resize(std::min(query.count, ZORVIK_IF_MAX));
  return records;
}

inline zorvik_ifg_stats statistics(const Fd& ifg) {
  zorvik_ifg_stats stats{};
  EXPECT_EQ(call(ifg, ZORVIK_IFG_STATS, &stats), 0);
  return stats;
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
};

// A child process that runs `body`, to end by itself or to be killed. Its exit status is `body`'s
// result; a failed expectation inside it makes it 99.
class Child {
 public:
  template <typename Body>
  explicit Child(Body body) : pid_(::fork()) {
    if (pid_ == 0) {
      const int status = body();
      ::_exit(::testing::Test::HasFailure() ? 99 : status);
    }
  }
  ~Child() { kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  // Its exit status, or -1 when a signal ended it.
  int join() {
    int status = 0;
    if (pid_ > 0) {
      ::waitpid(std::exchange(pid_, -1), &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      (void)join();
    }
  }

 private:
  pid_t pid_;
};

// Whether pool, tables and nodes are consistent; what is wrong, a line each.
std::string inconsistencies();

// Removes every queue, and every group but `name`.
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
