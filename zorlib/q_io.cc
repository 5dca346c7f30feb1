// Moves frames through the ring: read, write, free.
#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/q_wait.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

enum class Look { kDone, kNothing, kShutDown, kDamaged };

// Whether both counters name a slot of the ring. They come from shared memory.
bool areInside(std::uint32_t dequeue, std::uint32_t enqueue, std::uint32_t mask) noexcept {
  return dequeue <= mask && enqueue <= mask;
}

// Takes the identifier of the next frame out of the ring. Reads the dequeue counter before the
// enqueue counter. In the opposite order, a consumer that others overtake between the two reads
// would mistake an empty ring for one with frames.
Look take(zorlib_q& q, std::uint32_t& id) noexcept {
  zorvik_qmem& memory = q.memory();
  for (Spin spin;;) {
    const std::uint32_t dequeue = ring::counter(memory.dequeue);
    const std::uint32_t enqueue = ring::counter(memory.enqueue);
    if (!areInside(dequeue, enqueue, q.mask)) {
      return Look::kDamaged;
    }
    if (dequeue == enqueue) {
      return Look::kNothing;
    }
    std::uint64_t& slot = q.slot(dequeue);
    const std::uint64_t entry = ring::entry(slot);
    if (entry != 0 && ring::advance(memory.dequeue, dequeue, q.mask)) {
      ring::empty(slot);
      id = static_cast<std::uint32_t>(entry);
      return Look::kDone;
    }
    if (isShutDown(q, memory.cresq)) {
      return Look::kShutDown;
    }
    if (entry == 0) {
      spin.pause();  // claimed by a producer that has not stored the identifier yet
    }
  }
}

// Puts an identifier into the ring. Reads the enqueue counter before the dequeue counter: the ring
// may then look fuller than it is, never emptier.
Look put(zorlib_q& q, std::uint32_t id) noexcept {
  zorvik_qmem& memory = q.memory();
  for (Spin spin;;) {
    const std::uint32_t enqueue = ring::counter(memory.enqueue);
    const std::uint32_t dequeue = ring::counter(memory.dequeue);
    if (!areInside(dequeue, enqueue, q.mask)) {
      return Look::kDamaged;
    }
    if (ring::isFull(enqueue, dequeue, q.mask)) {
      return Look::kNothing;
    }
    std::uint64_t& slot = q.slot(enqueue);
    const bool isEmpty = ring::entry(slot) == 0;
    if (isEmpty && ring::advance(memory.enqueue, enqueue, q.mask)) {
      ring::fill(slot, id);
      return Look::kDone;
    }
    if (isShutDown(q, memory.presq)) {
      return Look::kShutDown;
    }
    if (!isEmpty) {
      spin.pause();  // claimed by a consumer that has not emptied it yet
    }
  }
}

// The descriptor that an identifier from the ring names, or null.
zorvik_frm_desc* findFrame(const zorlib_q& q, std::uint32_t id) noexcept {
  const std::uint32_t index = id & ZORVIK_FRM_INDEX_MASK;
  // The first bound is in bytes, like the driver's own check. The second keeps the record inside
  // the mapping.
  if (index == 0 || index >= q.frmDescSize || index >= q.frmDescSize / sizeof(zorvik_frm_desc)) {
    return nullptr;
  }
  zorvik_frm_desc* const frame = q.frmDesc + index;
  if ((ring::load(frame->flags) & ZORVIK_FRM_VALID) == 0 ||
      ring::load(frame->generation) != id >> ZORVIK_FRM_GENERATION_SHIFT) {
    return nullptr;
  }
  return frame;
}

// Does what reads from this type of queue do to the frame.
int receive(const zorlib_q& q, zorvik_frm_desc& frame, std::uint32_t id) noexcept {
  if (q.type == ZORVIK_Q_INGRESS) {
    const std::uint32_t offset = ring::load(frame.data_off);
    if (offset > q.payloadSize) {
      TARNIK_ERROR("Error: zorlib_q_read: Can't set tr_frame data pointer (fp %p ID %x)!",
                   static_cast<void*>(&frame), id);
      return fail(ENXIO);
    }
    ring::store(frame.data, std::uint64_t{reinterpret_cast<std::uintptr_t>(q.payload + offset)});
    ring::store(frame.ref_cnt, std::uint8_t{1});
  } else if (q.type == ZORVIK_Q_SHARED) {
    ring::increment(frame.ref_cnt);
  }
  return 0;
}

// Checks the arguments of a read. Sets *frame to null: it stays null unless the read succeeds.
bool checkRead(const zorlib_q* q, zorvik_frm_desc** frame) noexcept {
  if (frame != nullptr) {
    *frame = nullptr;
  }
  return checkHandle(q) && checkPointers(frame);
}

// One read or write. Calls `look` until it has moved a frame, and sleeps on the wait record of its
// own side in between. After moving a frame it wakes the other side.
template <class LookAtRing>
int transfer(zorlib_q& q, zorvik_resq& own, zorvik_resq& peer, std::uint32_t ms,
             LookAtRing look) noexcept {
  for (Budget budget(ms);;) {
    if (isShutDown(q, own)) {
      return fail(ESHUTDOWN);
    }
    switch (look()) {
      case Look::kDone:
        if (ring::postWakeup(peer)) {
          wake(q, peer);
        }
        return 0;
      case Look::kShutDown:
        return fail(ESHUTDOWN);
      case Look::kDamaged:
        pauseAfterFailure();
        return fail(ENXIO);
      case Look::kNothing:
        break;
    }
    switch (budget.spendLook()) {
      case Budget::Next::kSpent:
        return fail(EAGAIN);
      case Budget::Next::kLookAgain:
        break;
      case Budget::Next::kSleep:
        if (const int result = budget.sleep(q, own); result < 0) {
          return result;
        }
    }
  }
}

}  // namespace

extern "C" {

int zorlib_q_read(zorlib_q* q, zorvik_frm_desc** frame) {
  if (!checkRead(q, frame)) {
    return -1;
  }
  return zorlib_q_read_timeout(q, frame, static_cast<std::uint32_t>(q->timeout));
}

int zorlib_q_read_timeout(zorlib_q* q, zorvik_frm_desc** frame, uint32_t ms) {
  if (!checkRead(q, frame)) {
    return -1;
  }
  std::uint32_t id = 0;
  zorvik_qmem& memory = q->memory();
  if (transfer(*q, memory.cresq, memory.presq, ms, [&] { return take(*q, id); }) != 0) {
    return -1;
  }
  zorvik_frm_desc* const found = findFrame(*q, id);
  if (found == nullptr) {
    return fail(ENXIO);
  }
  if (receive(*q, *found, id) != 0) {
    return -1;
  }
  *frame = found;
  return 0;
}

int zorlib_q_write(zorlib_q* q, zorvik_frm_desc* frame) {
  if (!checkHandle(q) || !checkPointers(frame)) {
    return -1;
  }
  const std::uint32_t id = frameId(*q->ifg, *frame);
  if (id == 0) {
    return -1;
  }
  const bool counted = q->type == ZORVIK_Q_FANOUT || q->type == ZORVIK_Q_APP;
  if (counted) {
    ring::increment(frame->qref_cnt);
  }
  zorvik_qmem& memory = q->memory();
  const int result = transfer(*q, memory.presq, memory.cresq,
                              static_cast<std::uint32_t>(q->timeout), [&] { return put(*q, id); });
  if (result != 0 && counted) {
    ring::decrement(frame->qref_cnt);
  }
  return result;
}

int zorlib_q_free(zorlib_q* q, zorvik_frm_desc* frame) {
  if (q == nullptr) {
    TARNIK_ERROR("Error: zorlib_q_free with nil handle not yet supported!");
    return fail(ENOSYS);
  }
  if (!checkHandle(q)) {
    return -1;
  }
  if (q->type != ZORVIK_Q_EGRESS) {
    TARNIK_ERROR("Error: zorlib_q_free must be done to an egress queue!");
    return fail(ENXIO);
  }
  if (!checkPointers(frame)) {
    return -1;
  }
  return ring::decrement(frame->ref_cnt) == 1 ? zorlib_q_write(q, frame) : 0;
}

int zorlib_frm_free(zorlib_ifg* ifg, zorvik_frm_desc* frame) {
  if (!checkHandle(ifg) || !checkPointers(frame)) {
    return -1;
  }
  return freeFrame(*ifg, *frame);
}

}  // extern "C"
