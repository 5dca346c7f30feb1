#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "include/orlo_sdk.h"
#include "internal.h"

static_assert(sizeof(OrloCmdSender) == 116);
static_assert(offsetof(OrloCmdSender, address.sun_path) == 2);

namespace {

using orlo::OwnedFd;

// Where opening the socket failed. A code of OrloCmdInit has the step in its upper bits and the
// errno in its lower bits, so that OrloCmdError can describe it later.
enum class Step {
  None,
  Name,
  Open,
  Directory,
  LockFile,
  Lock,
  Live,
  Foreign,
  Remove,
  Socket,
  Bind,
};

constexpr int kErrnoBits = 12;

// %1$s is the daemon's name, %2$s the socket's path, %3$s the text of the errno.
constexpr const char* kTexts[] = {
    "no error",
    "'%1$s' cannot name a command socket: use 1 to 64 letters, digits, '.', '_' or '-'",
    "the command socket %2$s is already open in this process: close it first",
    "cannot create " ORLO_RUN_DIR ": %3$s",
    "cannot open " ORLO_RUN_DIR "/%1$s.lock: %3$s",
    "another %1$s runs and holds " ORLO_RUN_DIR "/%1$s.lock: stop it first",
    "another process listens on %2$s: stop it first",
    "%2$s is in the way and no socket: remove it",
    "cannot remove the stale socket %2$s: %3$s",
    "cannot create a socket for %2$s: %3$s",
    "cannot bind %2$s: %3$s",
};

struct CommandSocket {
  OwnedFd lock;  // held while the socket is open
  OwnedFd fd;
  char name[65] = "";
  sockaddr_un address{};
};
CommandSocket commandSocket;

int failure(Step step, int error) {
  return (static_cast<int>(step) << kErrnoBits) | error;
}

int failure(Step step) {
  return failure(step, errno);
}

// A datagram socket, non-blocking. Empty with errno.
OwnedFd newSocket() {
  return OwnedFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// Removes a stale socket, one without a listener, from the socket's path.
int clearPath(const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(address.sun_path, &status) != 0) {
    return errno == ENOENT ? 0 : failure(Step::Remove);
  }
  if (!S_ISSOCK(status.st_mode)) {
    return failure(Step::Foreign, EEXIST);
  }
  const OwnedFd probe = newSocket();
  if (!probe) {
    return failure(Step::Socket);
  }
  if (::connect(probe.get(), generic(address), sizeof address) == 0) {
    return failure(Step::Live, EADDRINUSE);
  }
  return ::unlink(address.sun_path) == 0 ? 0 : failure(Step::Remove);
}

// Opens `socket`, whose name and address are set. The lock makes checking the path, removing the
// stale socket and binding the new one atomic among instances, and refuses a second instance.
int openSocket(CommandSocket& socket) {
  if (!orlo::makeDirectory(ORLO_RUN_DIR)) {
    return failure(Step::Directory);
  }
  socket.lock = orlo::lockInstance(socket.name);
  if (!socket.lock) {
    return failure(errno == EWOULDBLOCK ? Step::Lock : Step::LockFile);
  }
  if (const int code = clearPath(socket.address); code != 0) {
    return code;
  }
  socket.fd = newSocket();
  // Before bind, so that the file never has another mode.
  if (!socket.fd || ::fchmod(socket.fd.get(), 0600) != 0) {
    return failure(Step::Socket);
  }
  if (::bind(socket.fd.get(), generic(socket.address), sizeof socket.address) != 0) {
    return failure(Step::Bind);
  }
  return 0;
}

}  // namespace

int OrloCmdInit(const char* name, int /*flags*/) {
  if (commandSocket.fd) {
    return failure(Step::Open, EALREADY);
  }
  CommandSocket socket;
  std::snprintf(socket.name, sizeof socket.name, "%s", name == nullptr ? "" : name);
  socket.address.sun_family = AF_UNIX;
  std::snprintf(socket.address.sun_path, sizeof socket.address.sun_path, ORLO_RUN_DIR "/%s.sock",
                socket.name);
  const int code = orlo::validName(name) ? openSocket(socket) : failure(Step::Name, EINVAL);
  if (code != 0) {
    socket.lock.reset();
    socket.fd.reset();
  }
  commandSocket = std::move(socket);
  return code;
}

int OrloCmdFd(void) {
  return commandSocket.fd.get();
}

size_t OrloCmdRecv(void* buffer, size_t size, OrloCmdSender* sender, int /*flags*/) {
  OrloCmdSender from{};
  socklen_t length = sizeof from.address;
  ssize_t received = 0;
  do {
    received = ::recvfrom(commandSocket.fd.get(), buffer, size, MSG_DONTWAIT,
                          reinterpret_cast<sockaddr*>(&from.address), &length);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    return 0;
  }
  // The kernel counts a terminating NUL that did not fit into a path of full length.
  from.addressLength = length < sizeof from.address ? length : sizeof from.address;
  if (sender != nullptr) {
    *sender = from;
  }
  return static_cast<size_t>(received);
}

int OrloCmdResp(const void* bytes, uint16_t length, const OrloCmdSender* sender) {
  if (sender == nullptr || sender->addressLength <= sizeof(sa_family_t)) {
    return -EDESTADDRREQ;
  }
  if (sender->addressLength > sizeof sender->address) {
    return -EINVAL;
  }
  ssize_t sent = 0;
  do {
    sent = ::sendto(commandSocket.fd.get(), bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                    generic(sender->address), sender->addressLength);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? -errno : static_cast<int>(sent);
}

const char* OrloCmdError(int code) {
  static char text[512];
  const auto step = static_cast<std::size_t>(code < 0 ? 0 : code >> kErrnoBits);
  const int error = code & ((1 << kErrnoBits) - 1);
  if (code < 0 || step >= std::size(kTexts)) {
    std::snprintf(text, sizeof text, "unknown error %d", code);
    return text;
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(text, sizeof text, kTexts[step], commandSocket.name, commandSocket.address.sun_path,
                std::strerror(error));
#pragma GCC diagnostic pop
  if ((error == EACCES || error == EPERM) && ::geteuid() != 0) {
    const std::size_t used = std::strlen(text);
    std::snprintf(text + used, sizeof text - used, " (run as root)");
  }
  return text;
}

void OrloCmdFini(void) {
  if (commandSocket.fd) {
    // Still under the lock, so that it is this process's socket that goes.
    ::unlink(commandSocket.address.sun_path);
  }
  commandSocket.fd.reset();
  commandSocket.lock.reset();
}
