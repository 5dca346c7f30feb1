// Settings and maps change while frames flow: no frame is lost and no name is wrong.
#include <atomic>
#include <map>
#include <thread>

#include "capture/testing/manager.h"

namespace tarnik {
namespace {

using testing::IsEmpty;

class ReloadTest : public test::ManagerTest {};

TEST_F(ReloadTest, FramesFlowThroughReloads) {
  constexpr unsigned kCaptures = 150;
  constexpr unsigned kFrames = 12;
  constexpr unsigned kAnnounced = 100;  // before their first frame; the rest some time
  ASSERT_EQ(init({}), 0);
  const auto trigger = [](unsigned captureId) { return captureId % 2 == 0 ? 70000U : 5U; };
  for (unsigned captureId = 1; captureId <= kAnnounced; ++captureId) {
    announce(captureId, trigger(captureId), captureId);
  }
  std::atomic<bool> done{false};
  std::atomic<int> refused{0};
  std::thread captureThread([&] {
    for (unsigned captureId = 1; captureId <= kCaptures; ++captureId) {
      for (unsigned seed = 1; seed <= kFrames; ++seed) {
        const std::vector<std::uint8_t> data = test::frameData(60, captureId + seed);
        const zorvik_frm_desc frame = test::frame(60, 60, captureId, seed);
        refused += manager.ConsumeFrame(captureId, frame, data.data(),
                                        seed == kFrames ? kPktLastFrame : 0) != 0;
        manager.UpdateUsageCounters();
      }
      manager.ExpireWriters();
    }
    manager.CloseWriters();
    done = true;
  });
  // The same names and roomy limits, but every time others.
  unsigned round = 0;
  for (; !done; ++round) {
    const unsigned captureId = round % kCaptures + 1;
    announce(captureId, trigger(captureId), captureId);
    TarnikMetaCache::instance().config(static_cast<int>(1800 + round % 7));
    EXPECT_EQ(reload({.maxTimeout = 100 + round % 20,
                      .diskSpace = 1'000'000'000 + round,
                      .fileCount = 1000 + round % 3,
                      .maxFileSize = 100'000 + round % 5,
                      .eventInterval = 1 + round % 9,
                      .eventThreshold = round % 4}),
              0);
    if (round % 50 == 49) {
      TarnikMetaCache::instance().expire();
    }
  }
  captureThread.join();
  EXPECT_EQ(refused, 0);
  EXPECT_GT(round, 0u);
  EXPECT_THAT(test::logLinesAboveDebug(),
              testing::Each(testing::Field(&test::LogLine::text,
                                           testing::StartsWith("Warning: Finalize: Failed to "
                                                               "determine capture name"))));

  // A capture whose metadata came in time has a file under the name of its trigger, whole.
  std::map<std::uint32_t, std::string> files;
  for (const std::string& name : captures()) {
    const std::vector<test::Record> found = records(name);
    ASSERT_EQ(found.size(), kFrames) << name;
    const std::uint32_t captureId = found[0].seconds;
    for (unsigned seed = 1; seed <= kFrames; ++seed) {
      EXPECT_EQ(found[seed - 1],
                (test::Record{captureId, seed, 60,
                              test::bytesOf(test::frameData(60, captureId + seed))}));
    }
    EXPECT_NE(name.find(captureId % 2 == 0 ? ".ips.web." : ".naprule-5."), std::string::npos)
        << name << " of capture " << captureId;
    EXPECT_TRUE(files.emplace(captureId, name).second);
  }
  EXPECT_GE(files.size(), kAnnounced);
  EXPECT_EQ(files.size() + test::logLinesAboveDebug().size(), kCaptures);
}

}  // namespace
}  // namespace tarnik
