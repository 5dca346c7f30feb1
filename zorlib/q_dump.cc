// Logs a queue handle and its memory.
#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

const char* typeName(std::uint32_t type) noexcept {
  constexpr std::array kNames = {"Ingress", "Egress", "Shared", "Fanout", "App", "Raw"};
  return type >= 1 && type <= kNames.size() ? kNames[type - 1] : "Unknown";
}

void dumpHandle(const zorlib_q& q) noexcept {
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: name: %s, path: %s", q.name.data(), q.path.data());
  TARNIK_DEBUG(0, "Debug: zorlib_DBG:\topen mode: %s", q.mode == ZORLIB_READ ? "Read" : "Write");
  TARNIK_DEBUG(0, "Debug: zorlib_DBG:\ttype: %s, fd: %d, id: %d, timeout: %d", typeName(q.type),
               q.fd.get(), static_cast<int>(q.id), q.timeout);
  TARNIK_DEBUG(0,
               "Debug: zorlib_DBG:\tentries: %d, memory size: %d, size frame desc mapping: %d, "
               "size payload data space: %d",
               static_cast<int>(q.entries), static_cast<int>(q.memSize),
               static_cast<int>(q.frmDescSize), static_cast<int>(q.payloadSize));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG:\tqueue memory: 0x%p, ifg: 0x%p", q.qmem.base(),
               static_cast<void*>(q.ifg));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG:\tframe desc mapping: 0x%p, payload data mapping: 0x%p",
               static_cast<void*>(q.frmDesc), static_cast<void*>(q.payload));
}

void dumpMemory(zorvik_qmem& memory) noexcept {
  zorvik_resq& presq = memory.presq;
  zorvik_resq& cresq = memory.cresq;
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: presq.tag: 0x%x, presq.flags: 0x%x, presq.kresq_handle: %d",
               ring::load(presq.tag), ring::load(presq.flags),
               static_cast<int>(ring::load(presq.kresq_handle)));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: cresq.tag: 0x%x, cresq.flags: 0x%x, cresq.kresq_handle: %d",
               ring::load(cresq.tag), ring::load(cresq.flags),
               static_cast<int>(ring::load(cresq.kresq_handle)));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: q: 0x%p", static_cast<void*>(&memory.enqueue));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: enqueue counter: %d",
               static_cast<int>(ring::load(memory.enqueue)));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: dequeue counter: %d",
               static_cast<int>(ring::load(memory.dequeue)));
  TARNIK_DEBUG(0, "Debug: zorlib_DBG: max elements: %d, max elements mask: 0x%x",
               static_cast<int>(ring::load(memory.max_elements)), ring::load(memory.mask));
}

}  // namespace

extern "C" void zorlib_q_dump(zorlib_q* q) {
  if (q == nullptr || q->magic.get() != kQMagic) {
    TARNIK_DEBUG(0, "Debug: zorlib_DBG: invalid queue");
    return;
  }
  dumpHandle(*q);
  dumpMemory(q->memory());
}
