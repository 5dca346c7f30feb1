// What the tests of the capture thread share: the process's manager with a real directory, and a
// queue scripted by the test.
#pragma once

#include <orlo_sdk.h>

#include <cstring>
#include <deque>
#include <thread>

#include "capture/capture_thread.h"
#include "capture/testing/manager.h"
#include "capture/testing/scripted_queue.h"

namespace tarnik::test {

class ThreadTest : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    std::filesystem::remove_all(ORLO_STATS_DIR);
    play({});
    initInstance({});
  }
  void TearDown() override {
    play({});
    ManagerTest::TearDown();
  }

  static void initInstance(const Settings& settings) {
    ASSERT_EQ(configure(&CaptureManager::Init, CaptureManager::instance(), settings), 0);
    clearLog();
  }

  // A read that returns a new frame. The frame's index is its number.
  Read read(std::uint64_t captureId, std::uint32_t size = 100, unsigned seed = 0,
            std::uint32_t flags = 0) {
    Frame& made = frames_.emplace_back(zorvik_frm_desc{}, frameData(size, seed));
    writeFrameHeader(made.descriptor, frame(size + 4, size, seed, seed * 2));
    made.descriptor.index = static_cast<std::uint32_t>(frames_.size());
    return {.frame = &made.descriptor,
            .data = made.data.data(),
            .captureId = captureId,
            .flags = flags};
  }
  static Read failure(int error) {
    return {.result = error == EAGAIN ? kQTimeout : kQFailed, .error = error};
  }
  // The same read with a function to call when it begins.
  static Read with(std::function<void()> before, Read read) {
    read.before = std::move(before);
    return read;
  }

  // Runs the thread until it ends by itself.
  void runToEnd(Script script) {
    play(std::move(script));
    thread.start(1000);
    thread.join();
  }
  // Plays the script to its end and stops the thread.
  void run(Script script) {
    play(std::move(script));
    thread.start(1000);
    awaitEndOfScript();
    thread.stop();
    thread.join();
  }

  // The six counters, as another process reads them.
  static std::vector<std::uint64_t> counters() {
    const Bytes area = readFile(ORLO_STATS_DIR "/tarnik").value_or("");
    std::vector<std::uint64_t> values((area.size() - sizeof(OrloStatsHeader)) / 8);
    std::memcpy(values.data(), area.data() + sizeof(OrloStatsHeader), values.size() * 8);
    return values;
  }
  // The counters of frames: read, accepted, refused, invalid.
  static std::vector<std::uint64_t> frameCounters() {
    const std::vector<std::uint64_t> all = counters();
    return {all.begin() + 2, all.end()};
  }
  // The lines of the thread's operations.
  static Texts threadSteps() {
    Texts texts = logTexts();
    std::erase_if(texts, [](const std::string& text) {
      for (const char* operation :
           {": processFrames: ", ": initCaptureQueue: ", ": threadFunc: ", ": start: ", ": stop: ",
            ": join: ", ": CloseWriters: ", ": ExpireWriters: ", " analysis thread: "}) {
        if (text.find(operation) != std::string::npos) {
          return false;
        }
      }
      return true;
    });
    return texts;
  }
  // The calls of the queue that begin with `prefix`.
  static Texts callsOf(const std::string& prefix) {
    Texts made = calls();
    std::erase_if(made, [&](const std::string& call) { return !call.starts_with(prefix); });
    return made;
  }

  CaptureThread thread;

 private:
  struct Frame {
    Frame(zorvik_frm_desc frameDescriptor, std::vector<std::uint8_t> frameBytes)
        : descriptor(frameDescriptor), data(std::move(frameBytes)) {}
    zorvik_frm_desc descriptor;
    std::vector<std::uint8_t> data;
  };
  std::deque<Frame> frames_;  // never move
};

}  // namespace tarnik::test
