#include "platform/brund/filter.h"

#include <pcap/pcap.h>

namespace tarnik::brund {
namespace {

struct ClosePcap {
  void operator()(pcap_t* pcap) const noexcept { pcap_close(pcap); }
};

}  // namespace

void Filter::Release::operator()(bpf_program* program) const noexcept {
  pcap_freecode(program);
  std::default_delete<bpf_program>{}(program);
}

Filter Filter::compile(const std::string& text, std::string& error) {
  constexpr int kSnaplen = 262144;
  Filter filter;
  const std::unique_ptr<pcap_t, ClosePcap> pcap(pcap_open_dead(DLT_EN10MB, kSnaplen));
  if (!pcap) {
    error = "out of memory";
    return filter;
  }
  auto program = std::make_unique<bpf_program>();
  if (pcap_compile(pcap.get(), program.get(), text.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    error = pcap_geterr(pcap.get());
    return filter;
  }
  filter.program_.reset(program.release());
  return filter;
}

bool Filter::matches(const Frame& frame) const {
  pcap_pkthdr header{};
  header.caplen = static_cast<bpf_u_int32>(frame.data.size());
  header.len = frame.wire_len;
  return pcap_offline_filter(program_.get(), &header, frame.data.data()) != 0;
}

}  // namespace tarnik::brund
