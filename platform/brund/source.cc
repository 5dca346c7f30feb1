#include "platform/brund/source.h"

#include <pcap/pcap.h>
#include <poll.h>

#include <cstring>

#include "platform/brund/capture_stream.h"

namespace tarnik::brund {
namespace {

// What the descriptor can carry: longer frames (offload) are cut rather than lost.
constexpr int kLiveSnaplen = static_cast<int>(kMaxFrame);
constexpr int kLiveBuffer = 32 << 20;
constexpr int kLiveBlockMs = 50;

bool checkLinkType(pcap_t* handle, std::string& reason) {
  const int type = pcap_datalink(handle);
  if (type == DLT_EN10MB) {
    return true;
  }
  const char* name = pcap_datalink_val_to_name(type);
  reason = "link type " + (name != nullptr ? std::string(name) : std::to_string(type)) +
           " is not Ethernet";
  return false;
}

void fill(Frame& frame, const pcap_pkthdr& header, const u_char* data) {
  frame.data = {data, header.caplen};
  frame.wire_len = header.len;
  frame.ts_sec = static_cast<std::uint32_t>(header.ts.tv_sec);
  frame.ts_usec = static_cast<std::uint32_t>(header.ts.tv_usec);
}

std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n') {
      c = ' ';
    }
  }
  return text;
}

}  // namespace

void ClosePcap::operator()(pcap* handle) const noexcept {
  pcap_close(handle);
}

bool FileSource::open(const std::string& path, std::string& reason) {
  handle_.reset();
  Stream stream = openCapture(path, reason);
  if (!stream) {
    return false;
  }
  char error[PCAP_ERRBUF_SIZE] = "";
  handle_.reset(
      pcap_fopen_offline_with_tstamp_precision(stream.get(), PCAP_TSTAMP_PRECISION_MICRO, error));
  if (!handle_) {
    reason = oneLine(error);
    return false;
  }
  static_cast<void>(stream.release());  // the handle's from now on
  return checkLinkType(handle_.get(), reason);
}

Next FileSource::next(Frame& frame, std::string& reason) {
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  switch (pcap_next_ex(handle_.get(), &header, &data)) {
    case 1:
      fill(frame, *header, data);
      return Next::kFrame;
    case PCAP_ERROR_BREAK:
      return Next::kNothing;
    default:
      reason = oneLine(pcap_geterr(handle_.get()));
      return Next::kFailed;
  }
}

bool LiveSource::open(const std::string& interface, std::string& reason) {
  char error[PCAP_ERRBUF_SIZE] = "";
  handle_.reset(pcap_create(interface.c_str(), error));
  if (!handle_) {
    reason = oneLine(error);
    return false;
  }
  pcap_t* handle = handle_.get();
  // These fail only on a handle that is already active.
  pcap_set_snaplen(handle, kLiveSnaplen);
  pcap_set_promisc(handle, 1);
  pcap_set_timeout(handle, kLiveBlockMs);
  pcap_set_buffer_size(handle, kLiveBuffer);
  const int result = pcap_activate(handle);
  if (result < 0) {
    const std::string detail = oneLine(pcap_geterr(handle));
    reason = pcap_statustostr(result);
    reason += detail.empty() || detail == reason ? "" : " (" + detail + ")";
    return false;
  }
  if (!checkLinkType(handle, reason)) {
    return false;
  }
  if (pcap_setnonblock(handle, 1, error) != 0) {
    reason = oneLine(error);
    return false;
  }
  fd_ = pcap_get_selectable_fd(handle);
  return true;
}

Next LiveSource::next(Frame& frame, int ms, std::string& reason) {
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  int result = pcap_next_ex(handle_.get(), &header, &data);
  if (result == 0) {
    pollfd ready{fd_, POLLIN, 0};
    static_cast<void>(poll(&ready, 1, ms));
    result = pcap_next_ex(handle_.get(), &header, &data);
  }
  if (result == 1) {
    fill(frame, *header, data);
    return Next::kFrame;
  }
  if (result == 0) {
    return Next::kNothing;
  }
  reason = oneLine(pcap_geterr(handle_.get()));
  return Next::kFailed;
}

LiveSource::Drops LiveSource::drops() const {
  pcap_stat stats{};
  if (!handle_ || pcap_stats(handle_.get(), &stats) != 0) {
    return {};
  }
  return {stats.ps_drop, stats.ps_ifdrop};
}

}  // namespace tarnik::brund
