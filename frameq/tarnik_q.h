// TarnikQ: one end of the application queue "TarnikQ", for reading or for writing frames.
//
// A TarnikQ belongs to one thread. Once its Open has returned, another thread may call Shutdown and
// Close while the object exists. TarnikIfCreate and TarnikIfDestroy (tarnik_if.h) create and
// destroy the object.
#pragma once

#include <atomic>
#include <cstdint>

#include "zorlib/zorlib.h"

namespace tarnik {

// Results of TarnikQ and of the TarnikIf functions.
enum QResult : int {
  kQOk = 0,
  kQFailed = -1,     // a library call failed or the queue was shut down; errno is the library's
  kQNotOpen = -2,    // the object has no open queue
  kQNoGroup = -3,    // no interface group is open, or it could not be opened
  kQWrongMode = -4,  // not in this mode
  kQTimeout = -5,    // no frame, or no room for one, within the timeout
};

// Packet flags of ReadPkt and WritePkt.
inline constexpr std::uint32_t kPktFlag1 = 1;  // passed through unchanged
inline constexpr std::uint32_t kPktLastFrame = 4;

class TarnikQ {
 public:
  enum Mode : int { kNone = -1, kIngress = 0, kEgress = 1 };

  virtual ~TarnikQ() = default;  // does not close the queue
  virtual int Open(int mode);
  // Shuts the queue down, waits until no other thread is inside an operation, and closes the queue.
  // Afterwards the object can only be destroyed: operations fail with ESHUTDOWN.
  virtual int Close();
  // Makes a read that waits, and every later read, fail with ESHUTDOWN.
  virtual void Shutdown();
  virtual int getSize();
  virtual int getFd();
  // Milliseconds; a negative value waits without limit.
  virtual void SetTimeout(std::int32_t ms);
  virtual int Read(zorvik_frm_desc** frame);
  // Reads the next frame with its data, tag (captureId) and packet flags. kQFailed with *frame set:
  // the data is outside the payload memory; the caller frees the frame. Checks neither that the
  // queue is open nor its mode.
  virtual int ReadPkt(zorvik_frm_desc** frame, std::uint8_t** data, std::uint64_t* tag,
                      std::uint32_t* flags);
  virtual int Write(zorvik_frm_desc* frame);
  virtual int WritePkt(zorvik_frm_desc* frame, std::uint64_t tag, std::uint32_t flags);
  // Reads and frees every queued frame.
  virtual int Drain();
  // Returns a frame that was read to the driver.
  virtual int Free(zorvik_frm_desc* frame);
  // Logs a hex dump of the frame's data at debug level above 0.
  virtual void Dump(zorvik_frm_desc* frame, const char* label);

  // The number of bytes from `data`, a pointer from ReadPkt, to the end of the payload memory. A
  // frame's lengths come from the producer and may exceed it. Checks neither that the queue is open
  // nor its mode.
  [[nodiscard]] std::uint32_t room(const std::uint8_t* data);
  // The number of frames in the queue now; 0 after Close. Does not check that the queue is open.
  [[nodiscard]] std::uint32_t used();

 protected:
  TarnikQ() = default;
  friend TarnikQ* TarnikIfCreate();

 private:
  [[nodiscard]] int checkMode(const char* operation, int wanted) const;

  [[maybe_unused]] std::uint64_t unused_;  // keeps the object's layout; never set, never read
  zorlib_q* q_ = nullptr;
  int mode_ = kNone;
  std::atomic<std::uint32_t> users_ = 0;  // threads inside the library with q_; top bit: closed
};

}  // namespace tarnik
