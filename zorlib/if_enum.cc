// The host's network interfaces.
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <algorithm>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

struct FreeAddresses {
  void operator()(ifaddrs* list) const noexcept {
    const int savedErrno = errno;
    ::freeifaddrs(list);
    errno = savedErrno;
  }
};

bool isLinkLayer(const ifaddrs& record) noexcept {
  return record.ifa_addr != nullptr && record.ifa_addr->sa_family == AF_PACKET;
}

void fill(zorlib_if& entry, const ifaddrs& record, unsigned index) noexcept {
  entry = zorlib_if{};
  entry.index = index;
  entry.flags = record.ifa_flags;
  std::memcpy(entry.name, record.ifa_name, strnlen(record.ifa_name, sizeof entry.name - 1));
  if (!isLinkLayer(record)) {
    return;
  }
  sockaddr_ll address;
  std::memcpy(&address, record.ifa_addr, sizeof address);
  if (address.sll_halen > sizeof entry.ha) {
    TARNIK_ERROR("Error: zorlib_if_enum: %s ha_len too large (%u vs max %zu) - truncating",
                 record.ifa_name, unsigned{address.sll_halen}, sizeof entry.ha);
  }
  entry.ha_len = std::min<std::uint32_t>(address.sll_halen, sizeof entry.ha);
  std::memcpy(entry.ha, address.sll_addr, entry.ha_len);
}

}  // namespace

extern "C" int zorlib_if_enum(zorlib_if* list, uint32_t capacity) {
  if (capacity != 0 && !checkPointers(list)) {
    return -1;
  }
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    TARNIK_ERROR("Error: zorlib_if_enum: getifaddrs failed - %s", errorText());
    return -1;
  }
  const std::unique_ptr<ifaddrs, FreeAddresses> records(first);
  std::uint32_t stored = 0;
  for (const ifaddrs* record = first; record != nullptr && stored < capacity;
       record = record->ifa_next) {
    const unsigned flags = record->ifa_flags;
    if ((flags & IFF_LOOPBACK) != 0 || (!isLinkLayer(*record) && (flags & IFF_POINTOPOINT) == 0)) {
      continue;
    }
    const unsigned index = ::if_nametoindex(record->ifa_name);
    if (index == 0) {
      TARNIK_ERROR("Error: zorlib_if_enum: if_nametoindex failed - %s", errorText());
      return -1;
    }
    const bool known = std::any_of(
        list, list + stored, [index](const zorlib_if& other) { return other.index == index; });
    if (!known) {
      fill(list[stored++], *record, index);
    }
  }
  return static_cast<int>(stored);
}
