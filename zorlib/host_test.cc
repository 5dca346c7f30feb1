// The driver's log mask and the host's interfaces.
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <string>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/testing/driver.h"

namespace tarnik::test {

// What getifaddrs gives.
struct HostRecord {
  const char* name;
  unsigned flags;
  int family;  // 0: a record without an address
  unsigned char halen;
};
std::vector<HostRecord> hostRecords;
int getifaddrsErrno = 0;
std::map<std::string, unsigned> hostIndexes;
int listsAlive = 0;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using LoggingTest = DriverTest;

TEST_F(LoggingTest, ReadsAndChangesTheMask) {
  std::uint64_t mask = 1;
  EXPECT_EQ(zorlib_set_logging_mask(0xf0000000000000f0), 0);
  EXPECT_EQ(zorlib_get_logging_mask(&mask), 0);
  EXPECT_EQ(mask, 0xf0000000000000f0u);
  EXPECT_EQ(zorlib_add_logging(0x0f), 0);
  EXPECT_EQ(zorlib_get_logging_mask(&mask), 0);
  EXPECT_EQ(mask, 0xf0000000000000ffu);
  EXPECT_EQ(zorlib_del_logging(0xf000000000000001), 0);
  EXPECT_EQ(zorlib_get_logging_mask(&mask), 0);
  EXPECT_EQ(mask, 0xfeu);
  clearRequests();
  EXPECT_EQ(zorlib_add_logging(0), 0);
  EXPECT_EQ(zorlib_del_logging(0), 0);
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_EQ(zorlib_get_logging_mask(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(requests(), IsEmpty());
  EXPECT_THAT(logLines(), IsEmpty());
}

// Every function opens the node anew, when it is there, for itself and not for its children.
TEST_F(LoggingTest, OpensTheControlNodeForOneCall) {
  const auto openFiles = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = openFiles();
  std::vector<std::string> seen;
  const auto look = [&](int fd, void*) -> std::optional<int> {
    seen.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(openFiles(), before + 1);
    return std::nullopt;
  };
  answer(ZORVIK_GET_LOG_MASK, look);
  answer(ZORVIK_SET_LOG_MASK, look);
  std::uint64_t mask = 0;
  const std::pair<std::function<int()>, std::size_t> functions[] = {
      {[&] { return zorlib_get_logging_mask(&mask); }, 1},
      {[] { return zorlib_set_logging_mask(3); }, 1},
      {[] { return zorlib_add_logging(1); }, 2},
      {[] { return zorlib_del_logging(1); }, 2},
  };
  for (const auto& [function, requestsMade] : functions) {
    seen.clear();
    systemCalls.looks = 0;
    systemCalls.appearsAt = 3;
    systemCalls.vanishesAt = 0;
    systemCalls.fakeNode = true;
    EXPECT_EQ(function(), 0);
    systemCalls.fakeNode = false;
    EXPECT_EQ(systemCalls.looks, 3);
    EXPECT_EQ(seen, std::vector<std::string>(requestsMade, "/dev/zorvik/ctl"));
    EXPECT_EQ(openFiles(), before);
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(LoggingTest, AsksWhatIsThereThoughTheWaitSawNothing) {
  std::uint64_t mask = 0;
  const std::function<int()> functions[] = {
      [] { return zorlib_set_logging_mask(0xf0); },
      [] { return zorlib_add_logging(0x0f); },
      [] { return zorlib_del_logging(0x81); },
      [&] { return zorlib_get_logging_mask(&mask); },
  };
  for (const auto& function : functions) {
    clearLog();
    systemCalls.looks = 0;
    systemCalls.appearsAt = systemCalls.vanishesAt = 0;
    systemCalls.fakeNode = true;
    EXPECT_EQ(function(), 0);
    systemCalls.fakeNode = false;
    EXPECT_EQ(systemCalls.looks, 1501);
    EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_ifg_devnode_wait: Timeout waiting for "
                                              "devnode /dev/zorvik/ctl to appear")));
  }
  EXPECT_EQ(mask, 0x7eu);
}

TEST_F(LoggingTest, WithoutBitsNothingIsOpened) {
  systemCalls.looks = 0;
  EXPECT_EQ(zorlib_add_logging(0), 0);
  EXPECT_EQ(zorlib_del_logging(0), 0);
  EXPECT_EQ(zorlib_get_logging_mask(nullptr), -1);
  EXPECT_EQ(systemCalls.looks, 0);
}

TEST_F(LoggingTest, AMaskThatCannotBeReadIsNotWritten) {
  refuse(ZORVIK_GET_LOG_MASK, EIO);
  EXPECT_EQ(zorlib_add_logging(1), -1);
  EXPECT_EQ(zorlib_del_logging(1), -1);
  EXPECT_THAT(requests(), ElementsAre(ZORVIK_GET_LOG_MASK, ZORVIK_GET_LOG_MASK));
}

TEST_F(LoggingTest, SaysInWhichStepItFailed) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  std::uint64_t mask = 0;
  const std::pair<std::string, std::function<int()>> functions[] = {
      {"zorlib_get_logging_mask", [&] { return zorlib_get_logging_mask(&mask); }},
      {"zorlib_set_logging_mask", [] { return zorlib_set_logging_mask(1); }},
      {"zorlib_add_logging", [] { return zorlib_add_logging(1); }},
      {"zorlib_del_logging", [] { return zorlib_del_logging(1); }},
  };
  for (const auto& [name, function] : functions) {
    const auto fails = [&, &called = name, &call = function](const std::string& message) {
      clearLog();
      errno = 0;
      EXPECT_EQ(call(), -1);
      EXPECT_EQ(errno, EIO);
      EXPECT_THAT(logLines(), ElementsAre(error("Error: " + called + ": " + message)));
      EXPECT_EQ(descriptors(), before);
    };
    if (name != "zorlib_set_logging_mask") {
      refuse(ZORVIK_GET_LOG_MASK, EIO);
      fails("get logging mask ioctl(2) failed - Input/output error");
      answerNothing();
    }
    if (name != "zorlib_get_logging_mask") {
      refuse(ZORVIK_SET_LOG_MASK, EIO);
      fails("set logging mask ioctl(2) failed - Input/output error");
      answerNothing();
    }
    std::filesystem::rename("/dev/zorvik/ctl", "/dev/zorvik/hidden");
    systemCalls.looks = 0;
    systemCalls.appearsAt = systemCalls.vanishesAt = 0;
    systemCalls.fakeNode = true;
    clearLog();
    EXPECT_EQ(function(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(systemCalls.looks, 1501);
    ASSERT_EQ(logLines().size(), 2u);
    EXPECT_EQ(logLines()[1],
              error("Error: " + name + ": Cannot open zorvik ctl - No such file or directory"));
    systemCalls.fakeNode = false;
    std::filesystem::rename("/dev/zorvik/hidden", "/dev/zorvik/ctl");
  }
}

// ---- The host's interfaces

class IfEnumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clearLog();
    getifaddrsErrno = 0;
    hostIndexes = {{"lo", 1}, {"eth0", 2}, {"eth1", 3}, {"ib0", 4}, {"tun0", 5}};
  }
  void TearDown() override { EXPECT_EQ(listsAlive, 0); }
  zorlib_if list_[8]{};
};

TEST_F(IfEnumTest, ListsEachInterfaceOnce) {
  hostRecords = {{"lo", IFF_LOOPBACK, AF_PACKET, 6},
                 {"eth0", IFF_UP, AF_PACKET, 6},
                 {"eth1", 0, 0, 0},
                 {"eth1", 0, AF_PACKET, 6},
                 {"tun0", IFF_POINTOPOINT, 0, 0},
                 {"lo", IFF_LOOPBACK, AF_INET, 0},
                 {"eth0", IFF_UP, AF_INET, 0},
                 {"tun0", IFF_POINTOPOINT, AF_INET, 0}};
  ASSERT_EQ(zorlib_if_enum(list_, 8), 3);
  EXPECT_STREQ(list_[0].name, "eth0");
  EXPECT_EQ(list_[0].index, 2u);
  EXPECT_EQ(list_[0].flags, unsigned{IFF_UP});
  EXPECT_EQ(list_[0].ha_len, 6u);
  EXPECT_EQ(list_[0].ha[5], 6);
  EXPECT_EQ(list_[0].ha[6], 0);
  EXPECT_STREQ(list_[1].name, "eth1");
  EXPECT_STREQ(list_[2].name, "tun0");
  EXPECT_EQ(list_[2].ha_len, 0u);
  EXPECT_THAT(logLines(), IsEmpty());
  list_[2].index = 77;
  EXPECT_EQ(zorlib_if_enum(list_, 2), 2);
  EXPECT_EQ(list_[2].index, 77u);
  EXPECT_EQ(zorlib_if_enum(list_, 0), 0);
  EXPECT_EQ(zorlib_if_enum(nullptr, 0), 0);
}

TEST_F(IfEnumTest, NamesOfOneIndexAreOneInterface) {
  hostIndexes["eth0:1"] = 2;
  hostRecords = {{"eth0", 0, AF_PACKET, 6}, {"eth0:1", IFF_POINTOPOINT, AF_PACKET, 4}};
  ASSERT_EQ(zorlib_if_enum(list_, 8), 1);
  EXPECT_STREQ(list_[0].name, "eth0");
  EXPECT_EQ(list_[0].ha_len, 6u);
}

TEST_F(IfEnumTest, ALoopbackIsSkippedWhateverElseItIs) {
  hostRecords = {{"lo", IFF_LOOPBACK | IFF_POINTOPOINT, AF_PACKET, 6},
                 {"lo", IFF_LOOPBACK | IFF_POINTOPOINT, AF_INET6, 0},
                 {"tun0", IFF_POINTOPOINT, AF_INET6, 0}};
  ASSERT_EQ(zorlib_if_enum(list_, 8), 1);
  EXPECT_STREQ(list_[0].name, "tun0");
}

TEST_F(IfEnumTest, ALongAddressIsCut) {
  hostRecords = {{"ib0", 0, AF_PACKET, 20}, {"eth0", 0, AF_PACKET, 8}};
  ASSERT_EQ(zorlib_if_enum(list_, 8), 2);
  EXPECT_STREQ(list_[0].name, "ib0");
  EXPECT_EQ(list_[0].ha_len, 8u);
  EXPECT_THAT(list_[0].ha, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
  EXPECT_EQ(list_[1].ha_len, 8u);
  EXPECT_THAT(logLines(), ElementsAre(error("Error: zorlib_if_enum: ib0 ha_len too large (20 vs "
                                            "max 8) - truncating")));
}

TEST_F(IfEnumTest, SaysWhyItFailed) {
  hostRecords = {{"gone", 0, AF_PACKET, 6}};
  EXPECT_EQ(zorlib_if_enum(list_, 8), -1);
  EXPECT_EQ(errno, ENODEV);
  getifaddrsErrno = EMFILE;
  EXPECT_EQ(zorlib_if_enum(list_, 8), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_THAT(logLines(),
              ElementsAre(error("Error: zorlib_if_enum: if_nametoindex failed - No such device"),
                          error("Error: zorlib_if_enum: getifaddrs failed - Too many open files")));
}

}  // namespace
}  // namespace tarnik::test

// The host, as the tests have it.
extern "C" {

int getifaddrs(ifaddrs** list) noexcept {
  using tarnik::test::hostRecords;
  if (tarnik::test::getifaddrsErrno != 0) {
    errno = tarnik::test::getifaddrsErrno;
    return -1;
  }
  // An address may be longer than the structure that describes it.
  struct Address {
    sockaddr_ll link;
    unsigned char more[16];
  };
  static std::deque<ifaddrs> records;
  static std::deque<Address> addresses;
  records.clear();
  addresses.clear();
  for (const auto& each : hostRecords) {
    Address& address = addresses.emplace_back();
    address.link.sll_family = static_cast<unsigned short>(each.family);
    address.link.sll_halen = each.halen;
    for (unsigned char i = 0; i < 8 && i < each.halen; ++i) {
      address.link.sll_addr[i] = static_cast<unsigned char>(i + 1);
    }
    ifaddrs& record = records.emplace_back();
    record.ifa_name = const_cast<char*>(each.name);
    record.ifa_flags = each.flags;
    record.ifa_addr = each.family != 0 ? reinterpret_cast<sockaddr*>(&address.link) : nullptr;
    if (records.size() > 1) {
      records[records.size() - 2].ifa_next = &record;
    }
  }
  ++tarnik::test::listsAlive;
  *list = &records.front();
  return 0;
}

void freeifaddrs(ifaddrs*) noexcept {
  --tarnik::test::listsAlive;
  errno = EBADF;  // which the caller does not want to see
}

unsigned if_nametoindex(const char* name) noexcept {
  const auto found = tarnik::test::hostIndexes.find(name);
  errno = found == tarnik::test::hostIndexes.end() ? ENODEV : errno;
  return found == tarnik::test::hostIndexes.end() ? 0 : found->second;
}
}
