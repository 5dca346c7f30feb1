#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "include/orlo_sdk.h"
#include "internal.h"

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

static_assert(offsetof(OrloWatchdogTimer, elapsed) == 28);
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
static_assert(std::atomic<int64_t>::is_always_lock_free);

namespace {

// The signal that counts the seconds: the last but one, which programs rarely use.
int tickSignal() noexcept {
  return SIGRTMAX - 1;
}

constexpr int64_t kDisarmed = std::numeric_limits<int64_t>::max();

// The watchdog of the process, with everything that the signal handler needs: the handler must not
// allocate, lock or open anything.
struct Watchdog {
  OrloWatchdogTimer record{};
  std::atomic<int64_t> limit{kDisarmed};
  bool created = false;
  timer_t timer{};
  orlo::OwnedFd logSocket;
  sockaddr_un logAddress{};
  char linePrefix[128] = "";  // "<26>NAME[PID]: ", as syslog begins a line
};
Watchdog watchdog;

// Formats text in a signal handler.
class Line {
 public:
  void add(const char* text) noexcept {
    while (*text != '\0' && length_ < sizeof text_) {
      text_[length_++] = *text++;
    }
  }
  void add(uint64_t number) noexcept {
    char digits[21];
    std::size_t at = sizeof digits - 1;
    digits[at] = '\0';
    do {
      digits[--at] = static_cast<char>('0' + number % 10);
      number /= 10;
    } while (number != 0);
    add(digits + at);
  }
  [[nodiscard]] const char* data() const noexcept { return text_; }
  [[nodiscard]] std::size_t size() const noexcept { return length_; }

 private:
  char text_[256];
  std::size_t length_ = 0;
};

// Async-signal-safe.
[[noreturn]] void endProcess(uint32_t elapsed, int64_t limit) noexcept {
  Line line;
  line.add(watchdog.linePrefix);
  line.add("Watchdog: no sign of life for ");
  line.add(elapsed);
  line.add(" seconds (limit ");
  line.add(static_cast<uint64_t>(limit));
  line.add("), ending the process");
  // Not connected: the log daemon may have been restarted.
  ::sendto(watchdog.logSocket.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&watchdog.logAddress), sizeof watchdog.logAddress);
  if (orlo::logForeground()) {
    line.add("\n");
    const char* const text = std::strchr(line.data(), '>') + 1;
    const auto size = line.size() - static_cast<std::size_t>(text - line.data());
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, size);
  }
  std::abort();
}

void onTick(int) {
  const int savedErrno = errno;
  const uint32_t elapsed = std::atomic_ref(watchdog.record.elapsed).fetch_add(1) + 1;
  const int64_t limit = watchdog.limit.load();
  if (elapsed > limit) {
    endProcess(elapsed, limit);
  }
  errno = savedErrno;
}

[[nodiscard]] bool installHandler() noexcept {
  struct sigaction action {};
  action.sa_handler = onTick;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, tickSignal());
  if (::sigaction(tickSignal(), &action, nullptr) != 0) {
    return false;
  }
  errno = ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  return errno == 0;
}

void prepareLog() noexcept {
  watchdog.logSocket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  watchdog.logAddress.sun_family = AF_UNIX;
  std::strcpy(watchdog.logAddress.sun_path, "/dev/log");
  std::snprintf(watchdog.linePrefix, sizeof watchdog.linePrefix,
                "<%d>%s[%d]: ", LOG_DAEMON | LOG_CRIT, orlo::logIdent(), ::getpid());
}

[[nodiscard]] bool startTicking() noexcept {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = tickSignal();
  event.sigev_notify_thread_id = static_cast<pid_t>(::syscall(SYS_gettid));
  if (::timer_create(CLOCK_MONOTONIC, &event, &watchdog.timer) != 0) {
    return false;
  }
  const itimerspec everySecond{{1, 0}, {1, 0}};
  if (::timer_settime(watchdog.timer, 0, &everySecond, nullptr) != 0) {
    const int reason = errno;
    ::timer_delete(watchdog.timer);
    errno = reason;
    return false;
  }
  return true;
}

[[nodiscard]] bool isWatchdog(const OrloWatchdogTimer* timer) noexcept {
  return watchdog.created && timer == &watchdog.record;
}

}  // namespace

OrloWatchdogTimer* OrloWatchdogTimerVirtCreate(void) {
  if (watchdog.created) {
    errno = EBUSY;
    return nullptr;
  }
  watchdog.limit.store(kDisarmed);
  std::atomic_ref(watchdog.record.elapsed).store(0);
  prepareLog();
  if (!installHandler() || !startTicking()) {
    watchdog.logSocket.reset();
    return nullptr;
  }
  watchdog.created = true;
  return &watchdog.record;
}

int OrloWatchdogTimerVirtSet(OrloWatchdogTimer* timer, int64_t seconds) {
  if (!isWatchdog(timer)) {
    errno = EINVAL;
    return -1;
  }
  watchdog.limit.store(seconds < 1 ? kDisarmed : seconds);
  return 0;
}

void OrloWatchdogTimerVirtDestroy(OrloWatchdogTimer* timer) {
  if (!isWatchdog(timer)) {
    return;
  }
  // Keep the handler: without it a pending tick would end the process.
  watchdog.limit.store(kDisarmed);
  ::timer_delete(watchdog.timer);
  watchdog.logSocket.reset();
  watchdog.created = false;
}
