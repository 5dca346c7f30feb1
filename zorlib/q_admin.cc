// Creating and removing application queues.
#include <strings.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "base/log.h"
#include "zorlib/internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

constexpr std::uint32_t kDefaultEntries = 100000;

// Returns the size of a queue that is created with size 0.
std::uint32_t defaultSize(zorlib_ifg& ifg, const char* name) noexcept {
  for (const char* queue : {name, "appq"}) {
    const unsigned long size = zorlib_ifg_lookup_qsize(&ifg, queue);
    if (size != 0) {
      return static_cast<std::uint32_t>(size);
    }
  }
  TARNIK_DEBUG(0, "Debug: zorlib_ifg_create_q_app: %s No q_size param - use def %u",
               ifg.name.data(), kDefaultEntries);
  return kDefaultEntries;
}

}  // namespace

extern "C" {

int zorlib_ifg_create_q_app(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size) {
  if (!checkHandle(ifg) || !checkPointers(name)) {
    return -1;
  }
  if (std::strlen(name) > ZORVIK_NAME_MAX) {
    TARNIK_ERROR("Error: zorlib_ifg_create_q_app: Queue name too long (max %u)", ZORVIK_NAME_MAX);
    errno = ENAMETOOLONG;
    return -1;
  }
  if (type < ZORVIK_Q_SHARED || type > ZORVIK_Q_RAW) {
    TARNIK_ERROR("Error: zorlib_ifg_create_q_app: Invalid queue type %u", type);
    errno = EINVAL;
    return -1;
  }
  if (size != 0 && (size < kMinEntries || size > kMaxEntries)) {
    TARNIK_ERROR("Error: zorlib_ifg_create_q_app: q_size (%u) out of bounds (%u <= q_size <= %u)",
                 size, kMinEntries, kMaxEntries);
    errno = EINVAL;
    return -1;
  }
  return zorlib_ifg_q_create(ifg, name, type, size != 0 ? size : defaultSize(*ifg, name), 0, 0);
}

int zorlib_ifg_q_create(zorlib_ifg* ifg, const char* name, uint32_t type, uint32_t size,
                        uint64_t reserved1, uint64_t reserved2) {
  if (!checkHandle(ifg) || !checkPointers(name)) {
    return -1;
  }
  zorvik_q_create request{};
  request.type = type;
  request.size = size;
  request.reserved[0] = reserved1;
  request.reserved[1] = reserved2;
  std::memcpy(request.name, name, strnlen(name, sizeof request.name));
  const int id = ::ioctl(ifg->ifgCtlFd.get(), ZORVIK_Q_CREATE, &request);
  if (id < 0) {
    if (errno == EEXIST) {
      TARNIK_DEBUG(0, "Debug: zorlib_ifg_q_create: Create queue (%s/%s/type %u) failed - %s",
                   ifg->name.data(), name, type, errorText());
    } else {
      TARNIK_ERROR("Error: zorlib_ifg_q_create: Create queue (%s/%s/type %u) failed - %s",
                   ifg->name.data(), name, type, errorText());
    }
    return -1;
  }
  std::array<char, 128> path;
  joinPath(path, ifg->dir.data(), name);
  if (zorlib_ifg_devnode_wait(path.data(), 1) != 0) {
    static_cast<void>(zorlib_ifg_q_remove(ifg, static_cast<std::uint32_t>(id)));
    return -1;
  }
  return 0;
}

int zorlib_ifg_remove_q_app(zorlib_ifg* ifg, const char* name) {
  if (!checkHandle(ifg) || !checkPointers(name)) {
    return -1;
  }
  zorvik_q_enum* found = nullptr;
  if (zorlib_ifg_q_enum(ifg, &found) != 0) {
    return -1;
  }
  const std::unique_ptr<zorvik_q_enum, Free> list(found);
  const std::uint32_t count = std::min(list->count, ZORVIK_ENUM_MAX);
  for (std::uint32_t i = 0; i < count; ++i) {
    const zorvik_q_record& record = list->records[i];
    std::array<char, sizeof record.name + 1> recordName{};
    std::memcpy(recordName.data(), record.name, sizeof record.name);
    if (::strcasecmp(recordName.data(), name) == 0) {
      if (zorlib_ifg_q_remove(ifg, record.id) != 0) {
        return -1;
      }
      std::array<char, 128> path;
      joinPath(path, ifg->dir.data(), recordName.data());
      // The queue is removed even if its node stays a little longer.
      static_cast<void>(zorlib_ifg_devnode_wait(path.data(), 0));
      return 0;
    }
  }
  TARNIK_DEBUG(0, "Debug: zorlib_ifg_remove_q_app: Queue not found %s", name);
  errno = ENOENT;
  return -1;
}

}  // extern "C"
