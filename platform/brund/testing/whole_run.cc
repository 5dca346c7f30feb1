#include "platform/brund/testing/whole_run.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/brund/announcer.h"

namespace tarnik::test {
namespace {

std::uint64_t littleEndian(const Bytes& bytes, std::size_t at, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = size; i > 0; --i) {
    value = value << 8 | bytes[at + i - 1];
  }
  return value;
}

std::string zorvikctl(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{ZORVIKCTL};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const Finished finished = runProgram(command);
  EXPECT_EQ(finished.ending, kSucceeded) << arguments.front() << ": " << finished.errors;
  return finished.output;
}

}  // namespace

Driver::Driver(const std::string& frames) {
  zorvikctl({"load", "--frames", frames});
}

Driver::~Driver() {
  zorvikctl({"unload"});
}

std::string Driver::status() const {
  return zorvikctl({"status"});
}

Daemon::Daemon(Reads reads, unsigned pauseUs)
    : pauseUs_(pauseUs), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, brund::kDaemonSocket);
  unlink(brund::kDaemonSocket);
  EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  server_ = std::thread([this, reads] { serve(reads); });
}

std::uint32_t Daemon::queued() const {
  zorlib_q* const queue = queue_;
  return queue != nullptr ? zorlib_q_used(queue) : 0;
}

void Daemon::stop() {
  stopping_ = true;
  if (server_.joinable()) {
    server_.join();
  }
  if (zorlib_q* const queue = queue_.exchange(nullptr); queue != nullptr) {
    zorlib_q_close(queue);
    zorlib_ifg_close(group_);
  }
  if (socket_) {
    receiveAllMetadata();
    socket_.reset();
    unlink(brund::kDaemonSocket);
  }
}

void Daemon::serve(Reads reads) {
  if (!waitForQueue([this] { return stopping_.load(); })) {
    return;
  }
  zorlib_q* queue = nullptr;
  EXPECT_EQ(zorlib_ifg_open("brund", &group_), 0) << std::strerror(errno);
  EXPECT_EQ(zorlib_q_app_open(group_, "TarnikQ", ZORLIB_READ, &queue), 0) << std::strerror(errno);
  queue_ = queue;
  if (reads == Reads::kFrames && queue != nullptr) {
    read();
  } else if (reads == Reads::kSlowSocket && queue != nullptr) {
    readSlowSocket();
  }
}

void Daemon::read() {
  for (;;) {
    const bool last = stopping_;  // frames that were queued before are still read
    zorvik_frm_desc* frame = nullptr;
    while (zorlib_q_read_timeout(queue_, &frame, 0) == 0) {
      receiveAllMetadata();
      take(frame);
      usleep(pauseUs_);
    }
    if (last) {
      return;
    }
    receiveAllMetadata();
    usleep(200);
  }
}

void Daemon::readSlowSocket() {
  while (!stopping_) {
    zorvik_frm_desc* frame = nullptr;
    while (zorlib_q_read_timeout(queue_, &frame, 0) == 0) {
      take(frame);
    }
    receiveMetadata();
    usleep(pauseUs_);
  }
}

void Daemon::take(zorvik_frm_desc* frame) {
  Received received;
  received.capture = frame->tag;
  received.wireLength = frame->wire_len;
  received.seconds = frame->ts_sec;
  received.microseconds = frame->ts_usec;
  received.ifIn = frame->if_in;
  received.ifOut = frame->if_out;
  received.last = (frame->flags & ZORVIK_FRM_PKT_FLAG_4) != 0;
  EXPECT_EQ(frame->frame_size, frame->cap_len);
  const std::uint8_t* data = zorlib_q_frm_data(queue_, frame);
  EXPECT_NE(data, nullptr);
  if (data != nullptr) {
    received.data.assign(data, data + frame->cap_len);
  }
  received.announced = metadata_.contains(received.capture);
  frames_.push_back(std::move(received));
  ++taken_;
  EXPECT_EQ(zorlib_frm_free(group_, frame), 0) << std::strerror(errno);
}

bool Daemon::receiveMetadata() {
  Bytes bytes(100);
  const ssize_t got = recv(socket_.get(), bytes.data(), bytes.size(), 0);
  if (got <= 0) {
    return false;
  }
  EXPECT_EQ(got, 39);
  const CaptureMetadata metadata{littleEndian(bytes, 19, 8), littleEndian(bytes, 27, 8),
                                 static_cast<std::uint32_t>(littleEndian(bytes, 35, 4))};
  EXPECT_TRUE(metadata_.emplace(metadata.captureId, metadata).second);
  return true;
}

void Daemon::receiveAllMetadata() {
  while (receiveMetadata()) {
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
  const auto exists = [] { return access("/dev/zorvik/brund/TarnikQ", F_OK) == 0; };
  return eventually([&] { return exists() || stop(); }) && exists();
}

void RunTest::start(const std::string& rules, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{BRUND_SIM, "--rules",      rules,     "--account",
                                   account_,  "--queue-size", queueSize_};
  command.insert(command.end(), arguments.begin(), arguments.end());
  program_ = std::make_unique<Process>(command);
}

int RunTest::interrupt() {
  EXPECT_TRUE(eventually([this] {
    program_->signal(SIGINT);
    usleep(200000);
    return !program_->running();
  }));
  return finish();
}

}  // namespace tarnik::test

// Starts the test again with the driver stand-in preloaded.
int main(int argc, char** argv) {
  const char* preloaded = std::getenv("LD_PRELOAD");
  if (preloaded == nullptr || std::strstr(preloaded, ZORVIK_PRELOAD) == nullptr) {
    setenv("LD_PRELOAD", ZORVIK_PRELOAD, 1);
    execvp(argv[0], argv);  // a chroot has no /proc/self/exe
    std::perror("cannot start again with the driver preloaded");
    return 1;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
