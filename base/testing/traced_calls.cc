#include "base/testing/traced_calls.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace tarnik::test {
namespace {

constexpr auto kMark = SYS_gettid;

// The number of the system call that the stopped thread is entering, or -1.
std::int64_t callOf(pid_t thread) {
  __ptrace_syscall_info info{};
  const bool entry = ::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) > 0 &&
                     info.op == PTRACE_SYSCALL_INFO_ENTRY;
  return entry ? static_cast<std::int64_t>(info.entry.nr) : -1;
}

// The signal that stopped a thread and must be delivered to it, or 0.
int signalOf(int status) {
  const bool traps = WSTOPSIG(status) == (SIGTRAP | 0x80) || status >> 16 != 0;
  return traps || WSTOPSIG(status) == SIGSTOP ? 0 : WSTOPSIG(status);
}

}  // namespace

void markCalls() {
  ::syscall(kMark);
}

bool letCallsBeTraced() {
  if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
    return false;
  }
  return ::raise(SIGSTOP) == 0;
}

std::map<std::uint64_t, unsigned> tracedCalls(pid_t child) {
  std::map<std::uint64_t, unsigned> counts;
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
    return counts;
  }
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
  ::ptrace(PTRACE_SYSCALL, child, nullptr, 0);
  pid_t marking = 0;
  int marks = 0;
  for (pid_t thread = 0; (thread = ::waitpid(-1, &status, __WALL)) > 0;) {
    if (!WIFSTOPPED(status)) {
      if (thread == child) {
        break;
      }
      continue;
    }
    const std::int64_t call = WSTOPSIG(status) == (SIGTRAP | 0x80) ? callOf(thread) : -1;
    if (call == kMark && (marks == 0 || thread == marking)) {
      marking = thread;
      ++marks;
    } else if (call >= 0 && marks == 1 && thread == marking) {
      ++counts[static_cast<std::uint64_t>(call)];
    }
    ::ptrace(PTRACE_SYSCALL, thread, nullptr, signalOf(status));
  }
  return counts;
}

}  // namespace tarnik::test
