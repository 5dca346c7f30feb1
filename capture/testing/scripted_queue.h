// A frame queue scripted by a test. A test program with scripted_queue.cc uses it instead of the
// driver's queue: the group and the queue open and close as the script says, and reads follow it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture/testing/files.h"

namespace tarnik::test {

// The results of one ReadPkt.
struct Read {
  int result = 0;
  int error = 0;  // errno
  zorvik_frm_desc* frame = nullptr;
  std::uint8_t* data = nullptr;
  std::uint64_t captureId = 0;
  std::uint32_t flags = 0;
  std::function<void()> before{};  // called when the read begins
};

struct Script {
  int ifgOpen = 0;                                   // result of TarnikIfgOpen
  bool create = true;                                // TarnikIfCreate returns an object
  int open = 0;                                      // result of Open
  std::vector<Read> reads{};                         // after them, a read waits for the shutdown
  unsigned lostShutdowns = 0;                        // the number of shutdowns without effect
  std::function<void(const std::string&)> onCall{};  // called first by all calls except ReadPkt
};

// Begins a new script and forgets the calls. Call it while no capture thread runs.
void play(Script script);
// The calls so far except ReadPkt, such as "Open(0)", in order. Any thread.
[[nodiscard]] std::vector<std::string> calls();
// Waits until the script has no more reads and the reader waits for the shutdown.
void awaitEndOfScript();
// Undoes a Shutdown, like a process that writes to the queue's memory.
void loseShutdown();
// The bytes from any data address to the end of the payload memory.
inline constexpr std::uint32_t kRoom = 4096;

}  // namespace tarnik::test
