// Checks whether a frame descriptor is consistent.
#include <execinfo.h>
#include <unistd.h>

#include "base/log.h"
#include "zorlib/internal.h"
#include "zorlib/ring.h"

using namespace tarnik;
using namespace tarnik::zorlib;

namespace {

// The group's properties. The names are those that the log lines show.
struct Group {
  zorvik_frm_desc* bp;  // the first descriptor
  zorvik_frm_desc* ep;  // the end of the descriptors
  std::uint32_t frm_data_cnt;
  int num_if;
};

// A copy of the descriptor's words, each read once.
struct Frame {
  std::uint32_t frm_idx = 0;
  std::uint32_t buf_size = 0;
  std::uint32_t frame_size = 0;
  int if_in = 0;
  int if_out = 0;
  int q_idx = 0;
  std::uint64_t assoc_buf = 0;
  unsigned ref_cnt = 0;
  unsigned qref_cnt = 0;
  unsigned eng_ref_cnt = 0;
};

// Compares addresses as numbers, because `fp` may be any pointer.
bool isMember(const zorvik_frm_desc* fp, const Group& group) noexcept {
  const auto at = reinterpret_cast<std::uintptr_t>(fp);
  const auto begin = reinterpret_cast<std::uintptr_t>(group.bp);
  return at >= begin && at < reinterpret_cast<std::uintptr_t>(group.ep) &&
         (at - begin) % sizeof(zorvik_frm_desc) == 0;
}

// Returns zeros for a pointer that is not in the array.
Frame readFrame(zorvik_frm_desc* fp, const Group& group) noexcept {
  Frame frame;
  if (!isMember(fp, group)) {
    return frame;
  }
  frame.frm_idx = ring::load(fp->index);
  frame.buf_size = ring::load(fp->buf_size);
  frame.frame_size = ring::load(fp->frame_size);
  frame.if_in = ring::load(fp->if_in);
  frame.if_out = ring::load(fp->if_out);
  frame.q_idx = ring::load(fp->q_idx);
  frame.assoc_buf = ring::load(fp->assoc_buf);
  frame.ref_cnt = ring::load(fp->ref_cnt);
  frame.qref_cnt = ring::load(fp->qref_cnt);
  frame.eng_ref_cnt = ring::load(fp->eng_ref_cnt);
  return frame;
}

bool isLocalOrBelow(int number, int count) noexcept {
  return number == ZORVIK_IF_LOCAL || (number >= 0 && number < count);
}

// The first condition that does not hold, or null.
const char* findViolation(zorvik_frm_desc* fp, const Frame& frame, const Group& group) noexcept {
  const struct {
    bool holds;
    const char* condition;
  } checks[] = {
      {fp >= group.bp, "fp >= bp"},
      {fp < group.ep, "fp < ep"},
      {fp == group.bp + frame.frm_idx, "fp == &bp[fp->frm_idx]"},
      {frame.frm_idx < group.frm_data_cnt, "fp->frm_idx < ifgp->frm_data_cnt"},
      {frame.buf_size >= 64, "fp->buf_size >= 64"},
      {frame.frame_size <= frame.buf_size, "fp->frame_size <= fp->buf_size"},
      {isLocalOrBelow(frame.if_in, group.num_if),
       "fp->if_in == ZORVIK_IF_LOCAL || (fp->if_in >= 0 && fp->if_in < ifgp->num_if)"},
      {frame.if_out == ZORVIK_IF_LOCAL || frame.if_out >= 0,
       "(fp->if_out == ZORVIK_IF_LOCAL) || (fp->if_out >= 0)"},
      {isLocalOrBelow(frame.if_out, group.num_if),
       "(fp->if_out == ZORVIK_IF_LOCAL) || ((fp->if_out >= 0) && (fp->if_out < ifgp->num_if))"},
      {frame.q_idx == ZORVIK_Q_UNKNOWN || (frame.q_idx >= 0 && frame.q_idx < ZORLIB_MAX_QPAIRS),
       "fp->q_idx == ZORVIK_Q_UNKNOWN || (fp->q_idx >= 0 && fp->q_idx < ZORLIB_MAX_QPAIRS)"},
      {frame.ref_cnt < 10, "fp->ref_ctl.ref_cnt < 10"},
      {frame.qref_cnt < 10, "fp->ref_ctl.qref_cnt < 10"},
      {frame.eng_ref_cnt < 10, "fp->ref_ctl.eng_ref_cnt < 10"},
      {frame.assoc_buf != 0, "fp->assoc_buf != NULL"},
  };
  for (const auto& check : checks) {
    if (!check.holds) {
      return check.condition;
    }
  }
  return nullptr;
}

[[noreturn]] void abortWithStack() noexcept {
  std::array<void*, 64> stack;
  const int depth = ::backtrace(stack.data(), static_cast<int>(stack.size()));
  ::backtrace_symbols_fd(stack.data(), depth, STDERR_FILENO);
  std::fflush(stderr);
  std::abort();
}

}  // namespace

extern "C" void zorlib_FRM_Vm(zorlib_ifg* ifg, zorvik_frm_desc* fp) {
  if (!checkHandle(ifg)) {
    return;
  }
  auto* const bp = static_cast<zorvik_frm_desc*>(ifg->frmDesc.base());
  Group group{bp, bp + ifg->frmDescCount, ifg->frmDescCount, static_cast<int>(ifg->numIfs.load())};
  const Frame frame = readFrame(fp, group);
  const char* condition = findViolation(fp, frame, group);
  if (condition != nullptr) {
    // The number of interfaces may be out of date.
    refreshInterfaces(*ifg);
    group.num_if = static_cast<int>(ifg->numIfs.load());
    condition = findViolation(fp, frame, group);
  }
  if (condition == nullptr) {
    return;
  }
  TARNIK_ERROR("Error: zorlib_Assertion failed: %s", condition);
  TARNIK_ERROR(
      "Error: zorlib_FRM_Vm failed!  fp %p [%p-%p/%u] bsz %u fsz %u idx %u if_in %u if_out %u "
      "num_if %u ref_cnt %u qref_cnt %u eng_ref_cnt %u",
      static_cast<void*>(fp), static_cast<void*>(group.bp), static_cast<void*>(group.ep),
      group.frm_data_cnt, frame.buf_size, frame.frame_size, frame.frm_idx,
      static_cast<unsigned>(frame.if_in), static_cast<unsigned>(frame.if_out),
      static_cast<unsigned>(group.num_if), frame.ref_cnt, frame.qref_cnt, frame.eng_ref_cnt);
  abortWithStack();
}
