// Frames out of the driver's pool, many with one request: what the caller does not need at once
// waits in the handle's lists.
#include <sys/ioctl.h>

#include <algorithm>
#include <new>

#include "base/log.h"
#include "frameq/ring.h"
#include "frameq/zorlib_internal.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

FrameList& listFor(zorlib_ifg& ifg, std::uint32_t bufferSize) noexcept {
  constexpr std::uint32_t kSmall = 2048;
  constexpr std::uint32_t kMedium = 16384;
  if (bufferSize <= kSmall) {
    return ifg.cached[0];
  }
  return ifg.cached[bufferSize <= kMedium ? 1 : 2];
}

// The lists' nodes, one a descriptor; null without memory.
FrameNode* nodes(zorlib_ifg& ifg) noexcept {
  const std::lock_guard guard(ifg.mutex);
  if (!ifg.nodes) {
    ifg.nodes.reset(new (std::nothrow) FrameNode[ifg.frmDescCount]);
  }
  return ifg.nodes.get();
}

// Takes frames that wait in the list; one whose buffer is too small after all goes back to the
// driver.
std::uint32_t takeCached(zorlib_ifg& ifg, zorvik_frm_desc* descriptors, std::uint32_t size,
                         zorvik_frm_desc** frames, std::uint32_t count) noexcept {
  std::uint32_t taken = 0;
  while (taken < count) {
    const FrameNode* const node = listFor(ifg, size).pop();
    if (node == nullptr) {
      break;
    }
    zorvik_frm_desc* const frame = descriptors + (node - ifg.nodes.get());
    if (ring::load(frame->buf_size) >= size) {
      frames[taken++] = frame;
    } else {
      static_cast<void>(freeFrame(ifg, frameId(*frame)));
    }
  }
  return taken;
}

}  // namespace

extern "C" {

int zorlib_batch_alloc(zorlib_ifg* ifg, uint32_t size, zorvik_frm_desc** frames, uint32_t count) {
  if (!valid(ifg)) {
    return -1;
  }
  auto* const descriptors = static_cast<zorvik_frm_desc*>(ifg->frmDesc.base());
  if (descriptors == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  count = std::min(count, ZORVIK_FRM_ALLOC_MAX);
  FrameNode* const all = nodes(*ifg);
  if (count == 0 || all == nullptr) {
    errno = count == 0 ? EINVAL : ENOMEM;
    return -1;
  }
  std::uint32_t taken = takeCached(*ifg, descriptors, size, frames, count);
  if (taken == count) {
    return static_cast<int>(taken);
  }
  zorvik_frm_alloc request{};
  request.count = ZORVIK_FRM_ALLOC_MAX;
  request.size = size;
  if (::ioctl(ifg->frmDescFd.get(), ZORVIK_FRM_ALLOC, &request) < 0) {
    if (taken != 0) {
      return static_cast<int>(taken);
    }
    // An empty pool is daily life for a producer that is ahead of its consumer.
    TARNIK_DEBUG(0, "Debug: zorlib_batch_alloc: alloc ioctl (%s) failed - %s", ifg->name.data(),
                 errorText());
    return -1;
  }
  const std::uint32_t given = std::min(request.count, ZORVIK_FRM_ALLOC_MAX);
  for (std::uint32_t i = 0; i < given; ++i) {
    const std::uint32_t index = request.frame_ids[i] & ZORVIK_FRM_INDEX_MASK;
    if (index == 0 || index >= ifg->frmDescCount) {
      continue;
    }
    if (taken < count) {
      frames[taken++] = descriptors + index;
    } else {
      static_cast<void>(listFor(*ifg, ring::load(descriptors[index].buf_size)).push(all[index]));
    }
  }
  if (taken == 0) {
    errno = ENXIO;
    return -1;
  }
  return static_cast<int>(taken);
}

zorvik_frm_desc* zorlib_ifg_frm_alloc(zorlib_ifg* ifg, uint32_t size) {
  zorvik_frm_desc* frame = nullptr;
  return zorlib_batch_alloc(ifg, size, &frame, 1) == 1 ? frame : nullptr;
}

uint8_t* zorlib_ifg_frm_data(zorlib_ifg* ifg, zorvik_frm_desc* frame) {
  const std::uint32_t offset = ring::load(frame->data_off);
  const std::uint32_t size = ring::load(frame->buf_size);
  if (std::uint64_t{offset} + size > ifg->payloadSize) {
    return nullptr;
  }
  return static_cast<std::uint8_t*>(ifg->payload.base()) + offset;
}

}  // extern "C"
