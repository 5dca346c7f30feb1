// make-traffic writes a capture file of generated conversations (HTTP, DNS, TLS, SSH, ping; IPv4,
// IPv6 and VLAN). The demo uses it where no real traffic can be captured.
#include <pcap/pcap.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "base/result.h"
#include "tools/make-traffic/conversation.h"

namespace tarnik {
namespace {

Result<> write(const std::string& path, const std::vector<TimedFrame>& frames) {
  const std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap(pcap_open_dead(DLT_EN10MB, 65535),
                                                            pcap_close);
  pcap_dumper_t* dumper = pcap_dump_open(pcap.get(), path.c_str());
  if (dumper == nullptr) {
    return Error{pcap_geterr(pcap.get())};
  }
  for (const TimedFrame& frame : frames) {
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(frame.microseconds / 1000000);
    header.ts.tv_usec = static_cast<suseconds_t>(frame.microseconds % 1000000);
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.bytes.size());
    pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.bytes.data());
  }
  const bool written = pcap_dump_flush(dumper) == 0 && std::ferror(pcap_dump_file(dumper)) == 0;
  const int reason = errno;
  pcap_dump_close(dumper);
  if (!written) {
    return Error{"cannot write " + path + ": " + std::strerror(reason)};
  }
  return {};
}

int fail(const std::string& text, int status) {
  std::fprintf(stderr, "make-traffic: %s\n", text.c_str());
  return status;
}

int run(int argc, char** argv) {
  unsigned flows = 200;
  unsigned seconds = 10;
  unsigned seed = 1;
  std::string file;
  CLI::App app{"Writes a capture file of generated conversations.", "make-traffic"};
  app.add_option("--flows", flows, "Number of conversations")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(1U, 100000U));
  app.add_option("--seconds", seconds, "Time during which they begin")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(1U, 86400U));
  app.add_option("--seed", seed, "Different sizes and times for each N")
      ->type_name("N")
      ->capture_default_str();
  app.add_option("file", file, "The capture file to write")->type_name("FILE")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    return fail(std::string(error.what()) + " (make-traffic --help)", 2);
  }
  const Result<> written = write(file, makeConversations(flows, seconds, seed));
  return written ? 0 : fail(written.error(), written.exitStatus());
}

}  // namespace
}  // namespace tarnik

int main(int argc, char** argv) {
  return tarnik::run(argc, argv);
}
