#include "capture/testing/scripted_queue.h"

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "frameq/tarnik_if.h"

namespace tarnik {
namespace test {
namespace {

Script script;  // written while no capture thread runs

std::mutex mutex;  // guards the variables below
std::condition_variable changed;
std::vector<std::string> called;
std::size_t nextRead = 0;
bool waiting = false;
bool shutDown = false;
unsigned shutdowns = 0;

void call(const std::string& name) {
  if (script.onCall) {
    script.onCall(name);
  }
  const std::lock_guard guard(mutex);
  called.push_back(name);
}

}  // namespace

void play(Script newScript) {
  script = std::move(newScript);
  const std::lock_guard guard(mutex);
  called.clear();
  nextRead = 0;
  waiting = false;
  shutDown = false;
  shutdowns = 0;
}

std::vector<std::string> calls() {
  const std::lock_guard guard(mutex);
  return called;
}

void awaitEndOfScript() {
  std::unique_lock lock(mutex);
  changed.wait(lock, [] { return waiting; });
}

void loseShutdown() {
  const std::lock_guard guard(mutex);
  shutDown = false;
}

}  // namespace test

using test::call;
using test::changed;
using test::mutex;
using test::script;

int TarnikIfgOpen() {
  call("TarnikIfgOpen");
  return script.ifgOpen;
}

void TarnikIfgClose() {
  call("TarnikIfgClose");
}

TarnikQ* TarnikIfCreate() {
  call("TarnikIfCreate");
  return script.create ? new TarnikQ : nullptr;
}

void TarnikIfDestroy(TarnikQ* q) {
  call("TarnikIfDestroy");
  delete q;
}

// Opening the driver's queue ends a shutdown too.
int TarnikQ::Open(int mode) {
  call("Open(" + std::to_string(mode) + ")");
  const std::lock_guard guard(mutex);
  test::shutDown = false;
  return script.open;
}

int TarnikQ::Close() {
  call("Close");
  return kQOk;
}

void TarnikQ::Shutdown() {
  call("Shutdown");
  const std::lock_guard guard(mutex);
  test::shutDown = ++test::shutdowns > script.lostShutdowns;
  changed.notify_all();
}

void TarnikQ::SetTimeout(std::int32_t ms) {
  call("SetTimeout(" + std::to_string(ms) + ")");
}

int TarnikQ::ReadPkt(zorvik_frm_desc** frame, std::uint8_t** data, std::uint64_t* tag,
                     std::uint32_t* flags) {
  std::unique_lock lock(mutex);
  if (test::nextRead == script.reads.size()) {
    test::waiting = true;
    changed.notify_all();
    changed.wait(lock, [] { return test::shutDown; });
  }
  if (test::shutDown) {
    errno = ESHUTDOWN;
    return kQFailed;
  }
  const test::Read& read = script.reads[test::nextRead++];
  lock.unlock();
  if (read.before) {
    read.before();
  }
  *frame = read.frame;
  *data = read.data;
  *tag = read.captureId;
  *flags = read.flags;
  errno = read.error;
  return read.result;
}

int TarnikQ::Free(zorvik_frm_desc* frame) {
  call("Free(" + std::to_string(frame->index) + ")");
  return kQOk;
}

std::uint32_t TarnikQ::room(const std::uint8_t*) {
  return test::kRoom;
}

// The capture thread calls none of these.
int TarnikQ::getSize() {
  std::abort();
}
int TarnikQ::getFd() {
  std::abort();
}
int TarnikQ::Read(zorvik_frm_desc**) {
  std::abort();
}
int TarnikQ::Write(zorvik_frm_desc*) {
  std::abort();
}
int TarnikQ::WritePkt(zorvik_frm_desc*, std::uint64_t, std::uint32_t) {
  std::abort();
}
int TarnikQ::Drain() {
  std::abort();
}
void TarnikQ::Dump(zorvik_frm_desc*, const char*) {
  std::abort();
}

}  // namespace tarnik
