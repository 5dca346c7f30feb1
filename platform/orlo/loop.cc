#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <list>
#include <new>

#include "include/orlo_sdk.h"
#include "internal.h"

namespace {

using orlo::OwnedFd;

// A descriptor that the loop waits for, and its callback.
struct Source {
  enum class Kind { Signal, Timer, Descriptor };
  Kind kind;
  int value;    // handed to the callback: signal, interval or descriptor
  OwnedFd own;  // the loop's signalfd or timerfd; empty for a caller's descriptor
  OrloLoopCallback callback;
  void* userData;
};

class Loop {
 public:
  Loop() noexcept : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!watch(wake_.get(), nullptr)) {
      epoll_.reset();
    }
  }

  [[nodiscard]] bool addSignal(int signo, OrloLoopCallback callback, void* userData);
  [[nodiscard]] bool addTimer(int64_t seconds, OrloLoopCallback callback, void* userData);
  [[nodiscard]] bool addDescriptor(int fd, OrloLoopCallback callback, void* userData);
  [[nodiscard]] bool run() noexcept;
  void quit() noexcept;

 private:
  [[nodiscard]] bool watch(int fd, Source* source) noexcept;
  [[nodiscard]] Source* find(Source::Kind kind, int value) noexcept;
  [[nodiscard]] bool add(int fd, Source&& source);
  void dispatch(Source& source) noexcept;

  OwnedFd epoll_;
  OwnedFd wake_;
  std::list<Source> sources_;  // epoll holds pointers to them
  std::atomic<bool> quit_{false};
};

bool Loop::watch(int fd, Source* source) noexcept {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = source;
  return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

Source* Loop::find(Source::Kind kind, int value) noexcept {
  for (Source& source : sources_) {
    if (source.kind == kind && source.value == value) {
      return &source;
    }
  }
  return nullptr;
}

bool Loop::add(int fd, Source&& source) {
  Source& added = sources_.emplace_back(std::move(source));
  if (!watch(fd, &added)) {
    sources_.pop_back();
    return false;
  }
  return true;
}

bool Loop::addSignal(int signo, OrloLoopCallback callback, void* userData) {
  sigset_t set;
  sigemptyset(&set);
  if (sigaddset(&set, signo) != 0) {
    return false;
  }
  if (Source* const known = find(Source::Kind::Signal, signo)) {
    known->callback = callback;
    known->userData = userData;
    return true;
  }
  OwnedFd own(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!own) {
    return false;
  }
  const int fd = own.get();
  if (!add(fd, {Source::Kind::Signal, signo, std::move(own), callback, userData})) {
    return false;
  }
  errno = ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return errno == 0;
}

bool Loop::addTimer(int64_t seconds, OrloLoopCallback callback, void* userData) {
  if (seconds < 1 || seconds > INT_MAX) {
    errno = EINVAL;
    return false;
  }
  OwnedFd own(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const itimerspec every{{seconds, 0}, {seconds, 0}};
  if (!own || ::timerfd_settime(own.get(), 0, &every, nullptr) != 0) {
    return false;
  }
  const int fd = own.get();
  return add(fd,
             {Source::Kind::Timer, static_cast<int>(seconds), std::move(own), callback, userData});
}

bool Loop::addDescriptor(int fd, OrloLoopCallback callback, void* userData) {
  Source* const known = find(Source::Kind::Descriptor, fd);
  if (known == nullptr) {
    return add(fd, {Source::Kind::Descriptor, fd, OwnedFd(), callback, userData});
  }
  // A closed descriptor's number may have been reused; epoll has dropped the old one.
  if (!watch(fd, known)) {
    return false;
  }
  known->callback = callback;
  known->userData = userData;
  return true;
}

void Loop::dispatch(Source& source) noexcept {
  // Reading resets a signal or a timer. When there is nothing to read, another reader consumed it.
  signalfd_siginfo arrived;
  uint64_t expiries = 0;
  if (source.kind == Source::Kind::Signal &&
      ::read(source.own.get(), &arrived, sizeof arrived) != sizeof arrived) {
    return;
  }
  if (source.kind == Source::Kind::Timer &&
      ::read(source.own.get(), &expiries, sizeof expiries) != sizeof expiries) {
    return;
  }
  // Copied, because the callback may replace itself.
  const OrloLoopCallback callback = source.callback;
  void* const userData = source.userData;
  callback(source.value, userData);
}

bool Loop::run() noexcept {
  // Resets the flag, so that the loop can run again.
  while (!quit_.exchange(false)) {
    epoll_event event{};
    // One event at a time: the kernel alternates between ready descriptors, and no stale event is
    // left when a callback changes the sources.
    const int count = ::epoll_wait(epoll_.get(), &event, 1, -1);
    if (count < 0 && errno != EINTR) {
      return false;
    }
    if (count != 1) {
      continue;
    }
    if (event.data.ptr != nullptr) {
      dispatch(*static_cast<Source*>(event.data.ptr));
      continue;
    }
    uint64_t wakes = 0;
    if (::read(wake_.get(), &wakes, sizeof wakes) < 0 && errno != EAGAIN) {
      return false;
    }
  }
  return true;
}

void Loop::quit() noexcept {
  quit_.store(true);
  const uint64_t one = 1;
  // Fails only when the counter is full; then the loop wakes anyway.
  [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
}

Loop& loop() noexcept {
  static Loop instance;
  return instance;
}

// Runs `add` and converts std::bad_alloc to ENOMEM for the C interface.
template <typename Add>
int guarded(OrloLoopCallback callback, Add add) noexcept {
  if (callback == nullptr) {
    errno = EINVAL;
    return -1;
  }
  try {
    return add(loop()) ? 0 : -1;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace

int OrloLoopSignalAdd(int signo, OrloLoopCallback callback, void* userData) {
  return guarded(callback, [&](Loop& l) { return l.addSignal(signo, callback, userData); });
}

int OrloLoopTimerAdd(int64_t seconds, OrloLoopCallback callback, void* userData) {
  return guarded(callback, [&](Loop& l) { return l.addTimer(seconds, callback, userData); });
}

int OrloLoopFdAdd(int fd, OrloLoopCallback callback, void* userData) {
  return guarded(callback, [&](Loop& l) { return l.addDescriptor(fd, callback, userData); });
}

int OrloLoop(void) {
  return loop().run() ? 0 : -1;
}

void OrloLoopQuit(void) {
  loop().quit();
}
