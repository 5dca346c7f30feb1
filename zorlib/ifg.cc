// Interface groups: handles, device nodes and the mapping of frame memory.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <new>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace tarnik::zorlib {

bool checkHandle(const zorlib_ifg* ifg) noexcept {
  if (ifg == nullptr) {
    TARNIK_ERROR("Error: zorlib_ifg_validate: Nil handle");
    errno = EBADR;
    return false;
  }
  const std::uint32_t magic = ifg->magic.get();
  if (magic != kIfgMagic) {
    TARNIK_ERROR("Error: zorlib_ifg_validate: Unknown magic %x", magic);
    errno = EBADR;
    return false;
  }
  return true;
}

std::uint32_t frameId(const zorlib_ifg& ifg, zorvik_frm_desc& frame) noexcept {
  const std::uint32_t index = ring::load(frame.index) & ZORVIK_FRM_INDEX_MASK;
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(&frame) -
                                reinterpret_cast<std::uintptr_t>(ifg.frmDesc.base());
  const bool isMapped = offset < ifg.frmDescSize;  // also false for an address before the mapping
  if (index == 0 || (isMapped && offset != index * sizeof frame)) {
    errno = ENXIO;
    return 0;
  }
  return std::uint32_t{ring::load(frame.generation)} << ZORVIK_FRM_GENERATION_SHIFT | index;
}

int freeFrame(zorlib_ifg& ifg, zorvik_frm_desc& frame) noexcept {
  zorvik_frm_free request{};
  request.frame_id = frameId(ifg, frame);
  if (request.frame_id == 0) {
    return -1;
  }
  if (::ioctl(ifg.frmDescFd.get(), ZORVIK_FRM_FREE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_ifg_frm_free: free_frm ioctl failed - %s", errorText());
    return -1;
  }
  return 0;
}

int openControl(zorlib_ifg& ifg) noexcept {
  std::array<char, 128> path;
  joinPath(path, ifg.dir.data(), ZORVIK_IFG_CTL);
  ifg.ifgCtlFd.reset(::open(path.data(), O_RDWR | O_CLOEXEC));
  if (!ifg.ifgCtlFd) {
    TARNIK_ERROR("Error: zorlib_ifg_open: Cannot open ifg ctl dev %s - %s", path.data(),
                 errorText());
    return -1;
  }
  ifg.refs.store(1);
  return 0;
}

int openFrameDescriptors(zorlib_ifg& ifg) noexcept {
  std::array<char, 128> path;
  joinPath(path, ifg.dir.data(), ZORVIK_IFG_FRM_DESC);
  ifg.frmDescFd.reset(::open(path.data(), O_RDWR | O_CLOEXEC));
  if (!ifg.frmDescFd) {
    TARNIK_ERROR("Error: zorlib_ifg_open_frm_data: Cannot open ifg frm_data dev %s - %s",
                 path.data(), errorText());
    return -1;
  }
  return 0;
}

}  // namespace tarnik::zorlib

namespace {

// Returns the cached frames to the driver and closes the group, after the last reference.
void release(zorlib_ifg& ifg) noexcept {
  auto* const frames = static_cast<zorvik_frm_desc*>(ifg.frmDesc.base());
  for (FrameList& list : ifg.cached) {
    while (const FrameNode* node = list.pop()) {
      // One failure, which is logged, does not keep the other frames.
      static_cast<void>(freeFrame(ifg, frames[node - ifg.nodes.get()]));
    }
  }
  ifg.ifgCtlFd.reset();
  ifg.frmDescFd.reset();
  ifg.frmDesc.reset();
}

int mapDescriptors(zorlib_ifg& ifg) noexcept {
  zorvik_frm_desc_size request{};
  if (::ioctl(ifg.frmDescFd.get(), ZORVIK_FRM_DESC_SIZE, &request) < 0) {
    TARNIK_ERROR("Error: zorlib_map_frm_data: %s query frm_data ioctl failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  ifg.frmDesc = Mapping::shared(ifg.frmDescFd.get(), request.size);
  if (!ifg.frmDesc) {
    TARNIK_ERROR("Error: zorlib_map_frm_data: %s mmap frm_data failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  ifg.frmDescSize = request.size;
  ifg.frmDescCount = request.size / std::uint32_t{sizeof(zorvik_frm_desc)};
  TARNIK_DEBUG(0, "Debug: zorlib_map_frm_data: %p - %p", ifg.frmDesc.base(),
               static_cast<void*>(static_cast<std::uint8_t*>(ifg.frmDesc.base()) + request.size));
  return 0;
}

int mapPayload(zorlib_ifg& ifg) noexcept {
  const OwnedFd node(::open(ZORVIK_NET_DATA_NODE, O_RDWR | O_CLOEXEC));
  if (!node) {
    TARNIK_ERROR("Error: zorlib_map_frm_data: %s open net_data failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  std::uint32_t size = 0;
  if (::ioctl(node.get(), ZORVIK_NET_DATA_SIZE, &size) < 0) {
    TARNIK_ERROR("Error: zorlib_map_frm_data: %s query net ioctl failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  ifg.payload = Mapping::shared(node.get(), size);
  if (!ifg.payload) {
    TARNIK_ERROR("Error: zorlib_map_frm_data: %s mmap net_data failed - %s", ifg.name.data(),
                 errorText());
    return -1;
  }
  ifg.payloadSize = size;
  return 0;
}

}  // namespace

extern "C" {

zorlib_ifg* zorlib_ifg_alloc(const char* name) {
  const std::size_t length = name == nullptr ? 0 : std::strlen(name);
  if (length == 0 || length > ZORVIK_NAME_MAX) {
    TARNIK_ERROR("Error: zorlib_ifg_alloc: ifg name length invalid (0 < name_len < %u)",
                 ZORVIK_NAME_MAX);
    errno = ENAMETOOLONG;
    return nullptr;
  }
  std::unique_ptr<zorlib_ifg> ifg(new (std::nothrow) zorlib_ifg);
  if (!ifg) {
    TARNIK_ERROR("Error: zorlib_ifg_alloc: malloc failed - %s", errorText());
    return nullptr;
  }
  std::memcpy(ifg->name.data(), name, length);
  static_cast<void>(zorlib_ifg_devnode_wait(ZORVIK_CTL_NODE, 1));  // open() reports the failure
  ifg->ctlFd.reset(::open(ZORVIK_CTL_NODE, O_RDWR | O_CLOEXEC));
  if (!ifg->ctlFd) {
    TARNIK_ERROR("Error: zorlib_ifg_alloc: Cannot open zorvik ctl - %s", errorText());
    return nullptr;
  }
  joinPath(ifg->dir, ZORVIK_DEV_DIR, name);
  return ifg.release();
}

int zorlib_ifg_open(const char* name, zorlib_ifg** ifg) {
  if (!checkPointers(ifg)) {
    return -1;
  }
  zorlib_ifg* const opened = zorlib_ifg_alloc(name);
  if (opened == nullptr) {
    return -1;
  }
  if (openControl(*opened) != 0 || openFrameDescriptors(*opened) != 0) {
    static_cast<void>(zorlib_ifg_close(opened));
    return -1;
  }
  *ifg = opened;
  return 0;
}

int zorlib_ifg_close(zorlib_ifg* ifg) {
  if (!checkHandle(ifg)) {
    return -1;
  }
  const int savedErrno = errno;  // a caller may close because of an error
  // Acquire and release: the thread that frees the handle sees what all others did with it. A
  // handle that was only allocated has no reference yet.
  const std::uint32_t before = ifg->refs.fetch_sub(1, std::memory_order_acq_rel);
  if (before > 1) {
    return 0;
  }
  const std::unique_ptr<zorlib_ifg> last(ifg);
  release(*last);
  last->ctlFd.reset();
  last->payload.reset();
  errno = savedErrno;
  return 0;
}

int zorlib_ifg_devnode_wait(const char* path, int appear) {
  if (!checkPointers(path)) {
    return -1;
  }
  constexpr int kPolls = 1500;
  constexpr useconds_t kPollInterval = 1000;  // microseconds
  for (int poll = 0;; ++poll) {
    const bool exists = ::access(path, F_OK) == 0;
    if (exists == (appear != 0)) {
      return 0;
    }
    if (poll == kPolls) {
      break;
    }
    ::usleep(kPollInterval);
  }
  TARNIK_ERROR("Error: zorlib_ifg_devnode_wait: Timeout waiting for devnode %s to %sappear", path,
               appear != 0 ? "" : "dis");
  if (appear == 0) {
    errno = ETIMEDOUT;  // access succeeded, so it set none
  }
  return -1;
}

int zorlib_map_frm_data(zorlib_ifg* ifg, zorvik_frm_desc** frmDesc, uint32_t* frmDescSize,
                        uint8_t** payload, uint32_t* payloadSize) {
  if (!checkHandle(ifg) || !checkPointers(frmDesc, frmDescSize, payload, payloadSize)) {
    return -1;
  }
  const std::lock_guard guard(ifg->mutex);
  if (!ifg->frmDesc && mapDescriptors(*ifg) != 0) {
    return -1;
  }
  if (!ifg->payload && mapPayload(*ifg) != 0) {
    return -1;
  }
  ifg->refs.fetch_add(1);
  *frmDesc = static_cast<zorvik_frm_desc*>(ifg->frmDesc.base());
  *frmDescSize = ifg->frmDescSize;
  *payload = static_cast<std::uint8_t*>(ifg->payload.base());
  *payloadSize = ifg->payloadSize;
  return 0;
}

}  // extern "C"
