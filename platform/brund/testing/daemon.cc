#include "platform/brund/testing/daemon.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace tarnik::test {

using namespace brund;
namespace {

std::uint64_t little(const Bytes& bytes, std::size_t at, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = size; i > 0; --i) {
    value = value << 8 | bytes[at + i - 1];
  }
  return value;
}

std::string contents(std::FILE* file) {
  std::string text;
  char chunk[4096];
  ssize_t got = 0;
  while ((got = pread(fileno(file), chunk, sizeof chunk, static_cast<off_t>(text.size()))) > 0) {
    text.append(chunk, static_cast<std::size_t>(got));
  }
  return text;
}

void mustSucceed(const std::vector<std::string>& command) {
  Program program(command);
  EXPECT_EQ(program.wait(), 0) << command.back() << ": " << program.errors();
}

}  // namespace

Program::Program(const std::vector<std::string>& command)
    : output_(std::tmpfile()), errors_(std::tmpfile()) {
  std::vector<char*> argv;
  for (const std::string& word : command) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fileno(output_.get()), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(errors_.get()), STDERR_FILENO);
  EXPECT_EQ(posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0) << command[0];
  posix_spawn_file_actions_destroy(&actions);
}

Program::~Program() {
  if (running()) {
    signal(SIGKILL);
    wait();
  }
}

void Program::signal(int number) const {
  kill(pid_, number);
}

bool Program::running() {
  if (!ended_ && pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) {
    ended_ = true;
  }
  return !ended_ && pid_ > 0;
}

int Program::wait() {
  if (!ended_ && waitpid(pid_, &status_, 0) == pid_) {
    ended_ = true;
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

std::string Program::output() const {
  return contents(output_.get());
}

std::string Program::errors() const {
  return contents(errors_.get());
}

Driver::Driver(const std::string& frames) {
  mustSucceed({ZORVIKCTL, "load", "--frames", frames});
}

Driver::~Driver() {
  mustSucceed({ZORVIKCTL, "unload"});
}

std::string Driver::status() const {
  Program program({ZORVIKCTL, "status"});
  EXPECT_EQ(program.wait(), 0) << program.errors();
  return program.output();
}

Daemon::Daemon(unsigned pauseUs, bool reads)
    : pause_us_(pauseUs), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kDaemonSocket);
  unlink(kDaemonSocket);
  EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  server_ = std::thread([this, reads] { serve(reads); });
}

void Daemon::stop() {
  stopping_ = true;
  if (server_.joinable()) {
    server_.join();
  }
  if (queue_ != nullptr) {
    zorlib_q_close(queue_);
    zorlib_ifg_close(group_);
    queue_ = nullptr;
  }
  if (socket_) {
    receiveMetadata();
    socket_.reset();
    unlink(kDaemonSocket);
  }
}

void Daemon::serve(bool reads) {
  if (!waitForQueue([this] { return stopping_.load(); })) {
    return;
  }
  EXPECT_EQ(zorlib_ifg_open("brund", &group_), 0) << std::strerror(errno);
  EXPECT_EQ(zorlib_q_app_open(group_, "TarnikQ", ZORLIB_READ, &queue_), 0) << std::strerror(errno);
  if (reads && queue_ != nullptr) {
    read();
  }
}

void Daemon::read() {
  for (;;) {
    const bool last = stopping_;  // what was queued before is still read
    zorvik_frm_desc* frame = nullptr;
    while (zorlib_q_read_timeout(queue_, &frame, 0) == 0) {
      take(frame);
      usleep(pause_us_);
    }
    if (last) {
      return;
    }
    receiveMetadata();
    usleep(200);
  }
}

void Daemon::take(zorvik_frm_desc* frame) {
  Received received;
  received.capture = frame->tag;
  received.wire_len = frame->wire_len;
  received.ts_sec = frame->ts_sec;
  received.ts_usec = frame->ts_usec;
  received.if_in = frame->if_in;
  received.if_out = frame->if_out;
  received.last = (frame->flags & ZORVIK_FRM_PKT_FLAG_4) != 0;
  EXPECT_EQ(frame->frame_size, frame->cap_len);
  const std::uint8_t* data = zorlib_q_frm_data(queue_, frame);
  EXPECT_NE(data, nullptr);
  if (data != nullptr) {
    received.data.assign(data, data + frame->cap_len);
  }
  receiveMetadata();
  received.announced = metadata_.contains(received.capture);
  frames_.push_back(std::move(received));
  EXPECT_EQ(zorlib_frm_free(group_, frame), 0) << std::strerror(errno);
}

void Daemon::receiveMetadata() {
  Bytes bytes(100);
  ssize_t got = 0;
  while ((got = recv(socket_.get(), bytes.data(), bytes.size(), 0)) > 0) {
    EXPECT_EQ(got, 39);
    const Metadata metadata{little(bytes, 19, 8), little(bytes, 27, 8),
                            static_cast<std::uint32_t>(little(bytes, 35, 4))};
    EXPECT_TRUE(metadata_.emplace(metadata.capture_id, metadata).second);
  }
}

std::vector<Received> Daemon::framesOf(std::uint64_t capture) const {
  std::vector<Received> result;
  for (const Received& frame : frames_) {
    if (frame.capture == capture) {
      result.push_back(frame);
    }
  }
  return result;
}

bool waitForQueue(const std::function<bool()>& stop) {
  while (access(kQueueNode, F_OK) != 0) {
    if (stop()) {
      return false;
    }
    usleep(1000);
  }
  return true;
}

std::vector<std::string> brundSim(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), BRUND_SIM);
  return arguments;
}

}  // namespace tarnik::test

// The test runs itself again with the driver's stand-in preloaded.
int main(int argc, char** argv) {
  const char* preloaded = std::getenv("LD_PRELOAD");
  if (preloaded == nullptr || std::strstr(preloaded, ZORVIK_PRELOAD) == nullptr) {
    setenv("LD_PRELOAD", ZORVIK_PRELOAD, 1);
    execvp(argv[0], argv);  // a chroot has no /proc/self/exe
    std::perror("cannot run again with the driver preloaded");
    return 1;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
