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

// The "key=value" lines of an info file; the daemon's own come last, so the last of a key counts.
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

// Counts the records. The bytes of a whole file come from its size, since libpcap cuts what it
// hands out to the snapshot length of the file header.
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
  double first = 0;
  while ((result = pcap_next_ex(pcap.get(), &header, &data)) == 1) {
    const double time =
        static_cast<double>(header->ts.tv_sec) + static_cast<double>(header->ts.tv_usec) / 1e6;
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

// One column of the table: as wide as its widest cell, numbers to the right.
struct Column {
  const char* title;
  bool right;
  std::string (*cell)(const Capture&);
};

std::string seconds(double value) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(3) << value;
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
    {"SECONDS", true, [](const Capture& c) { return seconds(c.duration); }},
    {"ENDED", false, [](const Capture& c) { return c.ended; }},
};

}  // namespace

bool readCaptures(const std::string& directory, std::vector<Capture>& captures) {
  std::error_code failed;
  std::vector<fs::path> paths;
  for (fs::directory_iterator entry(directory, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    std::error_code gone;
    // Reading a pipe or a device need not end.
    if (entry->path().extension() == ".pcap" && entry->is_regular_file(gone)) {
      paths.push_back(entry->path());
    }
  }
  if (failed) {
    errno = failed.value();
    return false;
  }
  std::sort(paths.begin(), paths.end());
  std::transform(paths.begin(), paths.end(), std::back_inserter(captures), readCapture);
  return true;
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
      line += (kColumns[i].right ? pad + cell : cell + pad) + "  ";
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
  std::ostringstream out;
  out << '[';
  for (const Capture& c : captures) {
    out << (&c == captures.data() ? "\n" : ",\n") << "{\"file\":" << jsonString(c.file)
        << ",\"trigger\":" << jsonString(c.trigger) << ",\"flow\":" << jsonString(c.flow)
        << ",\"flowId\":" << jsonString(c.flowId) << ",\"start\":" << c.start
        << ",\"frames\":" << c.frames << ",\"bytes\":" << c.bytes
        << ",\"duration\":" << seconds(c.duration) << ",\"ended\":" << jsonString(c.ended) << '}';
  }
  out << "\n]\n";
  return out.str();
}

}  // namespace tarnik::ctl
