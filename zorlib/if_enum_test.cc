// The host's network interfaces.
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <deque>
#include <map>
#include <string>

#include "zorlib/testing/driver.h"

namespace tarnik::test {

// What getifaddrs returns, below.
struct HostRecord {
  const char* name;
  unsigned flags;
  int family;  // 0: a record without an address
  unsigned char halen;
};
std::vector<HostRecord> hostRecords;
int getifaddrsErrno = 0;
const std::map<std::string, unsigned> kHostIndexes = {{"lo", 1},   {"eth0", 2}, {"eth0:1", 2},
                                                      {"eth1", 3}, {"ib0", 4},  {"tun0", 5}};
int listsAlive = 0;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IfEnumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clearLog();
    getifaddrsErrno = 0;
  }
  void TearDown() override { EXPECT_EQ(listsAlive, 0); }
  // "name/bytes of its address" of each interface listed.
  std::vector<std::string> listed(std::uint32_t capacity = 8) {
    std::vector<std::string> result;
    const int count = zorlib_if_enum(list_, capacity);
    for (int i = 0; i < count; ++i) {
      result.push_back(text("%s/%u", list_[i].name, list_[i].ha_len));
    }
    return result;
  }

  zorlib_if list_[8]{};
};

TEST_F(IfEnumTest, ListsEachInterfaceOnce) {
  hostRecords = {{"lo", IFF_LOOPBACK, AF_PACKET, 6},
                 {"lo", IFF_LOOPBACK | IFF_POINTOPOINT, AF_INET6, 0},
                 {"lo", IFF_LOOPBACK | IFF_POINTOPOINT, AF_PACKET, 6},
                 {"eth0", IFF_UP, AF_PACKET, 6},
                 {"eth0:1", IFF_POINTOPOINT, AF_PACKET, 4},  // the index of eth0
                 {"eth1", 0, 0, 0},
                 {"eth1", 0, AF_PACKET, 6},
                 {"tun0", IFF_POINTOPOINT, 0, 0},
                 {"eth0", IFF_UP, AF_INET, 0},
                 {"tun0", IFF_POINTOPOINT, AF_INET, 0}};
  EXPECT_THAT(listed(), ElementsAre("eth0/6", "eth1/6", "tun0/0"));
  EXPECT_EQ(list_[0].index, 2u);
  EXPECT_EQ(list_[0].flags, unsigned{IFF_UP});
  EXPECT_EQ(list_[0].ha[5], 6);
  EXPECT_EQ(list_[0].ha[6], 0);
  EXPECT_THAT(logLines(), IsEmpty());
  hostRecords = {{"tun0", IFF_POINTOPOINT, AF_INET6, 0}};
  EXPECT_THAT(listed(), ElementsAre("tun0/0"));
}

TEST_F(IfEnumTest, StoresAtMostTheCapacity) {
  hostRecords = {{"eth0", 0, AF_PACKET, 6}, {"eth1", 0, AF_PACKET, 6}, {"ib0", 0, AF_PACKET, 6}};
  list_[2].index = 77;
  EXPECT_THAT(listed(2), ElementsAre("eth0/6", "eth1/6"));
  EXPECT_EQ(list_[2].index, 77u);
  EXPECT_EQ(zorlib_if_enum(list_, 0), 0);
  EXPECT_EQ(zorlib_if_enum(nullptr, 0), 0);
}

TEST_F(IfEnumTest, TruncatesALongAddress) {
  hostRecords = {{"ib0", 0, AF_PACKET, 20}, {"eth0", 0, AF_PACKET, 8}};
  EXPECT_THAT(listed(), ElementsAre("ib0/8", "eth0/8"));
  EXPECT_THAT(list_[0].ha, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
  EXPECT_EQ(logLines(),
            lines({"Error: zorlib_if_enum: ib0 ha_len too large (20 vs max 8) - truncating"}));
}

TEST_F(IfEnumTest, LogsWhyItFailed) {
  const auto enumerate = [&] { return zorlib_if_enum(list_, 8); };
  hostRecords = {{"gone", 0, AF_PACKET, 6}};
  expectFailure(enumerate, ENODEV,
                {"Error: zorlib_if_enum: if_nametoindex failed - No such device"});
  getifaddrsErrno = EMFILE;
  expectFailure(enumerate, EMFILE,
                {"Error: zorlib_if_enum: getifaddrs failed - Too many open files"});
}

}  // namespace
}  // namespace tarnik::test

extern "C" {

int getifaddrs(ifaddrs** list) noexcept {
  using tarnik::test::hostRecords;
  if (tarnik::test::getifaddrsErrno != 0) {
    errno = tarnik::test::getifaddrsErrno;
    return -1;
  }
  // An address may be longer than its structure.
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
  errno = EBADF;  // the caller must not see it
}

unsigned if_nametoindex(const char* name) noexcept {
  const auto found = tarnik::test::kHostIndexes.find(name);
  if (found == tarnik::test::kHostIndexes.end()) {
    errno = ENODEV;
    return 0;
  }
  return found->second;
}
}
