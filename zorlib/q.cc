// Queue handles: open, close, shut down, and their properties.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <bit>
#include <new>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace tarnik::zorlib {

bool checkHandle(const zorlib_q* q) noexcept {
  if (q == nullptr) {
    TARNIK_ERROR("Error: zorlib_q_validate: Nil handle");
    errno = EBADR;
    return false;
  }
  const std::uint32_t magic = q->magic.get();
  if (magic != kQMagic) {
    TARNIK_ERROR("Error: zorlib_q_validate: Unknown magic %x", magic);
    errno = EBADR;
    return false;
  }
  return true;
}

void wake(const zorlib_q& q, zorvik_resq& side) noexcept {
  zorvik_q_wake request{};
  request.kresq_handle = ring::load(side.kresq_handle);  // the driver may change it
  // A failure has no consequence: the caller has no other way to wake the side.
  static_cast<void>(::ioctl(q.fd.get(), ZORVIK_Q_WAKE, &request));
}

}  // namespace tarnik::zorlib

namespace {

int statQueue(zorlib_q& q) noexcept {
  zorvik_q_stat stat{};
  if (::ioctl(q.fd.get(), ZORVIK_Q_STAT, &stat) < 0) {
    TARNIK_ERROR("Error: zorlib_q_stat: stat ioctl failed - %s", errorText());
    return -1;
  }
  q.memSize = stat.mem_size;
  q.id = stat.id;
  q.type = stat.type;
  q.entries = stat.entries;
  return 0;
}

// Checks the geometry of the ring, on which all later accesses to its slots rely, and stores it.
bool readGeometry(zorlib_q& q) noexcept {
  if (q.memSize < sizeof(zorvik_qmem)) {
    return false;
  }
  const std::uint32_t slots = ring::load(q.memory().max_elements);
  const std::uint32_t mask = ring::load(q.memory().mask);
  const std::size_t room = (q.memSize - sizeof(zorvik_qmem)) / sizeof(std::uint64_t);
  if (slots < 2 || !std::has_single_bit(slots) || mask != slots - 1 || slots > room) {
    return false;
  }
  q.mask = mask;
  return true;
}

int attach(zorlib_q& q) noexcept {
  q.fd.reset(::open(q.path.data(), O_RDWR | O_CLOEXEC));
  if (!q.fd) {
    TARNIK_ERROR("Error: zorlib_q_open: open(%s) failed - %s", q.path.data(), errorText());
    return -1;
  }
  if (statQueue(q) != 0) {
    return -1;
  }
  if (q.memSize == 0) {
    TARNIK_ERROR("Error: zorlib_q_open: %s/%s stat ioctl shows size 0", q.ifg->name.data(),
                 q.name.data());
    errno = ENXIO;
    return -1;
  }
  q.qmem = Mapping::shared(q.fd.get(), q.memSize);
  if (!q.qmem) {
    TARNIK_ERROR("Error: zorlib_q_open: mmap failed (%d, %u) - %s", q.fd.get(), q.memSize,
                 errorText());
    return -1;
  }
  if (!readGeometry(q)) {
    TARNIK_ERROR("Error: zorlib_q_open: %s/%s queue memory of %u bytes holds no ring",
                 q.ifg->name.data(), q.name.data(), q.memSize);
    errno = ENXIO;
    return -1;
  }
  ring::clearShutdown(q.side());
  wake(q, q.side());
  return 0;
}

}  // namespace

extern "C" {

int zorlib_q_app_open(zorlib_ifg* ifg, const char* name, uint32_t mode, zorlib_q** q) {
  if (!checkHandle(ifg)) {
    return -1;
  }
  if (mode > ZORLIB_WRITE) {
    TARNIK_ERROR("Error: zorlib_q_app_open: Invalid mode %d", static_cast<int>(mode));
    errno = EINVAL;
    return -1;
  }
  if (!checkPointers(name, q)) {
    return -1;
  }
  std::unique_ptr<zorlib_q> handle(new (std::nothrow) zorlib_q);
  if (!handle || zorlib_map_frm_data(ifg, &handle->frmDesc, &handle->frmDescSize, &handle->payload,
                                     &handle->payloadSize) != 0) {
    return -1;
  }
  handle->ifg = ifg;
  std::memcpy(handle->name.data(), name, strnlen(name, handle->name.size() - 1));
  joinPath(handle->path, ifg->dir.data(), name);
  handle->mode = mode;
  if (attach(*handle) != 0) {
    static_cast<void>(zorlib_q_close(handle.release()));
    return -1;
  }
  *q = handle.release();
  return 0;
}

int zorlib_q_close(zorlib_q* q) {
  if (!checkHandle(q)) {
    return -1;
  }
  const std::unique_ptr<zorlib_q> handle(q);
  handle->fd.reset();
  handle->qmem.reset();
  static_cast<void>(zorlib_ifg_close(handle->ifg));
  return 0;
}

int zorlib_q_shutdown(zorlib_q* q) {
  if (!checkHandle(q)) {
    return -1;
  }
  // Relaxed: the shared flag and the wake-up make a waiter look again.
  q->shutDown.store(true, std::memory_order_relaxed);
  ring::raiseShutdown(q->side());
  wake(*q, q->side());
  return 0;
}

int zorlib_q_set_timeout(zorlib_q* q, int32_t ms) {
  q->timeout = ms < 0 ? -1 : ms;
  return 0;
}

int zorlib_q_get_fd(zorlib_q* q) {
  if (q == nullptr || q->magic.get() != kQMagic) {
    errno = EBADR;
    return -1;
  }
  if (!q->fd) {
    errno = ENOTCONN;
    return -1;
  }
  return q->fd.get();
}

int zorlib_q_get_size(zorlib_q* q, uint32_t* entries) {
  if (q == nullptr || q->magic.get() != kQMagic) {
    errno = EBADR;
    return -1;
  }
  if (!checkPointers(entries)) {
    return -1;
  }
  *entries = q->entries;
  return 0;
}

uint8_t* zorlib_q_frm_data(zorlib_q* q, zorvik_frm_desc* frame) {
  const std::uint32_t offset = ring::load(frame->data_off);
  const std::uint32_t length = ring::load(frame->frame_size);
  if (std::uint64_t{offset} + length > q->payloadSize) {
    return nullptr;
  }
  return q->payload + offset;
}

uint32_t zorlib_q_room(zorlib_q* q, const uint8_t* data) {
  const auto first = reinterpret_cast<std::uintptr_t>(q->payload);
  const auto address = reinterpret_cast<std::uintptr_t>(data);
  if (address < first || address - first > q->payloadSize) {
    return 0;
  }
  return q->payloadSize - static_cast<std::uint32_t>(address - first);
}

uint32_t zorlib_q_used(zorlib_q* q) {
  zorvik_qmem& memory = q->memory();
  const std::uint32_t dequeue = ring::counter(memory.dequeue);
  return (ring::counter(memory.enqueue) - dequeue) & q->mask;
}

}  // extern "C"
