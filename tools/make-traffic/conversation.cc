#include "tools/make-traffic/conversation.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace tarnik {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kStart = 1700000000ULL * 1000000;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kPush = 0x08;
constexpr std::uint8_t kAck = 0x10;

void put8(Bytes& out, unsigned value) {
  out.push_back(static_cast<std::uint8_t>(value));
}
void put16(Bytes& out, unsigned value) {
  put8(out, value >> 8);
  put8(out, value);
}
void put32(Bytes& out, std::uint32_t value) {
  put16(out, value >> 16);
  put16(out, value & 0xffff);
}
void putText(Bytes& out, std::string_view text) {
  std::copy(text.begin(), text.end(), std::back_inserter(out));
}

void set16(Bytes& out, std::size_t at, unsigned value) {
  out[at] = static_cast<std::uint8_t>(value >> 8);
  out[at + 1] = static_cast<std::uint8_t>(value);
}

// The internet checksum (RFC 1071) over `bytes`, added to what `sum` holds.
unsigned checksum(const Bytes& bytes, std::size_t from, unsigned sum = 0) {
  for (std::size_t i = from; i < bytes.size(); ++i) {
    sum += (i - from) % 2 == 0 ? unsigned{bytes[i]} << 8 : bytes[i];
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return ~sum & 0xffff;
}

struct Conversation {
  unsigned client;  // number of the host, 1 to 65534
  unsigned server;
  unsigned clientPort;
  unsigned serverPort;
  bool ipv6;
  bool vlan;
};

// Builds the frames of one conversation, one after the other.
class Script {
 public:
  Script(const Conversation& conversation, std::uint64_t begin, std::mt19937& random,
         std::vector<TimedFrame>& out)
      : c_(conversation), now_(begin), random_(random), out_(out) {}

  void tcpSession(std::string_view request, std::size_t answerBytes) {
    tcp(true, kSyn, {});
    tcp(false, kSyn | kAck, {});
    tcp(true, kAck, {});
    tcp(true, kPush | kAck, Bytes(request.begin(), request.end()));
    for (std::size_t sent = 0; sent < answerBytes;) {
      const std::size_t part = std::min<std::size_t>(1400, answerBytes - sent);
      Bytes payload(part);
      std::generate(payload.begin(), payload.end(),
                    [this] { return static_cast<std::uint8_t>('a' + random_() % 26); });
      tcp(false, kPush | kAck, payload);
      sent += part;
      if (sent % 2800 == 0 || sent == answerBytes) {
        tcp(true, kAck, {});
      }
    }
    tcp(true, kFin | kAck, {});
    tcp(false, kFin | kAck, {});
    tcp(true, kAck, {});
  }

  void dnsLookup(std::string_view host) {
    const unsigned id = static_cast<unsigned>(random_() & 0xffff);
    Bytes question;
    put8(question, static_cast<unsigned>(host.size()));
    putText(question, host);
    putText(question, std::string_view("\7example\0", 9));
    put16(question, 1);
    put16(question, 1);
    for (const bool query : {true, false}) {
      Bytes message;
      put16(message, id);
      put16(message, query ? 0x0100 : 0x8180);
      put16(message, 1);
      put16(message, query ? 0 : 1);
      put32(message, 0);
      message.insert(message.end(), question.begin(), question.end());
      if (!query) {
        put16(message, 0xc00c);
        put16(message, 1);
        put16(message, 1);
        put32(message, 300);
        put16(message, 4);
        put32(message, 0xc6336400u + c_.server % 256);
      }
      udp(query, message);
    }
  }

  void ping(unsigned count) {
    for (unsigned sequence = 1; sequence <= count; ++sequence) {
      for (const bool request : {true, false}) {
        Bytes message;
        put8(message, request ? 8 : 0);
        put8(message, 0);
        put16(message, 0);
        put16(message, c_.clientPort);
        put16(message, sequence);
        message.resize(64, 0x55);
        set16(message, 2, checksum(message, 0));
        ip(request, 1, message);
      }
    }
  }

 private:
  void tcp(bool fromClient, std::uint8_t flags, const Bytes& payload) {
    std::uint32_t& sequence = fromClient ? clientSequence_ : serverSequence_;
    Bytes segment;
    put16(segment, fromClient ? c_.clientPort : c_.serverPort);
    put16(segment, fromClient ? c_.serverPort : c_.clientPort);
    put32(segment, sequence);
    put32(segment, (flags & kAck) != 0 ? (fromClient ? serverSequence_ : clientSequence_) : 0);
    put8(segment, 5 << 4);
    put8(segment, flags);
    put16(segment, 64240);
    put32(segment, 0);
    segment.insert(segment.end(), payload.begin(), payload.end());
    sequence += static_cast<std::uint32_t>(payload.size()) + ((flags & (kSyn | kFin)) != 0 ? 1 : 0);
    set16(segment, 16, checksum(segment, 0, pseudoHeader(fromClient, kTcp, segment.size())));
    ip(fromClient, kTcp, segment);
  }

  void udp(bool fromClient, const Bytes& payload) {
    Bytes datagram;
    put16(datagram, fromClient ? c_.clientPort : c_.serverPort);
    put16(datagram, fromClient ? c_.serverPort : c_.clientPort);
    put16(datagram, static_cast<unsigned>(payload.size() + 8));
    put16(datagram, 0);
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    set16(datagram, 6, checksum(datagram, 0, pseudoHeader(fromClient, kUdp, datagram.size())));
    ip(fromClient, kUdp, datagram);
  }

  Bytes address(bool ofClient) const {
    const unsigned host = ofClient ? c_.client : c_.server;
    Bytes result;
    if (c_.ipv6) {  // documentation prefix
      put32(result, 0x20010db8);
      put32(result, ofClient ? 1 : 2);
      put32(result, 0);
      put32(result, host);
    } else {  // networks for benchmarks
      put16(result, ofClient ? 0xc612 : 0xc613);
      put16(result, host);
    }
    return result;
  }

  unsigned pseudoHeader(bool fromClient, unsigned protocol, std::size_t length) const {
    Bytes header = address(fromClient);
    const Bytes to = address(!fromClient);
    header.insert(header.end(), to.begin(), to.end());
    put32(header, static_cast<std::uint32_t>(length));
    put32(header, protocol);
    return ~checksum(header, 0) & 0xffff;
  }

  void ip(bool fromClient, unsigned protocol, const Bytes& payload) {
    Bytes frame;
    const std::array<unsigned, 2> hosts = {fromClient ? c_.server : c_.client,
                                           fromClient ? c_.client : c_.server};
    for (const unsigned host : hosts) {  // locally administered addresses
      put32(frame, 0x02000000);
      put16(frame, host);
    }
    if (c_.vlan) {
      put16(frame, 0x8100);
      put16(frame, 42);
    }
    put16(frame, c_.ipv6 ? 0x86dd : 0x0800);
    const std::size_t start = frame.size();
    if (c_.ipv6) {
      put32(frame, 0x60000000);
      put16(frame, static_cast<unsigned>(payload.size()));
      put8(frame, protocol);
      put8(frame, 64);
    } else {
      put16(frame, 0x4500);
      put16(frame, static_cast<unsigned>(payload.size() + 20));
      put16(frame, ++identification_);
      put16(frame, 0x4000);
      put8(frame, 64);
      put8(frame, protocol);
      put16(frame, 0);
    }
    for (const bool client : {fromClient, !fromClient}) {
      const Bytes bytes = address(client);
      frame.insert(frame.end(), bytes.begin(), bytes.end());
    }
    if (!c_.ipv6) {
      set16(frame, start + 10, checksum(frame, start));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    if (frame.size() < 60) {
      frame.resize(60);
    }
    now_ += 50 + random_() % 20000;
    out_.push_back({now_, std::move(frame)});
  }

  const Conversation& c_;
  std::uint64_t now_;
  std::mt19937& random_;
  std::vector<TimedFrame>& out_;
  std::uint32_t clientSequence_ = 1000;
  std::uint32_t serverSequence_ = 500000;
  unsigned identification_ = 0;
};

void converse(unsigned number, std::uint64_t begin, std::mt19937& random,
              std::vector<TimedFrame>& out) {
  enum Kind { kHttp, kDns, kTls, kSsh, kPing, kKinds };
  constexpr std::array<unsigned, kKinds> kPorts = {80, 53, 443, 22, 0};
  const auto kind = static_cast<Kind>(number % kKinds);
  const bool ipv6 = kind != kPing && number % 3 == 1;
  const Conversation conversation{.client = 1 + number % 60000,
                                  .server = 1 + number % 7,
                                  .clientPort = 20000 + number % 40000,
                                  .serverPort = kPorts[kind],
                                  .ipv6 = ipv6,
                                  .vlan = number % 11 == 10};
  Script script(conversation, begin, random, out);
  const std::size_t answer = 200 + random() % 30000;
  switch (kind) {
    case kHttp:
      script.tcpSession("GET /" + std::to_string(number) + " HTTP/1.1\r\nHost: example\r\n\r\n",
                        answer);
      break;
    case kDns:
      script.dnsLookup("host" + std::to_string(number));
      break;
    case kTls:
      script.tcpSession(std::string_view("\x17\x03\x03\0\5hello", 10), answer);
      break;
    case kSsh:
      script.tcpSession("SSH-2.0-example\r\n", answer / 8);
      break;
    default:
      script.ping(4);
      break;
  }
}

}  // namespace

std::vector<TimedFrame> makeConversations(unsigned flows, unsigned seconds, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<TimedFrame> frames;
  for (unsigned number = 0; number < flows; ++number) {
    converse(number, kStart + random() % (std::uint64_t{seconds} * 1000000), random, frames);
  }
  std::stable_sort(frames.begin(), frames.end(), [](const TimedFrame& a, const TimedFrame& b) {
    return a.microseconds < b.microseconds;
  });
  return frames;
}

}  // namespace tarnik
