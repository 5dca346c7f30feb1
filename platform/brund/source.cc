#include "platform/brund/source.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/owned.h"

namespace tarnik::brund {
namespace {

// A descriptor cannot carry more. A longer frame (of an offload) is truncated rather than lost.
constexpr int kLiveSnaplen = static_cast<int>(kMaxFrame);
constexpr int kLiveBuffer = 32 << 20;
constexpr int kLiveBlockMs = 50;

// ---- The stream through which libpcap reads a file

// A classic capture file has the maximum length of its frames in its header. libpcap truncates
// longer frames to it and reports that as their captured length. Therefore libpcap gets to see a
// header with the largest maximum that it accepts.
struct CaptureStream {
  static constexpr std::size_t kHeaderSize = 24;

  OwnedFd fd;
  std::array<unsigned char, kHeaderSize> header{};
  std::size_t headerSize = 0;
  std::size_t position = 0;
};

// Microseconds, nanoseconds and the variant with longer record headers.
bool isClassic(std::uint32_t magic) {
  return magic == 0xa1b2c3d4 || magic == 0xa1b23c4d || magic == 0xa1b2cd34;
}

void raiseSnaplen(CaptureStream& stream) {
  constexpr std::size_t kSnaplenAt = 16;
  constexpr std::uint32_t kMaxSnaplen = 262144;
  std::uint32_t magic = 0;
  std::uint32_t snaplen = 0;
  std::memcpy(&magic, stream.header.data(), sizeof magic);
  std::memcpy(&snaplen, stream.header.data() + kSnaplenAt, sizeof snaplen);
  const bool swapped = isClassic(__builtin_bswap32(magic));
  if (stream.headerSize < CaptureStream::kHeaderSize || (!isClassic(magic) && !swapped)) {
    return;
  }
  const auto inFileOrder = [&](std::uint32_t value) {
    return swapped ? __builtin_bswap32(value) : value;
  };
  snaplen = inFileOrder(std::max(inFileOrder(snaplen), kMaxSnaplen));
  std::memcpy(stream.header.data() + kSnaplenAt, &snaplen, sizeof snaplen);
}

ssize_t readSome(int fd, void* buffer, std::size_t size) {
  ssize_t got = 0;
  do {
    got = read(fd, buffer, size);
  } while (got < 0 && errno == EINTR);
  return got;
}

ssize_t readCookie(void* cookie, char* buffer, std::size_t size) {
  CaptureStream& stream = *static_cast<CaptureStream*>(cookie);
  if (stream.position < stream.headerSize) {
    const std::size_t n = std::min(size, stream.headerSize - stream.position);
    std::memcpy(buffer, stream.header.data() + stream.position, n);
    stream.position += n;
    return static_cast<ssize_t>(n);
  }
  return readSome(stream.fd.get(), buffer, size);
}

int closeCookie(void* cookie) {
  std::default_delete<CaptureStream>{}(static_cast<CaptureStream*>(cookie));
  return 0;
}

Result<> readHeader(CaptureStream& stream) {
  while (stream.headerSize < CaptureStream::kHeaderSize) {
    const ssize_t got = readSome(stream.fd.get(), stream.header.data() + stream.headerSize,
                                 CaptureStream::kHeaderSize - stream.headerSize);
    if (got < 0) {
      return Error{std::strerror(errno)};
    }
    if (got == 0) {
      break;
    }
    stream.headerSize += static_cast<std::size_t>(got);
  }
  if (stream.headerSize == 0) {
    return Error{"empty file"};
  }
  raiseSnaplen(stream);
  return Done{};
}

Result<Stream> openCapture(const std::string& path) {
  auto capture = std::make_unique<CaptureStream>();
  // O_NONBLOCK: opening a pipe must not wait for its writer.
  capture->fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!capture->fd || fstat(capture->fd.get(), &status) != 0) {
    return Error{std::strerror(errno)};
  }
  if (!S_ISREG(status.st_mode)) {
    return Error{S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file"};
  }
  if (const auto read = readHeader(*capture); !read) {
    return Error{read.error()};
  }
  Stream stream(fopencookie(capture.get(), "r", {readCookie, nullptr, nullptr, closeCookie}));
  if (!stream) {
    return Error{std::strerror(errno)};
  }
  static_cast<void>(capture.release());  // closeCookie deletes it
  return stream;
}

// ---- libpcap

Error pcapError(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return Error{std::move(text)};
}

Result<> checkLinkType(pcap_t* handle) {
  const int type = pcap_datalink(handle);
  if (type == DLT_EN10MB) {
    return Done{};
  }
  const char* name = pcap_datalink_val_to_name(type);
  return Error{"link type " + (name != nullptr ? std::string(name) : std::to_string(type)) +
               " is not Ethernet"};
}

// As pcap_next_ex, of which it returns the result.
int readFrame(pcap_t* handle, Frame& frame) {
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  const int result = pcap_next_ex(handle, &header, &data);
  if (result == 1) {
    frame.data = {data, header->caplen};
    frame.wireLength = header->len;
    frame.seconds = static_cast<std::uint32_t>(header->ts.tv_sec);
    frame.microseconds = static_cast<std::uint32_t>(header->ts.tv_usec);
  }
  return result;
}

}  // namespace

void ClosePcap::operator()(pcap* handle) const noexcept {
  pcap_close(handle);
}

Result<FileSource> FileSource::open(const std::string& path) {
  Result<Stream> stream = openCapture(path);
  if (!stream) {
    return Error{stream.error()};
  }
  char error[PCAP_ERRBUF_SIZE] = "";
  PcapHandle handle(
      pcap_fopen_offline_with_tstamp_precision(stream->get(), PCAP_TSTAMP_PRECISION_MICRO, error));
  if (!handle) {
    return pcapError(error);
  }
  static_cast<void>(stream->release());  // pcap_close closes it
  if (const auto checked = checkLinkType(handle.get()); !checked) {
    return Error{checked.error()};
  }
  return FileSource(std::move(handle));
}

Result<bool> FileSource::next(Frame& frame) {
  const int result = readFrame(handle_.get(), frame);
  if (result != 1 && result != PCAP_ERROR_BREAK) {
    return pcapError(pcap_geterr(handle_.get()));
  }
  return result == 1;
}

Result<LiveSource> LiveSource::open(const std::string& interface) {
  char error[PCAP_ERRBUF_SIZE] = "";
  PcapHandle owned(pcap_create(interface.c_str(), error));
  pcap_t* const handle = owned.get();
  if (handle == nullptr) {
    return pcapError(error);
  }
  // These fail only on a handle that is already active.
  pcap_set_snaplen(handle, kLiveSnaplen);
  pcap_set_promisc(handle, 1);
  pcap_set_timeout(handle, kLiveBlockMs);
  pcap_set_buffer_size(handle, kLiveBuffer);
  const int result = pcap_activate(handle);
  if (result < 0) {
    const std::string reason = pcap_statustostr(result);
    const std::string detail = pcap_geterr(handle);
    return pcapError(detail.empty() || detail == reason ? reason : reason + " (" + detail + ")");
  }
  if (const auto checked = checkLinkType(handle); !checked) {
    return Error{checked.error()};
  }
  if (pcap_setnonblock(handle, 1, error) != 0) {
    return pcapError(error);
  }
  return LiveSource(std::move(owned), pcap_get_selectable_fd(handle));
}

Result<bool> LiveSource::next(Frame& frame) {
  const int result = readFrame(handle_.get(), frame);
  if (result != 0 && result != 1) {
    return pcapError(pcap_geterr(handle_.get()));
  }
  return result == 1;
}

void LiveSource::wait(int ms, int writable) const {
  pollfd ready[] = {{fd_, POLLIN, 0}, {writable, POLLOUT, 0}};
  static_cast<void>(poll(ready, 2, ms));
}

std::uint64_t LiveSource::dropped() const {
  pcap_stat stats{};
  if (pcap_stats(handle_.get(), &stats) != 0) {
    return 0;
  }
  return std::uint64_t{stats.ps_drop} + stats.ps_ifdrop;
}

}  // namespace tarnik::brund
