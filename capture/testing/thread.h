// What the tests of the capture thread share: the process's manager over a real directory, and a
// queue that the test writes.
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
    ASSERT_EQ(CaptureManager::instance().Init(kIssuesPath, settings.maxTimeout, settings.diskSpace,
                                              settings.fileCount, settings.maxFileSize,
                                              settings.eventInterval, settings.eventThreshold),
              0);
    forget();
  }

  // A frame in what stands for the driver's memory; its index is its number.
  struct Frame {
    zorvik_frm_desc descriptor;
    std::vector<std::uint8_t> data;
  };
  Frame& newFrame(std::uint32_t size, unsigned seed) {
    frames.push_back({zorvik_frm_desc{}, frameData(size, seed)});
    writeFrameHeader(frames.back().descriptor, frame(size + 4, size, seed, seed * 2));
    frames.back().descriptor.index = static_cast<std::uint32_t>(frames.size());
    return frames.back();
  }
  // A read that gives such a frame.
  Read read(std::uint64_t captureId, std::uint32_t size = 100, unsigned seed = 0,
            std::uint32_t flags = 0) {
    Frame& made = newFrame(size, seed);
    return {.frame = &made.descriptor,
            .data = made.data.data(),
            .captureId = captureId,
            .flags = flags};
  }
  static Read failure(int error) {
    return {.result = error == EAGAIN ? kQTimeout : kQFailed, .error = error};
  }

  // Plays the script to its end and stops the thread.
  void run(Script script) {
    play(std::move(script));
    thread.start(1000);
    awaitEndOfScript();
    thread.stop();
    thread.join();
  }
  // Calls stop() from another thread and waits for it, so that it must not wait for this one.
  void stopFromElsewhere() {
    std::thread([this] { thread.stop(); }).join();
  }

  // The six counters, as another process reads them.
  static std::vector<std::uint64_t> counters() {
    const Bytes area = readFile(ORLO_STATS_DIR "/tarnik").value_or("");
    std::vector<std::uint64_t> values((area.size() - sizeof(OrloStatsHeader)) / 8);
    std::memcpy(values.data(), area.data() + sizeof(OrloStatsHeader), values.size() * 8);
    return values;
  }
  // Frames read, accepted, refused, invalid.
  static std::vector<std::uint64_t> frameCounters() {
    const std::vector<std::uint64_t> all = counters();
    return {all.begin() + 2, all.end()};
  }
  // The lines of the thread's own operations.
  static std::vector<LogLine> threadLines() {
    std::vector<LogLine> lines = logLines();
    std::erase_if(lines, [](const LogLine& line) {
      for (const char* operation :
           {": processFrames: ", ": initCaptureQueue: ", ": threadFunc: ", ": start: ", ": stop: ",
            ": join: ", ": CloseWriters: ", ": ExpireWriters: ", " analysis thread: "}) {
        if (line.text.find(operation) != std::string::npos) {
          return false;
        }
      }
      return true;
    });
    return lines;
  }

  std::deque<Frame> frames;  // stay where they are
  CaptureThread thread;
};

}  // namespace tarnik::test
