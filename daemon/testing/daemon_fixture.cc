#include "daemon/testing/daemon_fixture.h"

#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/owned.h"
#include "base/paths.h"
#include "base/testing/captured_log.h"
#include "base/testing/files.h"
#include "base/testing/process.h"
#include "daemon/callbacks.h"
#include "daemon/entry.h"
#include "daemon/loop_context.h"
#include "daemon/options.h"
#include "daemon/reload.h"
#include "daemon/settings.h"
#include "daemon/state.h"

namespace tarnik::test {
namespace {

int recordFd = -1;

void writeRecord() {
  for (const std::string& entry : sdk().entries()) {
    dprintf(recordFd, "%s\n", entry.c_str());
  }
}

void runInChild(const std::vector<std::string>& arguments) {
  std::atexit(writeRecord);
  std::vector<std::string> texts{"/usr/sbin/tarnikd"};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  std::exit(tarnikMain(static_cast<int>(texts.size()), pointers.data()));
}

std::string contentOf(const OwnedFd& file) {
  return readFile("/proc/self/fd/" + std::to_string(file.get())).value_or("");
}

}  // namespace

DaemonTest::DaemonTest() {
  resetSdk();
  options = Options();
  getSettings() = TarnikSettings();
  DaemonState = 0;
  optind = 0;  // resets the option library
  clearLog();
  onLogLine([](const LogLine& line) {
    sdk().record("<" + std::to_string(line.priority) + ">" + line.text);
  });
  sdk().nameOf(onTerminate, "onTerminate");
  sdk().nameOf(onReload, "onReload");
  sdk().nameOf(onRestart, "onRestart");
  sdk().nameOf(onTimeout, "onTimeout");
  sdk().nameOf(onCacheExpiry, "onCacheExpiry");
  sdk().nameOf(onCommand, "onCommand");
}

DaemonTest::~DaemonTest() {
  onLogLine(nullptr);
}

Record withoutParsing(const Record& record) {
  Record result = record;
  std::erase_if(result, [](const std::string& entry) {
    return entry.starts_with("OrloTuning") || entry.starts_with("OrloParse");
  });
  return result;
}

Record startingWith(const Record& record, const std::vector<std::string>& prefixes) {
  Record result;
  std::copy_if(record.begin(), record.end(), std::back_inserter(result),
               [&prefixes](const std::string& entry) {
                 return std::any_of(
                     prefixes.begin(), prefixes.end(),
                     [&entry](const std::string& prefix) { return entry.starts_with(prefix); });
               });
  return result;
}

Outcome runDaemon(const std::vector<std::string>& arguments) {
  const OwnedFd errors(::memfd_create("errors", MFD_CLOEXEC));
  const OwnedFd record(::memfd_create("record", MFD_CLOEXEC));
  EXPECT_TRUE(errors && record);
  Process child([&] {
    recordFd = record.get();
    ::dup2(errors.get(), STDERR_FILENO);
    runInChild(arguments);
    return 0;
  });
  const Ending ending = child.wait();
  Outcome outcome{ending.exitStatus, {}, contentOf(errors)};
  const std::string text = contentOf(record);
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find('\n', begin);
    outcome.record.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return outcome;
}

void writeConfig(std::string_view text) {
  std::remove(kConfigPath);
  writeFile(kConfigPath, text);
}

}  // namespace tarnik::test
