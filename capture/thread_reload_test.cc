// Settings and maps change while the capture thread reads frames. No frame is lost, and every name
// comes from one of the two versions.
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "capture/testing/thread.h"

namespace tarnik {
namespace {

using testing::ElementsAre;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr unsigned kCaptures = 60;
constexpr unsigned kFrames = 12;
constexpr unsigned kAnnounced = 40;  // before their first frame; the others at any time

bool isIps(std::uint32_t captureId) {
  return captureId % 2 == 0;
}

// One version of the policy files: names of the two triggers, and other entries.
struct Version {
  const char* issues;
  const char* rules;
};
constexpr Version kVersions[] = {
    {"70000,web\n70001,X_Y\n",
     "acl.rule.priority._uuid-five = 5\nacl.rule.priority.uuid-top = 65534\n"},
    {"69999,before\n70000,shop\n4294967295,last\n", "acl.rule.priority.uuid-cinq = 5\n"},
};

class ReloadTest : public test::ThreadTest {
 protected:
  static void announceSome(unsigned captureId) {
    announce(captureId, isIps(captureId) ? 70000U : 5U, captureId);
  }

  test::Read readOf(std::uint32_t captureId, unsigned seed) {
    const test::Read made =
        read(captureId, 60, captureId + seed, seed == kFrames ? kPktLastFrame : 0);
    writeFrameHeader(*made.frame, test::frame(60, 60, captureId, seed));
    return made;
  }

  // A reload happens between the first frames of two captures. Relaxed: the test must not order
  // more than reloading and capturing do.
  test::Script script() {
    test::Script script;
    for (unsigned captureId = 1; captureId <= kCaptures; ++captureId) {
      for (unsigned seed = 1; seed <= kFrames; ++seed) {
        script.reads.push_back(readOf(captureId, seed));
      }
      script.reads.at(script.reads.size() - kFrames).before = [this] {
        const unsigned seen = reloads_.load(std::memory_order_relaxed);
        while (reloads_.load(std::memory_order_relaxed) == seen) {
          std::this_thread::yield();
        }
      };
      script.reads.push_back(failure(EAGAIN));
    }
    script.reads.back().before = [this] { done_.store(true, std::memory_order_relaxed); };
    return script;
  }

  // Reloads another version of everything. The limits change each time but refuse nothing.
  static void reloadOther(unsigned round) {
    const Version& version = kVersions[round / 2 % 2];
    test::writeFile(test::kIssuesPath, version.issues);
    test::writeFile(kNapPolicyPath, version.rules);
    EXPECT_EQ(configure(&CaptureManager::Reload, CaptureManager::instance(),
                        {100 + round % 20, 1'000'000'000 + round, 1000 + round % 3,
                         100'000 + round % 5, 1 + round % 9, round % 4}),
              0);
    TarnikMetaCache::instance().config(static_cast<int>(1800 + round % 7));
    if (round % 50 == 49) {
      TarnikMetaCache::instance().expire();
    }
  }

  void reloadUntilDone() {
    for (unsigned round = 0; !done_.load(std::memory_order_relaxed); ++round) {
      announceSome(round % kCaptures + 1);
      reloadOther(round);
      reloads_.store(round + 1, std::memory_order_relaxed);
    }
  }

  // Checks that the file has all frames of one capture. Returns the capture's identifier.
  static std::uint32_t checkFrames(const std::string& name) {
    const std::vector<test::Record> found = records(name);
    EXPECT_EQ(found.size(), kFrames) << name;
    const std::uint32_t captureId = found.at(0).seconds;
    for (unsigned seed = 1; seed <= found.size(); ++seed) {
      EXPECT_EQ(found[seed - 1],
                (test::Record{captureId, seed, 60,
                              test::bytesOf(test::frameData(60, captureId + seed))}));
    }
    return captureId;
  }

  // The trigger's name in the capture's name and in its info file, which must agree.
  static std::string trigger(const std::string& name, std::uint32_t captureId) {
    const test::Bytes bytes =
        test::readFile(kCaptureDir + name.substr(0, name.size() - 5) + ".info").value_or("");
    const std::string info(bytes.begin(), bytes.end());
    const auto named = [&](const std::string& inName, const std::string& inInfo) {
      return name.find(inName) != std::string::npos && info.find(inInfo) != std::string::npos;
    };
    for (const char* issue : {"web", "shop"}) {
      if (isIps(captureId) && named(std::string(".ips.") + issue + ".",
                                    std::string("\nips.issue.name=") + issue + "\n")) {
        return issue;
      }
    }
    for (const char* uuid : {"uuid-five", "uuid-cinq"}) {
      if (!isIps(captureId) && named(".naprule-5.", std::string("\nnap.uuid=") + uuid + "\n")) {
        return uuid;
      }
    }
    ADD_FAILURE() << name << " of capture " << captureId << ": " << info;
    return "";
  }

 private:
  std::atomic<unsigned> reloads_{0};
  std::atomic<bool> done_{false};
};

TEST_F(ReloadTest, FramesFlowThroughReloads) {
  test::writeFile(std::string(kCaptureDir) + "template.nap.uuid-cinq", "");
  for (unsigned captureId = 1; captureId <= kAnnounced; ++captureId) {
    announceSome(captureId);
  }
  test::play(script());
  thread.start(1000);
  reloadUntilDone();
  thread.stop();
  thread.join();
  EXPECT_THAT(frameCounters(), ElementsAre(kCaptures * kFrames, kCaptures * kFrames, 0U, 0U));
  EXPECT_THAT(test::logLinesAboveDebug(),
              testing::Each(testing::Field(
                  &test::LogLine::text,
                  StartsWith("Warning: Finalize: Failed to determine capture name"))));

  // A capture whose metadata came in time has a complete file with its trigger in the name.
  std::map<std::uint32_t, std::string> files;
  std::set<std::string> triggers;
  for (const std::string& name : captures()) {
    const std::uint32_t captureId = checkFrames(name);
    triggers.insert(trigger(name, captureId));
    EXPECT_TRUE(files.emplace(captureId, name).second);
  }
  EXPECT_THAT(triggers, UnorderedElementsAre("web", "shop", "uuid-five", "uuid-cinq"));
  EXPECT_GE(files.size(), kAnnounced);
  EXPECT_EQ(files.size() + test::logLinesAboveDebug().size(), kCaptures);
}

}  // namespace
}  // namespace tarnik
