// The queues, flags and interfaces of an open group.
#include <sys/ioctl.h>

#include <algorithm>
#include <iterator>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

constexpr std::uint64_t kFlagEnabled = 1;

// The log line of a failed enumeration has always had this size, which is not the buffer's.
constexpr std::size_t kLoggedEnumSize = 292;

enum class Change { kClear, kSet };

// Reads the flags and writes them back with `bits` changed.
int changeFlags(zorlib_ifg* ifg, std::uint64_t bits, Change change) noexcept {
  std::uint64_t flags = 0;
  if (zorlib_ifg_get_flags(ifg, &flags) < 0) {
    return -1;
  }
  return zorlib_ifg_set_flags(ifg, change == Change::kSet ? flags | bits : flags & ~bits);
}

// Issues the query request for the interfaces. Returns its result: a cookie, 0 for a group without
// interfaces, negative on failure.
int queryInterfaces(const zorlib_ifg& ifg, zorlib_ifg_info& info) noexcept {
  info = zorlib_ifg_info{};
  zorvik_ifg_query request{};
  request.flags = reinterpret_cast<std::uintptr_t>(info.ifs);
  request.count = ZORVIK_IF_MAX;
  const int cookie = ::ioctl(ifg.ifgCtlFd.get(), ZORVIK_IFG_QUERY, &request);
  info.num_ifs = request.count;
  return cookie;
}

}  // namespace

namespace tarnik::zorlib {

void refreshInterfaces(zorlib_ifg& ifg) noexcept {
  const int savedErrno = errno;
  zorlib_ifg_info info;
  if (const int cookie = queryInterfaces(ifg, info); cookie >= 0) {
    ifg.numIfs = cookie == 0 ? 0 : std::min(info.num_ifs, ZORVIK_IF_MAX);
  }
  errno = savedErrno;
}

}  // namespace tarnik::zorlib

extern "C" {

int zorlib_ifg_q_enum(zorlib_ifg* ifg, zorvik_q_enum** list) {
  if (!checkHandle(ifg) || !checkPointers(list)) {
    return -1;
  }
  std::unique_ptr<zorvik_q_enum, Free> buffer(
      static_cast<zorvik_q_enum*>(std::calloc(1, sizeof(zorvik_q_enum))));
  if (!buffer) {
    TARNIK_ERROR("Error: zorlib_ifg_q_enum: malloc(%zu) failed - %s", kLoggedEnumSize, errorText());
    return -1;
  }
  buffer->count = ZORVIK_ENUM_MAX;
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_Q_ENUM, buffer.get()) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_q_enum: q enum ioctl failed - %s", errorText());
    return -1;
  }
  *list = buffer.release();
  return 0;
}

int zorlib_ifg_q_remove(zorlib_ifg* ifg, uint32_t id) {
  if (!checkHandle(ifg)) {
    return -1;
  }
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_Q_REMOVE, &id) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_q_remove: Delete queue (%s) %u failed - %s", ifg->name.data(),
                 id, errorText());
    return -1;
  }
  return 0;
}

int zorlib_ifg_get_flags(zorlib_ifg* ifg, uint64_t* flags) {
  if (!checkHandle(ifg) || !checkPointers(flags)) {
    return -1;
  }
  zorvik_ifg_query request{};
  const int result = ::ioctl(ifg->ifgCtlFd.get(), ZORVIK_IFG_QUERY, &request);
  if (result < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_get_flags: query ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
    return result;
  }
  *flags = request.flags;
  return 0;
}

int zorlib_ifg_set_flags(zorlib_ifg* ifg, uint64_t flags) {
  if (!checkHandle(ifg)) {
    return -1;
  }
  if (::ioctl(ifg->ifgCtlFd.get(), ZORVIK_IFG_SET_FLAGS, flags) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_set_flags: set_flags ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
  }
  return 0;  // a refusal is only logged
}

int zorlib_ifg_disable(zorlib_ifg* ifg) {
  return changeFlags(ifg, kFlagEnabled, Change::kClear);
}

int zorlib_ifg_enable(zorlib_ifg* ifg) {
  return changeFlags(ifg, kFlagEnabled, Change::kSet);
}

int zorlib_ifg_query(zorlib_ifg* ifg, zorlib_ifg_info* info) {
  if (!checkHandle(ifg) || !checkPointers(info)) {
    return -1;
  }
  zorlib_ifg_info found;
  const int cookie = queryInterfaces(*ifg, found);
  if (cookie < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_query: query ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
    return -1;
  }
  if (cookie == 0 && found.num_ifs != 0) {
    TARNIK_ERROR("Error: zorlib_ifg_query: Rtnd cookie 0 but count != 0 (%u)", found.num_ifs);
    found.num_ifs = 0;
  }
  found.num_ifs = std::min(found.num_ifs, ZORVIK_IF_MAX);
  std::fill(found.ifs + found.num_ifs, std::end(found.ifs), zorvik_if_record{});
  *info = found;
  ifg->numIfs = found.num_ifs;
  return 0;
}

}  // extern "C"
