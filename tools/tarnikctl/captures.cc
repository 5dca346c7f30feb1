#include "tools/tarnikctl/captures.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "packet/decode.h"
#include "tools/tarnikctl/output.h"

namespace tarnik::ctl {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kFileHeader = 24;
constexpr std::uint64_t kRecordHeader = 16;
constexpr std::size_t kMaxInfoLine = 4096;

using Info = std::map<std::string, std::string>;

// Reads the "key=value" lines of an info file. If a key occurs twice the later line counts: first
// come the lines of the policy, then the daemon's own.
Info readInfo(const fs::path& path) {
  Info info;
  std::error_code failed;
  if (!fs::is_regular_file(path, failed)) {
    return info;
  }
  std::ifstream stream(path);
  for (std::string line; std::getline(stream, line);) {
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos && line.size() <= kMaxInfoLine) {
      info[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  return info;
}

std::string valueOf(const Info& info, const std::string& key) {
  const auto found = info.find(key);
  return found == info.end() ? std::string() : found->second;
}

void describe(const Info& info, const std::string& fileName, Capture& capture) {
  if (info.contains("ips.issue.id")) {
    capture.trigger = "ips " + valueOf(info, "ips.issue.name") + " (" +
                      std::to_string(static_cast<std::uint32_t>(
                          std::atoll(valueOf(info, "ips.issue.id").c_str()))) +
                      ")";
    capture.flowId = valueOf(info, "ips.flow.id");
  } else if (fileName.find(".unknown.") != std::string::npos) {
    capture.trigger = "unknown";
    capture.flowId = valueOf(info, "nap.flow.id");
  } else if (info.contains("nap.priority")) {
    capture.trigger =
        "nap " + valueOf(info, "nap.priority") + " (" + valueOf(info, "nap.uuid") + ")";
    capture.flowId = valueOf(info, "nap.flow.id");
  }
}

// Reads the records: their count, bytes and times. libpcap cuts the frames to the snapshot length
// in the file header, so the bytes of a complete file are computed from its size.
void readRecords(const fs::path& path, Capture& capture) {
  char error[PCAP_ERRBUF_SIZE] = "";
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap(pcap_open_offline(path.c_str(), error),
                                                            pcap_close);
  if (!pcap) {
    capture.ended = error;
    return;
  }
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  int result = 0;
  std::chrono::microseconds first{0};
  while ((result = pcap_next_ex(pcap.get(), &header, &data)) == 1) {
    const std::chrono::microseconds time =
        std::chrono::seconds(header->ts.tv_sec) + std::chrono::microseconds(header->ts.tv_usec);
    if (capture.frames++ == 0) {
      const Frame frame{.data = {data, header->caplen}, .wireLength = header->len};
      capture.flow = decode(frame).key.text();
      capture.start = header->ts.tv_sec;
      first = time;
    }
    capture.bytes += header->caplen;
    capture.duration = std::max(capture.duration, time - first);
  }
  if (result == PCAP_ERROR) {
    capture.ended = pcap_geterr(pcap.get());
    return;
  }
  capture.ended = "whole";
  std::error_code failed;
  const std::uint64_t size = fs::file_size(path, failed);
  const std::uint64_t headers = kFileHeader + capture.frames * kRecordHeader;
  if (!failed && size > headers) {
    capture.bytes = size - headers;
  }
}

Capture readCapture(const fs::path& path) {
  Capture capture;
  capture.file = path.filename();
  readRecords(path, capture);
  const Info info = readInfo(fs::path(path).replace_extension(".info"));
  describe(info, capture.file, capture);
  if (capture.ended == "whole") {
    std::error_code failed;
    if (info.empty()) {
      capture.ended = "no info file";
    } else if (valueOf(info, "file.size") != std::to_string(fs::file_size(path, failed))) {
      capture.ended = "size differs from info file";
    }
  }
  return capture;
}

// A column of the table, as wide as its widest cell.
struct Column {
  const char* title;
  bool alignRight;
  std::string (*cell)(const Capture&);
};

double seconds(std::chrono::microseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

std::string secondsText(std::chrono::microseconds duration) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(3) << seconds(duration);
  return out.str();
}

constexpr Column kColumns[] = {
    {"FILE", false, [](const Capture& c) { return printable(c.file); }},
    {"TIME (UTC)", false, [](const Capture& c) { return utcTime(c.start); }},
    {"TRIGGER", false,
     [](const Capture& c) { return c.trigger.empty() ? "-" : printable(c.trigger); }},
    {"FLOW", false, [](const Capture& c) { return printable(c.flow); }},
    {"FRAMES", true, [](const Capture& c) { return std::to_string(c.frames); }},
    {"BYTES", true, [](const Capture& c) { return std::to_string(c.bytes); }},
    {"SECONDS", true, [](const Capture& c) { return secondsText(c.duration); }},
    {"ENDED", false, [](const Capture& c) { return c.ended; }},
};

}  // namespace

Result<std::vector<Capture>> readCaptures(const std::string& directory) {
  std::error_code failed;
  std::vector<fs::path> paths;
  for (fs::directory_iterator entry(directory, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    std::error_code gone;
    // A read from a pipe or a device might never end.
    if (entry->path().extension() == ".pcap" && entry->is_regular_file(gone)) {
      paths.push_back(entry->path());
    }
  }
  if (failed) {
    return Error{"cannot list " + directory + ": " + failed.message()};
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Capture> captures;
  std::transform(paths.begin(), paths.end(), std::back_inserter(captures), readCapture);
  return captures;
}

std::string toTable(const std::vector<Capture>& captures) {
  std::ostringstream out;
  std::vector<std::size_t> widths;
  for (const Column& column : kColumns) {
    std::size_t width = std::string(column.title).size();
    for (const Capture& capture : captures) {
      width = std::max(width, column.cell(capture).size());
    }
    widths.push_back(width);
  }
  const auto row = [&](auto&& cellOf) {
    std::string line;
    for (std::size_t i = 0; i < std::size(kColumns); ++i) {
      const std::string cell = cellOf(kColumns[i]);
      const std::string pad(widths[i] - std::min(widths[i], cell.size()), ' ');
      line += (kColumns[i].alignRight ? pad + cell : cell + pad) + "  ";
    }
    out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
  };
  row([](const Column& column) { return std::string(column.title); });
  for (const Capture& capture : captures) {
    row([&](const Column& column) { return column.cell(capture); });
  }
  return out.str();
}

std::string toJson(const std::vector<Capture>& captures) {
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  for (const Capture& c : captures) {
    json.push_back({{"file", c.file},
                    {"trigger", c.trigger},
                    {"flow", c.flow},
                    {"flowId", c.flowId},
                    {"start", c.start},
                    {"frames", c.frames},
                    {"bytes", c.bytes},
                    {"duration", seconds(c.duration)},
                    {"ended", c.ended}});
  }
  // File names may hold any bytes. Those that are not UTF-8 become U+FFFD.
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace tarnik::ctl
