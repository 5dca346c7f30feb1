// make-traffic: writes a capture file of made-up conversations (HTTP, DNS, TLS, SSH, ping; IPv4,
// IPv6 and VLAN), for machines on which no real traffic can be sniffed.
#include <getopt.h>
#include <pcap/pcap.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "tools/make-traffic/conversation.h"

namespace {

constexpr char kUsage[] =
    "usage: make-traffic [OPTION]... FILE\n"
    "\n"
    "Writes FILE, a capture of made-up conversations between hosts that do not exist.\n"
    "\n"
    "  --flows N      how many conversations (default 200)\n"
    "  --seconds N    over how many seconds they begin (default 10)\n"
    "  --seed N       another N, other sizes and times (default 1)\n"
    "  --help         this text\n";

struct Options {
  unsigned flows = 200;
  unsigned seconds = 10;
  unsigned seed = 1;
  const char* file = nullptr;
};

bool parseNumber(const char* text, unsigned minimum, unsigned maximum, unsigned& result) {
  const std::string_view view(text);
  unsigned value = 0;
  const auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (error != std::errc{} || end != view.data() + view.size() || value < minimum ||
      value > maximum) {
    std::fprintf(stderr, "make-traffic: %s is not a number from %u to %u\n", text, minimum,
                 maximum);
    return false;
  }
  result = value;
  return true;
}

// 0 to go on, else the exit status plus 1.
int parse(int argc, char** argv, Options& options) {
  static const option kOptions[] = {{"flows", required_argument, nullptr, 'f'},
                                    {"seconds", required_argument, nullptr, 's'},
                                    {"seed", required_argument, nullptr, 'r'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {}};
  for (int choice; (choice = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    bool good = false;
    switch (choice) {
      case 'f':
        good = parseNumber(optarg, 1, 100000, options.flows);
        break;
      case 's':
        good = parseNumber(optarg, 1, 86400, options.seconds);
        break;
      case 'r':
        good = parseNumber(optarg, 0, UINT32_MAX, options.seed);
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        return 1;
      default:
        break;
    }
    if (!good) {
      return 3;
    }
  }
  if (optind + 1 != argc) {
    std::fputs(kUsage, stderr);
    return 3;
  }
  options.file = argv[optind];
  return 0;
}

int write(const Options& options) {
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap(pcap_open_dead(DLT_EN10MB, 65535),
                                                            pcap_close);
  pcap_dumper_t* dumper = pcap_dump_open(pcap.get(), options.file);
  if (dumper == nullptr) {
    std::fprintf(stderr, "make-traffic: %s\n", pcap_geterr(pcap.get()));
    return 1;
  }
  for (const tarnik::TimedFrame& frame :
       tarnik::makeConversations(options.flows, options.seconds, options.seed)) {
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(frame.microseconds / 1000000);
    header.ts.tv_usec = static_cast<suseconds_t>(frame.microseconds % 1000000);
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.bytes.size());
    pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.bytes.data());
  }
  const bool good = pcap_dump_flush(dumper) == 0;
  pcap_dump_close(dumper);
  if (!good) {
    std::fprintf(stderr, "make-traffic: cannot write %s: %s\n", options.file, std::strerror(errno));
  }
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int done = parse(argc, argv, options);
  return done != 0 ? done - 1 : write(options);
}
