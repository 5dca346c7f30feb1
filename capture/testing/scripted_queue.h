// A frame queue that a test writes. A test program that contains scripted_queue.cc has it in the
// place of the driver's: group and queue open and close as told, and reads follow a script.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture/testing/files.h"

namespace tarnik::test {

// What one ReadPkt gives.
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
  bool create = true;                                // TarnikIfCreate gives an object
  int open = 0;                                      // result of Open
  std::vector<Read> reads{};                         // behind them, reads wait for the shutdown
  unsigned lostShutdowns = 0;                        // so many are undone before a reader sees them
  std::function<void(const std::string&)> onCall{};  // before any call but ReadPkt, on its thread
};

// Begins a new script and forgets the calls. While no capture thread runs.
void play(Script script);
// The calls so far but for ReadPkt, "Open(0)", in their order. Any thread.
[[nodiscard]] std::vector<std::string> calls();
// Waits until the script's reads are used up and the reader waits for the shutdown.
void awaitEndOfScript();
// Undoes a Shutdown, as somebody might who writes to the queue's memory.
void loseShutdown();
// The bytes of payload memory behind any data address.
inline constexpr std::uint32_t kRoom = 4096;

}  // namespace tarnik::test
