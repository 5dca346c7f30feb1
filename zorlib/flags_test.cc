// A group's flags and its interfaces, as the driver tells them.
#include <cerrno>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/group.h"

namespace tarnik::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using FlagsTest = GroupTest;

TEST_F(FlagsTest, ReadsAndSetsTheFlags) {
  std::uint64_t flags = 1;
  EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), 0);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(zorlib_ifg_set_flags(ifg_, 0xf000000000000002), 0);
  EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), 0);
  EXPECT_EQ(flags, 0xf000000000000002u);
  EXPECT_EQ(zorlib_ifg_enable(ifg_), 0);
  EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), 0);
  EXPECT_EQ(flags, 0xf000000000000003u);
  EXPECT_EQ(zorlib_ifg_disable(ifg_), 0);
  EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), 0);
  EXPECT_EQ(flags, 0xf000000000000002u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(FlagsTest, ARefusalToSetFlagsIsForTheLogOnly) {
  refuse(ZORVIK_IFG_SET_FLAGS, EPERM);
  EXPECT_EQ(zorlib_ifg_set_flags(ifg_, 1), 0);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_set_flags: set_flags ioctl (brund) "
                                            "failed - Operation not permitted")));
}

TEST_F(FlagsTest, FlagsThatCannotBeReadAreNotWritten) {
  refuse(ZORVIK_IFG_QUERY, EIO);
  const LogLine line = error(
      "Error: zorlib_ifg_get_flags: query ioctl (brund) failed - "
      "Input/output error");
  std::uint64_t flags = 0;
  EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(zorlib_ifg_enable(ifg_), -1);
  EXPECT_EQ(zorlib_ifg_disable(ifg_), -1);
  EXPECT_THAT(logLines(), ElementsAre(line, line, line));
  EXPECT_EQ(count(ZORVIK_IFG_SET_FLAGS), 0);
}

TEST_F(FlagsTest, ANegativeResultIsHandedOnByReadingOnly) {
  for (const int result : {-1, -4, -1000}) {
    answerAsIs(ZORVIK_IFG_QUERY, result, EIO);
    std::uint64_t flags = 77;
    EXPECT_EQ(zorlib_ifg_get_flags(ifg_, &flags), result);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(flags, 77u);
    EXPECT_EQ(zorlib_ifg_enable(ifg_), -1);
    EXPECT_EQ(zorlib_ifg_disable(ifg_), -1);
    zorlib_ifg_info info;
    info.num_ifs = 77;
    errno = 0;
    EXPECT_EQ(zorlib_ifg_query(ifg_, &info), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(info.num_ifs, 77u);
  }
  EXPECT_EQ(count(ZORVIK_IFG_SET_FLAGS), 0);
}

TEST_F(FlagsTest, QueriesTheInterfaces) {
  answer(ZORVIK_IFG_QUERY, [](int, void* argument) {
    auto& query = *static_cast<zorvik_ifg_query*>(argument);
    EXPECT_EQ(query.count, 32u);
    auto* const records = reinterpret_cast<zorvik_if_record*>(query.flags);
    records[0].kern_if = 3;
    records[1].kern_if = 4;
    query.count = 2;
    return 1;
  });
  zorlib_ifg_info info;
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 2u);
  EXPECT_EQ(info.ifs[0].kern_if, 3u);
  EXPECT_EQ(info.ifs[1].kern_if, 4u);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(FlagsTest, InterfacesWithoutACookieAreNone) {
  zorlib_ifg_info info;
  answer(ZORVIK_IFG_QUERY, [](int, void* argument) {
    static_cast<zorvik_ifg_query*>(argument)->count = 2;
    return 0;
  });
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), 0);
  EXPECT_EQ(info.num_ifs, 0u);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_ifg_query: Rtnd cookie 0 but count != 0 (2)")));
  clearLog();
  refuse(ZORVIK_IFG_QUERY, EIO);
  EXPECT_EQ(zorlib_ifg_query(ifg_, &info), -1);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_query: query ioctl (brund) failed - "
                                            "Input/output error")));
}

}  // namespace
}  // namespace tarnik::test
