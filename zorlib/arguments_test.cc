// Arguments that no function accepts: bad handles and null pointers.
#include <cerrno>
#include <functional>
#include <vector>

#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ArgumentsTest = GroupTest;

// A look-up reports a bad handle like a missing parameter, but sets errno.
int asStatus(unsigned long found) {
  return found == 0 ? -1 : 0;
}
int asStatus(const void* found) {
  return found == nullptr ? -1 : 0;
}

TEST_F(ArgumentsTest, ABadGroupHandleIsReportedBeforeAnyOtherArgument) {
  const std::function<int(zorlib_ifg*)> calls[] = {
      zorlib_ifg_close,
      zorlib_ifg_disable,
      zorlib_ifg_enable,
      zorlib_ifg_create_frm_data,
      [](auto* ifg) { return zorlib_map_frm_data(ifg, nullptr, nullptr, nullptr, nullptr); },
      [](auto* ifg) { return zorlib_ifg_q_enum(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_q_remove(ifg, 1); },
      [](auto* ifg) { return zorlib_ifg_get_flags(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_set_flags(ifg, 1); },
      [](auto* ifg) { return zorlib_ifg_query(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_configure(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_set_qpair_cfg(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_get_qpair_cfg(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_get_stats(ifg, nullptr); },
      [](auto* ifg) { return zorlib_ifg_create_q_app(ifg, nullptr, 9, 1); },
      [](auto* ifg) { return zorlib_ifg_q_create(ifg, nullptr, ZORVIK_Q_APP, 16, 0, 0); },
      [](auto* ifg) { return zorlib_ifg_remove_q_app(ifg, nullptr); },
      [](auto* ifg) { return zorlib_q_app_open(ifg, nullptr, 7, nullptr); },
      [](auto* ifg) { return zorlib_frm_free(ifg, nullptr); },
      [](auto* ifg) { return zorlib_batch_alloc(ifg, 1, nullptr, 1); },
      [](auto* ifg) { return asStatus(zorlib_ifg_frm_alloc(ifg, 1)); },
      [](auto* ifg) { return asStatus(zorlib_ifg_frm_data(ifg, nullptr)); },
      [](auto* ifg) { return asStatus(zorlib_ifg_lookup_qsize(ifg, "q")); },
      [](auto* ifg) { return asStatus(zorlib_ifg_lookup_qsize(ifg, nullptr)); },
      [](auto* ifg) { return asStatus(zorlib_ifg_lookup_if_mask(ifg, 0)); },
      [](auto* ifg) { return asStatus(zorlib_ifg_lookup_cpu_mask(ifg, 0)); },
  };
  zorlib_ifg closed;
  closed.magic = 0xdeadd00d;
  for (const auto& call : calls) {
    SCOPED_TRACE(&call - calls);
    expectFailure([&] { return call(nullptr); }, EBADR, {"Error: zorlib_ifg_validate: Nil handle"});
    expectFailure([&] { return call(&closed); }, EBADR,
                  {"Error: zorlib_ifg_validate: Unknown magic deadd00d"});
  }
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(ArgumentsTest, ANullQueueIsReportedBeforeAnyOtherArgument) {
  const std::function<int()> calls[] = {
      [] { return zorlib_q_read(nullptr, nullptr); },
      [] { return zorlib_q_read_timeout(nullptr, nullptr, 0); },
      [] { return zorlib_q_write(nullptr, nullptr); },
  };
  for (const auto& call : calls) {
    expectFailure(call, EBADR, {"Error: zorlib_q_validate: Nil handle"});
  }
  expectFailure([] { return zorlib_q_get_size(nullptr, nullptr); }, EBADR);
}

TEST_F(ArgumentsTest, NullPointersAreRefusedWithoutALogLine) {
  zorvik_frm_desc* descriptors = nullptr;
  std::uint32_t size = 0;
  std::uint8_t* payload = nullptr;
  const zorvik_ifg_config config = description(2);
  createQueue(ifg_);
  createQueue(ifg_, ZORVIK_Q_EGRESS, 16, "egress");
  zorlib_q* const reader = openQueue(ifg_, ZORLIB_READ);
  zorlib_q* const writer = openQueue(ifg_, ZORLIB_WRITE, "egress");
  zorlib_q* q = nullptr;
  zorlib_ifg* ifg = nullptr;
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
      [&] { return zorlib_ifg_create("mine", nullptr, &ifg); },
      [&] { return zorlib_ifg_create("mine", &config, nullptr); },
      [&] { return zorlib_ifg_configure(ifg_, nullptr); },
      [&] { return zorlib_ifg_set_qpair_cfg(ifg_, nullptr); },
      [&] { return zorlib_ifg_get_qpair_cfg(ifg_, nullptr); },
      [&] { return zorlib_ifg_get_stats(ifg_, nullptr); },
      [] { return zorlib_ifg_enum(nullptr); },
      [&] { return zorlib_batch_alloc(ifg_, 1, nullptr, 1); },
      [&] { return asStatus(zorlib_ifg_frm_data(ifg_, nullptr)); },
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
    SCOPED_TRACE(&call - calls);
    expectFailure(call, EINVAL);
  }
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_EQ(q, nullptr);
  EXPECT_EQ(ifg, nullptr);
  EXPECT_EQ(zorlib_q_close(reader), 0);
  EXPECT_EQ(zorlib_q_close(writer), 0);
}

TEST_F(ArgumentsTest, LoggedErrorsComeBeforeNullPointers) {
  createQueue(ifg_);
  zorlib_q* const q = openQueue(ifg_, ZORLIB_WRITE);
  expectFailure([&] { return zorlib_q_free(q, nullptr); }, ENXIO,
                {"Error: zorlib_q_free must be done to an egress queue!"});
  expectFailure([&] { return zorlib_q_app_open(ifg_, nullptr, 2, nullptr); }, EINVAL,
                {"Error: zorlib_q_app_open: Invalid mode 2"});
  clearLog();
  EXPECT_EQ(zorlib_register_params(1, nullptr), 0);
  EXPECT_EQ(logLines(), lines({"Error: zorlib_register_params: Too many param specs!"}));
  EXPECT_EQ(zorlib_q_close(q), 0);
}

}  // namespace
}  // namespace tarnik::test
