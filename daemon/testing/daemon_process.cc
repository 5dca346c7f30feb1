#include "daemon/testing/daemon_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace tarnik::test {
namespace {

constexpr char kSocket[] = "/run/orlo/tarnikd.sock";
constexpr auto kPatience = std::chrono::seconds(60);

// Asks `done` again and again; false when it does not come true in time.
bool eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

sockaddr_un addressOf(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

void writeFile(const char* path, std::string_view text) {
  std::ofstream(path, std::ios::binary) << text;
}

void prepareRoot() {
  namespace fs = std::filesystem;
  fs::remove_all("/etc/tarnik.conf");
  fs::remove_all("/var/support/tarnik");
  fs::create_directory("/var/support/tarnik");
  for (const char* path : {"/etc/ips.conf", "/etc/acl.conf", "/dev/zorvik/ctl"}) {
    writeFile(path, "");
  }
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& arguments)
    : output_(::memfd_create("log", MFD_CLOEXEC)) {
  std::vector<std::string> texts{TARNIKD_PATH};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output_.get(), STDERR_FILENO);
  EXPECT_EQ(posix_spawn(&pid_, TARNIKD_PATH, &actions, nullptr, pointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

void DaemonProcess::signal(int signo) const {
  ASSERT_GT(pid_, 0);
  ASSERT_EQ(::kill(pid_, signo), 0);
}

int DaemonProcess::wait() {
  int status = 0;
  if (!eventually([&] { return ::wait4(pid_, &status, WNOHANG, &usage_) == pid_; })) {
    ADD_FAILURE() << "tarnikd did not end";
    return -1;
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int DaemonProcess::stop() {
  signal(SIGTERM);
  return wait();
}

std::vector<std::string> DaemonProcess::log() const {
  struct stat status {};
  ::fstat(output_.get(), &status);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t size = ::pread(output_.get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) {
      break;  // still being written
    }
    std::string line = text.substr(begin, end - begin);
    if (line.starts_with("tarnikd[")) {
      line.erase(0, line.find(": ") + 2);
    }
    lines.push_back(std::move(line));
    begin = end + 1;
  }
  return lines;
}

std::vector<std::string> DaemonProcess::newLog() const {
  std::vector<std::string> lines = log();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(mark_));
  return lines;
}

bool DaemonProcess::waitFor(std::string_view text, std::size_t count) const {
  const auto there = [&] {
    const std::vector<std::string> lines = newLog();
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
             return line.find(text) != std::string::npos;
           }) >= static_cast<std::ptrdiff_t>(count);
  };
  if (eventually(there)) {
    return true;
  }
  ADD_FAILURE() << "not in the log: " << text;
  return false;
}

Client::Client(bool named) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  static int number = 0;
  if (named) {
    path_ = "/tmp/client-" + std::to_string(::getpid()) + "-" + std::to_string(++number);
    const sockaddr_un address = addressOf(path_);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
}

void Client::send(const Bytes& datagram) const {
  const sockaddr_un address = addressOf(kSocket);
  ASSERT_EQ(::sendto(fd_.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
            static_cast<ssize_t>(datagram.size()))
      << std::strerror(errno);
}

std::optional<Bytes> Client::receive(int milliseconds) const {
  pollfd waiting{fd_.get(), POLLIN, 0};
  if (::poll(&waiting, 1, milliseconds) != 1) {
    return std::nullopt;
  }
  Bytes response(4096);
  const ssize_t size = ::recv(fd_.get(), response.data(), response.size(), 0);
  response.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return response;
}

void Client::close(bool unlinkFile) {
  fd_.reset();
  if (unlinkFile && !path_.empty()) {
    ::unlink(path_.c_str());
  }
}

}  // namespace tarnik::test
