// The daemon's door to the frame library: the interface group "brund" and its application queue
// "TarnikQ".
//
// Results: 0 done, -1 a library call failed or the queue was shut down (errno as the library left
// it), -2 the object has no open queue, -3 no interface group, -4 wrong mode, -5 nothing came (or
// no room) within the timeout.
//
// The functions may be called from several threads; one process-wide mutex serialises them, but
// TarnikIfgOpen is meant for one thread at a time, and TarnikIfgClose for when nobody frees frames
// any more. A TarnikQ belongs to one thread; once its Open has returned, another may call Shutdown
// and Close while the object lives.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zorlib/zorlib.h"

namespace tarnik {

// Packet flags of ReadPkt and WritePkt.
inline constexpr std::uint32_t kPktFlag1 = 1;
inline constexpr std::uint32_t kPktLastFrame = 4;

class TarnikQ {
 public:
  enum Mode : int { kNone = -1, kIngress = 0, kEgress = 1 };

  virtual ~TarnikQ() = default;  // does not close the queue
  virtual int Open(int mode);
  // Shuts the queue down, waits until no operation is inside it, and closes it. Afterwards the
  // object is only fit to be destroyed: what the library is asked for fails with ESHUTDOWN.
  virtual int Close();
  // Makes a read that waits, or starts later, fail with ESHUTDOWN.
  virtual void Shutdown();
  virtual int getSize();
  virtual int getFd();
  // Milliseconds; negative waits without limit.
  virtual void SetTimeout(std::int32_t ms);
  virtual int Read(zorvik_frm_desc** frame);
  // The next frame with its data, tag (captureId) and packet flags. -1 with *frame set: the data
  // does not lie inside the payload memory; free the frame. Checks neither queue nor mode.
  virtual int ReadPkt(zorvik_frm_desc** frame, std::uint8_t** data, std::uint64_t* tag,
                      std::uint32_t* flags);
  virtual int Write(zorvik_frm_desc* frame);
  virtual int WritePkt(zorvik_frm_desc* frame, std::uint64_t tag, std::uint32_t flags);
  // Reads and frees every queued frame.
  virtual int Drain();
  // Returns a frame that was read to the driver.
  virtual int Free(zorvik_frm_desc* frame);
  // A hex dump of the frame's data, at debug level above 0.
  virtual void Dump(zorvik_frm_desc* frame, const char* label);

  // The bytes from `data`, as ReadPkt gave it, to the end of the payload memory: a frame's lengths
  // are the producer's word and may say more. Checks neither queue nor mode.
  [[nodiscard]] std::uint32_t room(const std::uint8_t* data);

 protected:
  TarnikQ() = default;
  friend TarnikQ* TarnikIfCreate();

 private:
  [[nodiscard]] int refuse(const char* operation, int wanted) const;

  [[maybe_unused]] std::uint64_t unused_;  // keeps the object's layout; never set, never read
  zorlib_q* q_ = nullptr;
  int mode_ = kNone;
  std::atomic<std::uint32_t> users_ = 0;  // threads inside the library with q_; top bit: closed
};

// Opens the group once a process; 0 at once when it is open.
[[nodiscard]] int TarnikIfgOpen();
void TarnikIfgClose();
// A new object, to be given to TarnikIfDestroy (after Close); null without an open group.
[[nodiscard]] TarnikQ* TarnikIfCreate();
void TarnikIfDestroy(TarnikQ* q);

// For the owner of the queue: create it (51 to 99999 entries, else 5000), remove it. The second
// forms work on a group that the caller holds open and never open or close one.
[[nodiscard]] int TarnikIfQInit(std::size_t size);
[[nodiscard]] int TarnikIfQInit2(zorlib_ifg* ifgHandle, std::size_t size);
[[nodiscard]] int TarnikIfQFini();
[[nodiscard]] int TarnikIfQFini2();

}  // namespace tarnik
