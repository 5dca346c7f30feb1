// What applications must not give: null pointers, and handles that are none.
#include <cerrno>
#include <functional>

#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(GroupTest, NullPointersAreRefusedSilently) {
  zorvik_frm_desc* descriptors = nullptr;
  std::uint32_t size = 0;
  std::uint8_t* payload = nullptr;
  createQueue(ifg_);
  createQueue(ifg_, ZORVIK_Q_EGRESS, 16, "egress");
  zorlib_q* const reader = openQueue(ifg_, ZORLIB_READ);
  zorlib_q* const writer = openQueue(ifg_, ZORLIB_WRITE, "egress");
  zorlib_q* q = nullptr;
  clearRequests();
  const std::function<int()> calls[] = {
      [] { return zorlib_ifg_open("brund", nullptr); },
      [] { return zorlib_ifg_devnode_wait(nullptr, 1); },
      [&] { return zorlib_map_frm_data(ifg_, nullptr, &size, &payload, &size); },
      [&] { return zorlib_map_frm_data(ifg_, &descriptors, nullptr, &payload, &size); },
      [&] { return zorlib_map_frm_data(ifg_, &descriptors, &size, nullptr, &size); },
      [&] { return zorlib_map_frm_data(ifg_, &descriptors, &size, &payload, nullptr); },
      [&] { return zorlib_ifg_q_enum(ifg_, nullptr); },
      [&] { return zorlib_ifg_query(ifg_, nullptr); },
      [&] { return zorlib_ifg_get_flags(ifg_, nullptr); },
      [&] { return zorlib_ifg_set_qpair_cfg(ifg_, nullptr); },
      [&] { return zorlib_ifg_get_qpair_cfg(ifg_, nullptr); },
      [&] { return zorlib_ifg_get_stats(ifg_, nullptr); },
      [] { return zorlib_ifg_enum(nullptr); },
      [&] { return zorlib_batch_alloc(ifg_, 1, nullptr, 1); },
      [&] { return zorlib_ifg_frm_data(ifg_, nullptr) == nullptr ? -1 : 0; },
      [] { return zorlib_if_enum(nullptr, 1); },
      [] { return zorlib_get_logging_mask(nullptr); },
      [&] { return zorlib_ifg_create_q_app(ifg_, nullptr, ZORVIK_Q_APP, 16); },
      [&] { return zorlib_ifg_q_create(ifg_, nullptr, ZORVIK_Q_APP, 16, 0, 0); },
      [&] { return zorlib_ifg_remove_q_app(ifg_, nullptr); },
      [&] { return zorlib_q_app_open(ifg_, nullptr, ZORLIB_READ, &q); },
      [&] { return zorlib_q_app_open(ifg_, "TarnikQ", ZORLIB_READ, nullptr); },
      [&] { return zorlib_q_get_size(reader, nullptr); },
      [&] { return zorlib_q_read(reader, nullptr); },
      [&] { return zorlib_q_read_timeout(reader, nullptr, 0); },
      [&] { return zorlib_q_write(writer, nullptr); },
      [&] { return zorlib_q_free(writer, nullptr); },
      [&] { return zorlib_frm_free(ifg_, nullptr); },
  };
  for (const auto& call : calls) {
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EINVAL) << "call " << &call - calls;
  }
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_EQ(q, nullptr);
  EXPECT_EQ(zorlib_q_close(reader), 0);
  EXPECT_EQ(zorlib_q_close(writer), 0);
}

TEST_F(GroupTest, WhatIsLoggedIsCheckedBeforeNullPointers) {
  createQueue(ifg_);
  zorlib_q* const q = openQueue(ifg_, ZORLIB_WRITE);
  errno = 0;
  EXPECT_EQ(zorlib_q_free(q, nullptr), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(zorlib_q_app_open(ifg_, nullptr, 2, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(zorlib_register_params(1, nullptr), 0);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_q_free must be done to an egress queue!"),
                          error("Error: zorlib_q_app_open: Invalid mode 2"),
                          error("Error: zorlib_register_params: Too many param specs!")));
  EXPECT_EQ(zorlib_q_close(q), 0);
}

TEST_F(GroupTest, HandlesAreCheckedFirst) {
  const std::function<int()> calls[] = {
      [] { return zorlib_ifg_q_enum(nullptr, nullptr); },
      [] { return zorlib_ifg_query(nullptr, nullptr); },
      [] { return zorlib_ifg_get_flags(nullptr, nullptr); },
      [] { return zorlib_ifg_set_flags(nullptr, 1); },
      [] { return zorlib_ifg_set_qpair_cfg(nullptr, nullptr); },
      [] { return zorlib_ifg_get_qpair_cfg(nullptr, nullptr); },
      [] { return zorlib_ifg_get_stats(nullptr, nullptr); },
      [] { return zorlib_batch_alloc(nullptr, 1, nullptr, 1); },
      [] { return zorlib_ifg_frm_alloc(nullptr, 1) == nullptr ? -1 : 0; },
      [] { return zorlib_ifg_frm_data(nullptr, nullptr) == nullptr ? -1 : 0; },
      [] { return zorlib_ifg_lookup_if_mask(nullptr, 1) == 0 ? -1 : 0; },
      [] { return zorlib_ifg_lookup_cpu_mask(nullptr, 1) == 0 ? -1 : 0; },
      [] { return zorlib_ifg_create_q_app(nullptr, nullptr, ZORVIK_Q_APP, 16); },
      [] { return zorlib_ifg_q_create(nullptr, nullptr, ZORVIK_Q_APP, 16, 0, 0); },
      [] { return zorlib_ifg_remove_q_app(nullptr, nullptr); },
      [] { return zorlib_q_app_open(nullptr, nullptr, ZORLIB_READ, nullptr); },
      [] { return zorlib_frm_free(nullptr, nullptr); },
  };
  const std::function<int()> queueCalls[] = {
      [] { return zorlib_q_read(nullptr, nullptr); },
      [] { return zorlib_q_read_timeout(nullptr, nullptr, 0); },
      [] { return zorlib_q_write(nullptr, nullptr); },
  };
  const auto refused = [](const std::function<int()>& call, const char* line) {
    clearLog();
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EBADR);
    EXPECT_THAT(logLines(), ElementsAre(error(line)));
  };
  for (const auto& call : calls) {
    SCOPED_TRACE(&call - calls);
    refused(call, "Error: zorlib_ifg_validate: Nil handle");
  }
  for (const auto& call : queueCalls) {
    SCOPED_TRACE(&call - queueCalls);
    refused(call, "Error: zorlib_q_validate: Nil handle");
  }
  clearLog();
  errno = 0;
  EXPECT_EQ(zorlib_q_get_size(nullptr, nullptr), -1);
  EXPECT_EQ(errno, EBADR);
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_THAT(requests(), IsEmpty());
}

}  // namespace
}  // namespace tarnik::test
