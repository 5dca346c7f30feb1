// Allocates frames from the driver's pool, many with one request. The handle's lists keep the
// frames that the caller does not need yet.
#include <sys/ioctl.h>

#include <algorithm>
#include <new>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

// The index of the list for frames with buffers of this size.
std::size_t listFor(std::uint32_t bufferSize) noexcept {
  constexpr std::uint32_t kSmall = 2048;
  constexpr std::uint32_t kMedium = 16384;
  if (bufferSize <= kSmall) {
    return 0;
  }
  return bufferSize <= kMedium ? 1 : 2;
}

// Prepares the lists: creates their nodes, one per descriptor. False with errno when the frame
// memory is not mapped or memory is short. Locks the mutex of the mapping, so that the caller sees
// a mapping that another thread has just made.
bool prepareLists(zorlib_ifg& ifg) noexcept {
  const std::lock_guard guard(ifg.mutex);
  if (!ifg.frmDesc || !ifg.payload) {
    errno = ENOTCONN;
    return false;
  }
  if (!ifg.nodes) {
    ifg.nodes.reset(new (std::nothrow) FrameNode[ifg.frmDescCount]);
    if (!ifg.nodes) {
      errno = ENOMEM;
      return false;
    }
  }
  return true;
}

// The frames that a caller wants and those that it has so far.
struct Wanted {
  std::uint32_t size;
  zorvik_frm_desc** frames;
  std::uint32_t count;
  std::uint32_t taken = 0;

  [[nodiscard]] bool complete() const noexcept { return taken == count; }
  void take(zorvik_frm_desc* frame) noexcept { frames[taken++] = frame; }
};

// Takes frames from the list. Frees a frame whose buffer is too small: its size is in shared memory
// and may have changed.
void takeCached(zorlib_ifg& ifg, FrameList& list, Wanted& wanted) noexcept {
  auto* const descriptors = static_cast<zorvik_frm_desc*>(ifg.frmDesc.base());
  while (!wanted.complete()) {
    const FrameNode* const node = list.pop();
    if (node == nullptr) {
      break;
    }
    zorvik_frm_desc* const frame = descriptors + (node - ifg.nodes.get());
    if (ring::load(frame->buf_size) >= wanted.size) {
      wanted.take(frame);
    } else {
      static_cast<void>(freeFrame(ifg, *frame));
    }
  }
}

// Issues the allocation request and puts the frames that are not needed now into the lists. False
// with errno when the driver gives no usable frame.
bool takeFromDriver(zorlib_ifg& ifg, Wanted& wanted) noexcept {
  zorvik_frm_alloc request{};
  request.count = ZORVIK_FRM_ALLOC_MAX;
  request.size = wanted.size;
  if (::ioctl(ifg.frmDescFd.get(), ZORVIK_FRM_ALLOC, &request) < 0) {
    return false;
  }
  auto* const descriptors = static_cast<zorvik_frm_desc*>(ifg.frmDesc.base());
  const std::uint32_t granted = std::min(request.count, ZORVIK_FRM_ALLOC_MAX);
  for (std::uint32_t i = 0; i < granted; ++i) {
    const std::uint32_t index = request.frame_ids[i] & ZORVIK_FRM_INDEX_MASK;
    if (index == 0 || index >= ifg.frmDescCount) {
      continue;
    }
    if (!wanted.complete()) {
      wanted.take(descriptors + index);
    } else {
      FrameList& list = ifg.cached[listFor(ring::load(descriptors[index].buf_size))];
      static_cast<void>(list.push(ifg.nodes[index]));
    }
  }
  errno = wanted.taken == 0 ? ENXIO : errno;
  return wanted.taken != 0;
}

}  // namespace

extern "C" {

int zorlib_batch_alloc(zorlib_ifg* ifg, uint32_t size, zorvik_frm_desc** frames, uint32_t count) {
  if (!checkHandle(ifg) || !checkPointers(frames)) {
    return -1;
  }
  if (count == 0) {
    errno = EINVAL;
    return -1;
  }
  if (!prepareLists(*ifg)) {
    return -1;
  }
  Wanted wanted{size, frames, std::min(count, ZORVIK_FRM_ALLOC_MAX)};
  const std::size_t own = listFor(size);
  takeCached(*ifg, ifg->cached[own], wanted);
  if (!wanted.complete() && !takeFromDriver(*ifg, wanted)) {
    const int savedErrno = errno;
    // When small buffers are used up, small frames get larger ones, which are in the other lists.
    for (std::size_t larger = own + 1; larger < ifg->cached.size(); ++larger) {
      takeCached(*ifg, ifg->cached[larger], wanted);
    }
    if (wanted.taken == 0) {
      errno = savedErrno;
      // Not an error: a producer that is faster than its consumer empties the pool all the time.
      TARNIK_DEBUG(0, "Debug: zorlib_batch_alloc: alloc ioctl (%s) failed - %s", ifg->name.data(),
                   errorText());
      return -1;
    }
  }
  return static_cast<int>(wanted.taken);
}

zorvik_frm_desc* zorlib_ifg_frm_alloc(zorlib_ifg* ifg, uint32_t size) {
  zorvik_frm_desc* frame = nullptr;
  return zorlib_batch_alloc(ifg, size, &frame, 1) == 1 ? frame : nullptr;
}

uint8_t* zorlib_ifg_frm_data(zorlib_ifg* ifg, zorvik_frm_desc* frame) {
  if (!checkHandle(ifg) || !checkPointers(frame)) {
    return nullptr;
  }
  const std::uint32_t offset = ring::load(frame->data_off);
  const std::uint32_t size = ring::load(frame->buf_size);
  if (std::uint64_t{offset} + size > ifg->payloadSize) {
    return nullptr;
  }
  return static_cast<std::uint8_t*>(ifg->payload.base()) + offset;
}

}  // extern "C"
