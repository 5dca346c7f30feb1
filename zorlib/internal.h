// The library's handles and the functions that its sources share. Not for applications.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/owned.h"
#include "zorlib/c_memory.h"
#include "zorlib/frame_list.h"
#include "zorlib/zorlib.h"

namespace tarnik::zorlib {

inline constexpr std::uint32_t kIfgMagic = 0xc0cac01a;
inline constexpr std::uint32_t kIfgDead = 0xdeadd00d;
inline constexpr std::uint32_t kQMagic = 0xfaceb00b;
inline constexpr std::uint32_t kQDead = 0xbaadf00d;

inline constexpr std::uint32_t kNoLimit = 0xffffffff;  // milliseconds

// Entries of an application queue.
inline constexpr std::uint32_t kMinEntries = 10;
inline constexpr std::uint32_t kMaxEntries = 16000000;

// The first word of a handle; the handle's destructor marks it as closed. Volatile, so that the
// compiler writes the mark although the memory is freed next.
class Magic {
 public:
  explicit Magic(std::uint32_t value) noexcept : value_(value) {}
  void operator=(std::uint32_t value) noexcept { value_ = value; }
  [[nodiscard]] std::uint32_t get() const noexcept { return value_; }

 private:
  volatile std::uint32_t value_;
};

// Writes "dir/name" into `out`, truncated to its size.
template <std::size_t Size>
void joinPath(std::array<char, Size>& out, const char* dir, const char* name) noexcept {
  static_cast<void>(std::snprintf(out.data(), out.size(), "%s/%s", dir, name));
}

// The text of errno.
[[nodiscard]] inline const char* errorText() noexcept {
  return std::strerror(errno);
}

// Checks the pointers that an application passed. False with errno EINVAL when one is null.
template <class... Pointee>
[[nodiscard]] bool checkPointers(const Pointee*... pointers) noexcept {
  if (((pointers != nullptr) && ...)) {
    return true;
  }
  errno = EINVAL;
  return false;
}

// Checks a handle that an application passed. False with errno EBADR and a log line when it is null
// or closed.
[[nodiscard]] bool checkHandle(const zorlib_ifg* ifg) noexcept;
[[nodiscard]] bool checkHandle(const zorlib_q* q) noexcept;

// Open the group's two nodes. openControl takes the handle's first reference. -1 with a log line on
// failure.
[[nodiscard]] int openControl(zorlib_ifg& ifg) noexcept;
[[nodiscard]] int openFrameDescriptors(zorlib_ifg& ifg) noexcept;

// Checks the description of a group to be created or configured. False with errno and a log line of
// zorlib_ifg_create or zorlib_ifg_configure when no group can be like this.
enum class DescriptionOf { kCreate, kConfigure };
[[nodiscard]] bool checkDescription(DescriptionOf caller, const zorvik_ifg_config& config) noexcept;

// Issues the configure request. -1 with a log line on failure.
[[nodiscard]] int configureGroup(zorlib_ifg& ifg, const zorvik_ifg_config& config) noexcept;

// Sets the queue pairs to which the parameters give an if_mask or cpu_mask. -1 with a log line on
// failure.
[[nodiscard]] int applyMasks(zorlib_ifg& ifg) noexcept;

// Asks the driver for the number of interfaces and stores it in numIfs: another process may have
// configured the group. Keeps the old number when the request fails. Logs nothing.
void refreshInterfaces(zorlib_ifg& ifg) noexcept;

// The identifier of a frame in queues and requests: its descriptor's generation and index. Any
// process can write the index, so this fails, with 0 and errno ENXIO, when the index is 0 or is not
// the position of the descriptor. The position is unknown for a descriptor in another handle's
// mapping.
[[nodiscard]] std::uint32_t frameId(const zorlib_ifg& ifg, zorvik_frm_desc& frame) noexcept;

// Issues the wake request for a side of the queue.
void wake(const zorlib_q& q, zorvik_resq& side) noexcept;

// Issues the frame-free request. -1 with errno when the frame has no identifier, or with a log line
// when the request fails.
[[nodiscard]] int freeFrame(zorlib_ifg& ifg, zorvik_frm_desc& frame) noexcept;

}  // namespace tarnik::zorlib

struct zorlib_ifg : tarnik::zorlib::CMemory {
  ~zorlib_ifg() { magic = tarnik::zorlib::kIfgDead; }

  tarnik::zorlib::Magic magic{tarnik::zorlib::kIfgMagic};
  tarnik::OwnedFd ctlFd;      // the driver's control node
  tarnik::OwnedFd ifgCtlFd;   // the group's control node
  tarnik::OwnedFd frmDescFd;  // the group's descriptor node
  tarnik::Mapping frmDesc;
  std::uint32_t frmDescCount = 0;
  std::uint32_t frmDescSize = 0;  // bytes
  tarnik::Mapping payload;
  std::uint32_t payloadSize = 0;  // bytes
  std::mutex mutex;               // guards the mapping of frame memory and the creation of `nodes`
  std::array<char, ZORVIK_NAME_MAX + 1> name{};
  std::array<char, 64> dir{};
  std::atomic<std::uint32_t> numIfs{0};  // as last configured or queried
  // One per descriptor. The first batch allocation creates them; the handle owns them.
  std::unique_ptr<tarnik::FrameNode[]> nodes;
  std::atomic<std::uint32_t> refs{0};
  std::array<tarnik::FrameList, 3> cached;  // small, medium and large buffers
};

struct zorlib_q : tarnik::zorlib::CMemory {
  ~zorlib_q() { magic = tarnik::zorlib::kQDead; }

  tarnik::zorlib::Magic magic{tarnik::zorlib::kQMagic};
  std::uint32_t mode = ZORLIB_READ;
  tarnik::Mapping qmem;
  zorlib_ifg* ifg = nullptr;  // the handle holds one reference
  zorvik_frm_desc* frmDesc = nullptr;
  std::uint8_t* payload = nullptr;
  std::uint32_t type = 0;
  std::int32_t timeout = -1;  // milliseconds, -1 for no limit
  tarnik::OwnedFd fd;
  std::uint32_t id = 0;
  std::uint32_t entries = 0;
  std::uint32_t memSize = 0;      // bytes
  std::uint32_t frmDescSize = 0;  // bytes
  std::uint32_t payloadSize = 0;  // bytes
  std::array<char, 20> name{};
  std::array<char, 128> path{};
  // The number of slots - 1, checked against the mapping when the queue was opened. The shared copy
  // is not read again, because it may have changed.
  std::uint32_t mask = 0;
  // Set by zorlib_q_shutdown for the handle's own side. Other processes cannot clear it, unlike the
  // shared flag.
  std::atomic<bool> shutDown{false};

  [[nodiscard]] zorvik_qmem& memory() const noexcept {
    return *static_cast<zorvik_qmem*>(qmem.base());
  }
  // `counter` is inside the ring.
  [[nodiscard]] std::uint64_t& slot(std::uint32_t counter) const noexcept {
    return zorvik_qmem_entries(&memory())[counter];
  }
  // This handle's own side of the queue.
  [[nodiscard]] zorvik_resq& side() const noexcept {
    return mode == ZORLIB_WRITE ? memory().presq : memory().cresq;
  }
};
