#include "frameq/tarnik_if.h"

#include <cerrno>
#include <new>

#include "base/log.h"
#include "frameq/tarnik_if_state.h"

namespace tarnik {

namespace capture_if {
constinit std::atomic<zorlib_ifg*> ifg{nullptr};
constinit std::mutex mutex;
}  // namespace capture_if

namespace {

using capture_if::ifg;
using capture_if::kIfgName;
using capture_if::kQueueName;
using capture_if::mutex;

int leave(const char* operation, int result) noexcept {
  TARNIK_DEBUG(0, "Debug: %s: exit (%d)", operation, result);
  return result;
}

// Opens the group into `ifg`. The caller holds the mutex.
int openGroup(const char* operation) noexcept {
  zorlib_ifg* opened = nullptr;
  if (zorlib_ifg_open(kIfgName, &opened) != 0) {
    TARNIK_ERROR("Error: %s: Cannot open IFG %s", operation, kIfgName);
    return kQNoGroup;
  }
  ifg = opened;
  return kQOk;
}

// Returns `size`, or the default when `size` is out of bounds.
std::size_t checkedSize(const char* operation, std::size_t size) noexcept {
  constexpr std::size_t kSmallest = 51;
  constexpr std::size_t kLargest = 99999;
  constexpr std::size_t kDefault = 5000;
  if (size < kSmallest || size > kLargest) {
    TARNIK_ERROR("Error: %s: Invalid queue size (%zd), defaulting to %zd", operation, size,
                 kDefault);
    return kDefault;
  }
  return size;
}

// Creates the queue, unless it exists already. The caller holds the mutex.
int createQueue(const char* operation, std::size_t size) noexcept {
  if (zorlib_ifg_create_q_app(ifg, kQueueName, ZORVIK_Q_APP, static_cast<std::uint32_t>(size)) !=
          0 &&
      errno != EEXIST) {
    TARNIK_ERROR("Error: %s: zorlib_ifg_create_q_app failed: errno=%d", operation, errno);
    return kQFailed;
  }
  return kQOk;
}

// Removes the queue. One that is open somewhere stays, and this is not logged as an error. The
// caller holds the mutex.
int removeQueue(const char* operation) noexcept {
  if (zorlib_ifg_remove_q_app(ifg, kQueueName) != 0) {
    if (errno != EBUSY) {
      TARNIK_ERROR("Error: %s: zorlib_ifg_remove_q_app failed, errno=%d", operation, errno);
    }
    return kQFailed;
  }
  return kQOk;
}

int withoutGroup(const char* operation) noexcept {
  TARNIK_DEBUG(0, "Debug: %s: TarnikIf ifg handle not initialized", operation);
  return kQNoGroup;
}

}  // namespace

int TarnikIfgOpen() {
  TARNIK_DEBUG(0, "Debug: %s: entry", "TarnikIfgOpen");
  TARNIK_DEBUG(0, "Debug: %s: %s", "TarnikIfgOpen", kIfgName);
  if (ifg != nullptr) {
    return leave("TarnikIfgOpen", kQOk);
  }
  const std::lock_guard guard(mutex);
  return leave("TarnikIfgOpen", openGroup("TarnikIfgOpen"));
}

void TarnikIfgClose() {
  TARNIK_DEBUG(0, "Debug: %s: entry", "TarnikIfgClose");
  TARNIK_DEBUG(0, "Debug: %s: %s", "TarnikIfgClose", kIfgName);
  if (ifg == nullptr) {
    return;
  }
  const std::lock_guard guard(mutex);
  if (zorlib_ifg* const open = ifg.exchange(nullptr); open != nullptr) {
    static_cast<void>(zorlib_ifg_close(open));
  }
}

TarnikQ* TarnikIfCreate() {
  TARNIK_DEBUG(0, "Debug: %s: entry", "TarnikIfCreate");
  TarnikQ* q = nullptr;
  if (ifg == nullptr) {
    TARNIK_ERROR("Error: %s: TarnikIf ifg handle not initialized", "TarnikIfCreate");
  } else {
    const std::lock_guard guard(mutex);
    q = new (std::nothrow) TarnikQ;
    if (q == nullptr) {
      TARNIK_ERROR("Error: %s: Failed to allocate tarnikIf memory", "TarnikIfCreate");
    }
  }
  TARNIK_DEBUG(0, "Debug: %s: exit (%p)", "TarnikIfCreate", static_cast<void*>(q));
  return q;
}

void TarnikIfDestroy(TarnikQ* q) {
  TARNIK_DEBUG(0, "Debug: %s: entry (%p)", "TarnikIfDestroy", static_cast<void*>(q));
  delete q;
}

int TarnikIfQInit(std::size_t size) {
  TARNIK_DEBUG(0, "Debug: %s: entry (%zd", "TarnikIfQInit", size);
  const std::size_t entries = checkedSize("TarnikIfQInit", size);
  const std::lock_guard guard(mutex);
  // A previous handle is overwritten and not closed: it may belong to the caller (TarnikIfQInit2).
  int result = openGroup("TarnikIfQInit");
  if (result == kQOk) {
    result = createQueue("TarnikIfQInit", entries);
  }
  return leave("TarnikIfQInit", result);
}

int TarnikIfQInit2(zorlib_ifg* ifgHandle, std::size_t size) {
  TARNIK_DEBUG(0, "Debug: %s: entry (%zd", "TarnikIfQInit2", size);
  ifg = ifgHandle;
  const std::size_t entries = checkedSize("TarnikIfQInit2", size);
  const std::lock_guard guard(mutex);
  return leave("TarnikIfQInit2", createQueue("TarnikIfQInit2", entries));
}

int TarnikIfQFini() {
  TARNIK_DEBUG(0, "Debug: %s: entry", "TarnikIfQFini");
  if (ifg == nullptr) {
    return leave("TarnikIfQFini", withoutGroup("TarnikIfQFini"));
  }
  const std::lock_guard guard(mutex);
  const int result = removeQueue("TarnikIfQFini");
  if (result == kQOk) {
    static_cast<void>(zorlib_ifg_close(ifg.exchange(nullptr)));
  }
  return leave("TarnikIfQFini", result);
}

int TarnikIfQFini2() {
  TARNIK_DEBUG(0, "Debug: %s: entry", "TarnikIfQFini2");
  const std::lock_guard guard(mutex);
  if (ifg == nullptr) {
    return leave("TarnikIfQFini2", withoutGroup("TarnikIfQFini2"));
  }
  return leave("TarnikIfQFini2", removeQueue("TarnikIfQFini2"));
}

}  // namespace tarnik
