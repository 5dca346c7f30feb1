// The library's handles and what its sources share. Not for applications.
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

// For what an application frees with free(3).
struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

// The first word of a handle; its destructor marks it as dead. Volatile, so that the mark is really
// written before the memory goes back.
class Magic {
 public:
  explicit Magic(std::uint32_t value) noexcept : value_(value) {}
  void operator=(std::uint32_t value) noexcept { value_ = value; }
  [[nodiscard]] std::uint32_t get() const noexcept { return value_; }

 private:
  volatile std::uint32_t value_;
};

// dir/name, cut to the buffer.
template <std::size_t Size>
void joinPath(std::array<char, Size>& out, const char* dir, const char* name) noexcept {
  static_cast<void>(std::snprintf(out.data(), out.size(), "%s/%s", dir, name));
}

// The text of errno.
[[nodiscard]] inline const char* errorText() noexcept {
  return std::strerror(errno);
}

// Whether an application gave every pointer that a function needs; else errno EINVAL.
template <class... Pointee>
[[nodiscard]] bool given(const Pointee*... pointers) noexcept {
  if (((pointers != nullptr) && ...)) {
    return true;
  }
  errno = EINVAL;
  return false;
}

// errno EBADR and a log line for a handle that is null or not alive.
[[nodiscard]] bool valid(const zorlib_ifg* ifg) noexcept;
[[nodiscard]] bool valid(const zorlib_q* q) noexcept;

// Open the group's two nodes; the first takes the handle's first reference. -1, with a log line.
[[nodiscard]] int openControl(zorlib_ifg& ifg) noexcept;
[[nodiscard]] int openFrameDescriptors(zorlib_ifg& ifg) noexcept;

// Whether a group can be as `config` says; else errno and a log line that names `caller`.
[[nodiscard]] bool checkDescription(const char* caller, const zorvik_ifg_config& config) noexcept;

// The configure request. -1, with a log line.
[[nodiscard]] int putIntoForce(zorlib_ifg& ifg, const zorvik_ifg_config& config) noexcept;

// Brings numIfs up to date: another process may have configured the group. Logs nothing; when the
// driver does not tell, it stays as it was.
void refreshInterfaces(zorlib_ifg& ifg) noexcept;

// The identifier under which a descriptor travels.
[[nodiscard]] std::uint32_t frameId(zorvik_frm_desc& frame) noexcept;

// The wake request on a side of the queue.
void wake(const zorlib_q& q, zorvik_resq& side) noexcept;

// The frame-free request.
[[nodiscard]] int freeFrame(zorlib_ifg& ifg, std::uint32_t id) noexcept;

}  // namespace tarnik::zorlib

struct zorlib_ifg {
  ~zorlib_ifg() { magic = tarnik::zorlib::kIfgDead; }

  tarnik::zorlib::Magic magic{tarnik::zorlib::kIfgMagic};
  tarnik::OwnedFd ctlFd;      // the driver's control node
  tarnik::OwnedFd ifgCtlFd;   // the group's
  tarnik::OwnedFd frmDescFd;  // its descriptors
  tarnik::Mapping frmDesc;
  std::uint32_t frmDescCount = 0;
  std::uint32_t frmDescSize = 0;  // bytes
  tarnik::Mapping payload;
  std::uint32_t payloadSize = 0;  // bytes
  std::mutex mutex;               // guards the mapping of frame memory, and the making of `nodes`
  std::array<char, ZORVIK_NAME_MAX + 1> name{};
  std::array<char, 64> dir{};
  std::atomic<std::uint32_t> numIfs{0};  // interfaces, as last configured or told
  // One a descriptor; made by the first batch allocation, gone with the handle.
  std::unique_ptr<tarnik::FrameNode[]> nodes;
  std::atomic<std::uint32_t> refs{0};
  std::array<tarnik::FrameList, 3> cached;  // small, medium and large buffers
};

struct zorlib_q {
  ~zorlib_q() { magic = tarnik::zorlib::kQDead; }

  tarnik::zorlib::Magic magic{tarnik::zorlib::kQMagic};
  std::uint32_t mode = ZORLIB_READ;
  tarnik::Mapping qmem;
  zorlib_ifg* ifg = nullptr;  // one reference
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
  // Slots - 1, checked against the mapping when the queue was opened. The shared copy is not
  // looked at again: it could have changed.
  std::uint32_t mask = 0;
  // The driver's names of the two wait records, which it gives when it makes the queue and never
  // changes; read when the queue was opened. Whoever changes the shared copy under a sleeper cannot
  // make this handle's wake-ups and its shutdown miss him.
  std::uint32_t producerRecord = 0;
  std::uint32_t consumerRecord = 0;

  [[nodiscard]] zorvik_qmem& memory() const noexcept {
    return *static_cast<zorvik_qmem*>(qmem.base());
  }
  // A counter of the ring comes from shared memory: the mask keeps its slot inside the mapping.
  [[nodiscard]] std::uint64_t& slot(std::uint32_t counter) const noexcept {
    return zorvik_qmem_entries(&memory())[counter & mask];
  }
  // This handle's own side of the queue.
  [[nodiscard]] zorvik_resq& side() const noexcept {
    return mode == ZORLIB_WRITE ? memory().presq : memory().cresq;
  }
  // What a wait or wake request calls a side.
  [[nodiscard]] std::uint32_t recordOf(const zorvik_resq& side) const noexcept {
    return &side == &memory().presq ? producerRecord : consumerRecord;
  }
};
