#include "daemon/testing/daemon_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

namespace tarnik::test {
namespace {

constexpr char kSocket[] = "/run/orlo/tarnikd.sock";

sockaddr_un addressOf(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

std::vector<std::string> commandWith(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{TARNIKD_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

}  // namespace

void prepareRoot() {
  namespace fs = std::filesystem;
  fs::remove_all("/etc/tarnik.conf");
  fs::remove_all("/var/support/tarnik");
  fs::create_directory("/var/support/tarnik");
  for (const char* path : {"/etc/ips.conf", "/etc/acl.conf", "/dev/zorvik/ctl"}) {
    writeFile(path, "");
  }
}

DaemonProcess::DaemonProcess(const std::vector<std::string>& arguments,
                             const std::vector<std::string>& environment)
    : Process(commandWith(arguments), environment) {}

Ending DaemonProcess::stop() {
  signal(SIGTERM);
  return wait();
}

std::vector<std::string> DaemonProcess::log() const {
  const std::string text = errors();
  std::vector<std::string> lines;
  std::size_t end = 0;
  for (std::size_t begin = 0; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    std::string line = text.substr(begin, end - begin);
    if (line.starts_with("tarnikd[")) {
      line.erase(0, line.find(": ") + 2);
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> DaemonProcess::newLog() const {
  std::vector<std::string> lines = log();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(mark_));
  return lines;
}

bool DaemonProcess::waitFor(std::string_view text, std::size_t count) {
  const auto found = [&] {
    const std::vector<std::string> lines = newLog();
    return std::ranges::count_if(lines, [&](const std::string& line) {
             return line.find(text) != std::string::npos;
           }) >= static_cast<std::ptrdiff_t>(count);
  };
  static_cast<void>(eventually([&] { return found() || !running(); }));
  if (found()) {
    return true;
  }
  ADD_FAILURE() << "not in the log: " << text << "\n" << errors();
  return false;
}

Client::Client(Name name) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  static int number = 0;
  if (name == Name::kBound) {
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

void Client::close(SocketFile file) {
  fd_.reset();
  if (file == SocketFile::kRemove && !path_.empty()) {
    ::unlink(path_.c_str());
  }
}

std::uint8_t daemonState() {
  const std::optional<Bytes> response = Client().ask(Message().bytes());
  return response && response->size() == 23 ? response->at(21) : 255;
}

}  // namespace tarnik::test
