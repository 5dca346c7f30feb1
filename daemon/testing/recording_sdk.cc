#include "daemon/testing/recording_sdk.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <string_view>

unsigned OrloLogDebugLevel = 0;

struct OrloTuning {
  FILE* stream;
  int descriptor;
  int line = 0;
  std::string key;
  std::string value;
};

namespace tarnik::test {
namespace {

constexpr int kSocket = 77;
constexpr std::uint32_t kElapsed = 5;  // what the timer shows until it is tickled

std::unique_ptr<RecordingSdk>& instance() {
  static auto platform = std::make_unique<RecordingSdk>();
  return platform;
}

std::string quoted(const char* text) {
  return "\"" + std::string(text) + "\"";
}

std::string number(std::int64_t value) {
  return std::to_string(value);
}

}  // namespace

RecordingSdk& sdk() {
  return *instance();
}

void resetSdk() {
  instance() = std::make_unique<RecordingSdk>();
  OrloLogDebugLevel = 0;
}

void RecordingSdk::noteTickle() {
  if (timer != nullptr && timer->elapsed == 0) {
    entries_.emplace_back("tickle");
    timer->elapsed = kElapsed;
  }
}

void RecordingSdk::record(std::string entry) {
  noteTickle();
  entries_.push_back(std::move(entry));
}

int RecordingSdk::call(std::string entry, int usual) {
  const auto failure =
      std::find_if(failures_.begin(), failures_.end(),
                   [&entry](const auto& candidate) { return entry.starts_with(candidate.first); });
  const int result = failure == failures_.end() ? usual : failure->second;
  const std::string made = entry;
  record(std::move(entry));
  if (onCall) {
    onCall(made);
  }
  return result;
}

std::vector<std::string> RecordingSdk::entries() {
  noteTickle();
  return entries_;
}

void RecordingSdk::clear() {
  noteTickle();
  entries_.clear();
}

std::string RecordingSdk::name(const void* pointer) const {
  if (pointer == nullptr) {
    return "null";
  }
  const auto found = names_.find(pointer);
  return found == names_.end() ? "?" : found->second;
}

std::string RecordingSdk::userDataName(const void* userData) {
  if (userData == nullptr) {
    return "null";
  }
  if (context_ == nullptr) {
    context_ = userData;
  }
  return userData == context_ ? "context" : "another";
}

}  // namespace tarnik::test

using tarnik::test::kElapsed;
using tarnik::test::kSocket;
using tarnik::test::number;
using tarnik::test::quoted;
using tarnik::test::sdk;

namespace {

std::string registration(const char* call, std::int64_t value, OrloLoopCallback callback,
                         const void* userData) {
  return std::string(call) + "(" + number(value) + ", " +
         sdk().name(reinterpret_cast<const void*>(callback)) + ", " + sdk().userDataName(userData) +
         ")";
}

}  // namespace

extern "C" {

int OrloLoopSignalAdd(int signo, OrloLoopCallback callback, void* userData) {
  sdk().signals_[signo] = {callback, userData};
  return sdk().call(registration("OrloLoopSignalAdd", signo, callback, userData));
}

int OrloLoopTimerAdd(int64_t seconds, OrloLoopCallback callback, void* userData) {
  sdk().timers_[static_cast<int>(seconds)] = {callback, userData};
  return sdk().call(registration("OrloLoopTimerAdd", seconds, callback, userData));
}

int OrloLoopFdAdd(int fd, OrloLoopCallback callback, void* userData) {
  sdk().descriptors_[fd] = {callback, userData};
  return sdk().call(registration("OrloLoopFdAdd", fd, callback, userData));
}

int OrloLoop(void) {
  const int result = sdk().call("OrloLoop()");
  for (const auto& step : sdk().loopSteps) {
    if (sdk().quit_) {
      break;
    }
    step();
  }
  sdk().record("OrloLoop returns");
  return result;
}

void OrloLoopQuit(void) {
  sdk().quit_ = true;
  sdk().record("OrloLoopQuit()");
}

int OrloCmdInit(const char* name, int flags) {
  return sdk().call("OrloCmdInit(" + quoted(name) + ", " + number(flags) + ")");
}

int OrloCmdFd(void) {
  return sdk().call("OrloCmdFd()", kSocket);
}

size_t OrloCmdRecv(void* buffer, size_t size, OrloCmdSender* sender, int flags) {
  const auto* const bytes = static_cast<const unsigned char*>(buffer);
  const bool zeroed =
      std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
  const std::string before(reinterpret_cast<const char*>(sender), sizeof *sender);
  const bool blank = before == std::string(sizeof *sender, '\0');
  sdk().record("OrloCmdRecv(" + std::string(zeroed ? "zeroes" : "rubbish") + ", " +
               number(static_cast<std::int64_t>(size)) + ", " + (blank ? "zeroes" : "rubbish") +
               ", " + number(flags) + ")");
  if (sdk().datagrams.empty()) {
    return 0;
  }
  const auto datagram = sdk().datagrams.front();
  sdk().datagrams.erase(sdk().datagrams.begin());
  const std::size_t held = std::min(size, datagram.bytes.size());
  if (held > 0) {
    std::memcpy(buffer, datagram.bytes.data(), held);
  }
  sender->address.sun_family = AF_UNIX;
  std::memcpy(sender->address.sun_path, datagram.sender.data(),
              std::min(datagram.sender.size(), sizeof sender->address.sun_path));
  sender->addressLength = static_cast<std::uint32_t>(2 + datagram.sender.size());
  return datagram.count.value_or(held);
}

int OrloCmdResp(const void* bytes, uint16_t length, const OrloCmdSender* sender) {
  const auto* const first = static_cast<const std::uint8_t*>(bytes);
  sdk().responses.push_back({{first, first + length}, *sender});
  return sdk().call("OrloCmdResp(" + number(length) + ", " + quoted(sender->address.sun_path) + ")",
                    length);
}

const char* OrloCmdError(int code) {
  static std::string text;
  sdk().record("OrloCmdError(" + number(code) + ")");
  text = "text of " + number(code);
  return text.c_str();
}

void OrloCmdFini(void) {
  sdk().record("OrloCmdFini()");
}

int OrloLogInit(const char* name, unsigned foreground) {
  return sdk().call("OrloLogInit(" + quoted(name) + ", " + number(foreground) + ")");
}

void OrloLogEvent(const char* event, const char* category, const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  sdk().record("OrloLogEvent(" + quoted(event) + ", " + quoted(category) + ", " + quoted(text) +
               ")");
}

void OrloLogEventNoArg(const char* event, const char* category) {
  sdk().record("OrloLogEventNoArg(" + quoted(event) + ", " + quoted(category) + ")");
}

OrloTuning* OrloTuningAlloc(FILE* stream) {
  return sdk().call("OrloTuningAlloc(" + std::string(stream == nullptr ? "null" : "stream") +
                    ")") == 0
             ? std::make_unique<OrloTuning>(OrloTuning{stream, ::fileno(stream), 0, {}, {}})
                   .release()
             : nullptr;
}

// "key=value" is a setting and "?N" a line that makes the parser return N; there is no other
// syntax.
int OrloTuningParseLine(OrloTuning* tuning, const char** key, const char** value) {
  sdk().record("OrloTuningParseLine()");
  char line[256];
  if (std::fgets(line, sizeof line, tuning->stream) == nullptr) {
    return ORLO_TUNING_END;
  }
  ++tuning->line;
  const std::string_view text(line, std::strcspn(line, "\n"));
  if (text.starts_with('?')) {
    return std::atoi(line + 1);
  }
  const std::size_t equals = text.find('=');
  tuning->key = text.substr(0, equals);
  tuning->value = text.substr(equals + 1);
  *key = tuning->key.c_str();
  *value = tuning->value.c_str();
  return ORLO_TUNING_SETTING;
}

int OrloTuningCurrLine(const OrloTuning* tuning) {
  sdk().record("OrloTuningCurrLine()");
  return tuning->line;
}

void OrloTuningRelease(OrloTuning* tuning) {
  const bool open = ::fcntl(tuning->descriptor, F_GETFD) != -1;
  sdk().record(open ? "OrloTuningRelease()" : "OrloTuningRelease() after its stream");
  const std::unique_ptr<OrloTuning> owner(tuning);
}

bool OrloParseBool(const char* text, bool* result) {
  if (sdk().call("OrloParseBool(" + quoted(text) + ")") != 0) {
    return false;
  }
  const std::string_view value(text);
  if (value != "true" && value != "false") {
    return false;
  }
  *result = value == "true";
  return true;
}

bool OrloParseInt(const char* text, int64_t minimum, int64_t maximum, int64_t* result) {
  if (sdk().call("OrloParseInt(" + quoted(text) + ", " + number(minimum) + ", " + number(maximum) +
                 ")") != 0) {
    return false;
  }
  std::int64_t value = 0;
  const char* const end = text + std::strlen(text);
  const auto [stopped, error] = std::from_chars(text, end, value);
  if (error != std::errc() || stopped != end || value < minimum || value > maximum) {
    return false;
  }
  *result = value;
  return true;
}

int OrloWatchdogDaemon(const char* name, const char* description, unsigned flags) {
  return sdk().call("OrloWatchdogDaemon(" + quoted(name) + ", " + quoted(description) + ", " +
                    number(flags) + ")");
}

OrloWatchdogTimer* OrloWatchdogTimerVirtCreate(void) {
  if (sdk().call("OrloWatchdogTimerVirtCreate()") != 0) {
    return nullptr;
  }
  sdk().timer = std::make_unique<OrloWatchdogTimer>();
  sdk().timer->elapsed = kElapsed;
  return sdk().timer.get();
}

int OrloWatchdogTimerVirtSet(OrloWatchdogTimer* timer, int64_t seconds) {
  return sdk().call("OrloWatchdogTimerVirtSet(" +
                    std::string(timer == sdk().timer.get() ? "timer" : "?") + ", " +
                    number(seconds) + ")");
}

void OrloWatchdogTimerVirtDestroy(OrloWatchdogTimer* timer) {
  sdk().record("OrloWatchdogTimerVirtDestroy(" +
               std::string(timer == nullptr             ? "null"
                           : timer == sdk().timer.get() ? "timer"
                                                        : "?") +
               ")");
  sdk().timer.reset();
}
}
