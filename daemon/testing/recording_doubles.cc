// Recording implementations of the rest that the daemon calls: the capture manager, the capture
// thread, the metadata cache and the template generators, and runShell(), umask() and
// sigprocmask(). Each call is recorded by sdk() and can be failed there; only the signal mask and
// the umask take effect as well. A test program that links this file has none of the real ones, and
// no shell.
#include <dlfcn.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>

#include "base/shell.h"
#include "capture/capture_manager.h"
#include "capture/capture_thread.h"
#include "capture/meta_cache.h"
#include "daemon/testing/recording_sdk.h"
#include "policy/info_template.h"

namespace tarnik {
namespace {

template <typename... Arguments>
std::string callText(const char* name, const Arguments&... arguments) {
  std::ostringstream text;
  [[maybe_unused]] const char* separator = "";
  text << name << '(';
  ((text << separator << arguments, separator = ", "), ...);
  text << ')';
  return text.str();
}

template <typename... Arguments>
int recorded(const char* name, const Arguments&... arguments) {
  return test::sdk().call(callText(name, arguments...));
}

}  // namespace

CaptureManager& CaptureManager::instance() {
  static CaptureManager manager;
  return manager;
}

int CaptureManager::Init(const std::string& issuesPath, std::int64_t maxTimeout,
                         std::uint64_t diskSpace, std::uint64_t fileCount, std::int64_t maxFileSize,
                         std::int64_t eventInterval, std::uint32_t eventThreshold) {
  return recorded("CaptureManager::Init", issuesPath, maxTimeout, diskSpace, fileCount, maxFileSize,
                  eventInterval, eventThreshold);
}

int CaptureManager::Reload(const std::string& issuesPath, std::int64_t maxTimeout,
                           std::uint64_t diskSpace, std::uint64_t fileCount,
                           std::int64_t maxFileSize, std::int64_t eventInterval,
                           std::uint32_t eventThreshold) {
  return recorded("CaptureManager::Reload", issuesPath, maxTimeout, diskSpace, fileCount,
                  maxFileSize, eventInterval, eventThreshold);
}

void CaptureThread::start(std::uint64_t queueTimeout) {
  recorded("CaptureThread::start", queueTimeout);
}

void CaptureThread::stop() {
  recorded("CaptureThread::stop");
}

void CaptureThread::join(const std::function<void()>& onRound) {
  recorded("CaptureThread::join");
  for (unsigned round = 0; round < test::sdk().joinRounds; ++round) {
    onRound();
    test::sdk().record("a round of the join");
  }
}

TarnikMetaCache::TarnikMetaCache() : lock_(), lockReady_(false) {}

TarnikMetaCache::~TarnikMetaCache() = default;

TarnikMetaCache& TarnikMetaCache::instance() {
  static TarnikMetaCache cache;
  return cache;
}

void TarnikMetaCache::config(int timeout) {
  recorded("TarnikMetaCache::config", timeout);
}

void TarnikMetaCache::add(std::uint64_t captureId, std::uint64_t flowId, std::uint32_t triggerId) {
  recorded("TarnikMetaCache::add", captureId, flowId, triggerId);
}

void TarnikMetaCache::expire() {
  recorded("TarnikMetaCache::expire");
}

void TarnikMetaCache::dump() {
  recorded("TarnikMetaCache::dump");
}

int runShell(const char* command) noexcept {
  return recorded("runShell", command);
}

bool createIpsInfoTemplate() {
  return recorded("createIpsInfoTemplate") == 0;
}

bool createNapInfoTemplates() {
  return recorded("createNapInfoTemplates") == 0;
}

}  // namespace tarnik

extern "C" {

mode_t umask(mode_t mask) noexcept {
  tarnik::test::sdk().record("umask(" + std::to_string(mask) + ")");
  const auto real = reinterpret_cast<mode_t (*)(mode_t)>(dlsym(RTLD_NEXT, "umask"));
  return real(mask);
}

int sigprocmask(int how, const sigset_t* set, sigset_t* former) noexcept {
  const char* const mask = set != nullptr && sigisemptyset(set) != 0 ? "none" : "some";
  tarnik::test::sdk().record(
      "sigprocmask(" + std::string(how == SIG_SETMASK ? "SIG_SETMASK" : "?") + ", " + mask + ")");
  const auto real =
      reinterpret_cast<int (*)(int, const sigset_t*, sigset_t*)>(dlsym(RTLD_NEXT, "sigprocmask"));
  return real(how, set, former);
}
}
