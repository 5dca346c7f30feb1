// Compares the flows of recorded traffic with those that tshark finds.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/brund/flow_table.h"
#include "platform/brund/source.h"
#include "platform/brund/testing/data.h"

namespace tarnik::brund {
namespace {

using namespace test;

enum Column {
  kEthSource,
  kEthDestination,
  kEthType,
  kVlanType,
  kV4Source,
  kV4Destination,
  kV4Protocol,
  kV4Id,
  kV4More,
  kV4Offset,
  kV6Source,
  kV6Destination,
  kV6Next,
  kHopNext,
  kRoutingNext,
  kOptionsNext,
  kFragmentNext,
  kFragmentId,
  kFragmentOffset,
  kFragmentMore,
  kTcpSource,
  kTcpDestination,
  kUdpSource,
  kUdpDestination,
  kSctpSource,
  kSctpDestination,
  kColumns
};
const char* const kFields[kColumns] = {"eth.src",
                                       "eth.dst",
                                       "eth.type",
                                       "vlan.etype",
                                       "ip.src",
                                       "ip.dst",
                                       "ip.proto",
                                       "ip.id",
                                       "ip.flags.mf",
                                       "ip.frag_offset",
                                       "ipv6.src",
                                       "ipv6.dst",
                                       "ipv6.nxt",
                                       "ipv6.hopopts.nxt",
                                       "ipv6.routing.nxt",
                                       "ipv6.dstopts.nxt",
                                       "ipv6.fraghdr.nxt",
                                       "ipv6.fraghdr.ident",
                                       "ipv6.fraghdr.offset",
                                       "ipv6.fraghdr.more",
                                       "tcp.srcport",
                                       "tcp.dstport",
                                       "udp.srcport",
                                       "udp.dstport",
                                       "sctp.srcport",
                                       "sctp.dstport"};
using Row = std::vector<std::string>;

struct ClosePipe {
  void operator()(std::FILE* pipe) const noexcept { pclose(pipe); }
};

std::vector<Row> readWithTshark(const std::string& path) {
  std::string command =
      "tshark -n -o ip.defragment:FALSE -o ipv6.defragment:FALSE -T fields -E occurrence=f -r '" +
      path + "'";
  for (const char* field : kFields) {
    command += std::string(" -e ") + field;
  }
  const std::unique_ptr<std::FILE, ClosePipe> pipe(popen((command + " 2>/dev/null").c_str(), "r"));
  std::vector<Row> rows;
  char line[4096];
  while (pipe && std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    Row row;
    std::string cell;
    for (const char* c = line; *c != '\0'; ++c) {
      if (*c == '\t' || *c == '\n') {
        row.push_back(cell);
        cell.clear();
      } else {
        cell += *c;
      }
    }
    row.resize(kColumns);
    rows.push_back(row);
  }
  return rows;
}

bool isSet(const std::string& cell) {
  return !cell.empty() && cell != "0" && cell != "False";
}

// The same for both directions.
std::string pairOf(const std::string& one, const std::string& other) {
  return one < other ? one + " " + other : other + " " + one;
}

class Reference {
 public:
  std::string flowOf(const Row& row) {
    if (!row[kV4Source].empty()) {
      return datagram(row, row[kV4Source], row[kV4Destination], row[kV4Protocol], row[kV4Id],
                      isSet(row[kV4More]), isSet(row[kV4Offset]));
    }
    if (!row[kV6Source].empty()) {
      return datagram(row, row[kV6Source], row[kV6Destination], lastProtocol(row), row[kFragmentId],
                      isSet(row[kFragmentMore]), isSet(row[kFragmentOffset]));
    }
    const std::string& type = row[kVlanType].empty() ? row[kEthType] : row[kVlanType];
    return type + " " + pairOf(row[kEthSource], row[kEthDestination]);
  }

 private:
  static std::string lastProtocol(const Row& row) {
    const std::map<std::string, Column> extensions = {
        {"0", kHopNext}, {"43", kRoutingNext}, {"44", kFragmentNext}, {"60", kOptionsNext}};
    std::string protocol = row[kV6Next];
    for (int i = 0; i < 4 && extensions.contains(protocol); ++i) {
      const std::string& next = row[extensions.at(protocol)];
      protocol = next.empty() ? protocol : next;
    }
    return protocol;
  }

  std::string datagram(const Row& row, const std::string& source, const std::string& destination,
                       const std::string& protocol, const std::string& id, bool more, bool later) {
    const std::string fragment = source + ">" + destination + " " + protocol + " " + id;
    std::string flow = protocol + " " + pairOf(source, destination);
    const std::map<std::string, Column> ports = {
        {"6", kTcpSource}, {"17", kUdpSource}, {"132", kSctpSource}};
    if (later) {
      const auto first = firsts_.find(fragment);
      return first == firsts_.end() ? flow : first->second;
    }
    if (ports.contains(protocol)) {
      const std::string& from = row[ports.at(protocol)];
      const std::string& to = row[static_cast<std::size_t>(ports.at(protocol)) + 1];
      if (!from.empty() && !to.empty()) {
        flow = protocol + " " + pairOf(source + ":" + from, destination + ":" + to);
      }
    }
    if (more) {
      firsts_[fragment] = flow;
    }
    return flow;
  }

  std::map<std::string, std::string> firsts_;
};

class FlowsOfCapture : public ::testing::TestWithParam<const char*> {};

TEST_P(FlowsOfCapture, AreThoseOfTshark) {
  const std::string path = recordedCapture(GetParam());
  if (path.empty()) {
    GTEST_SKIP() << kNoCaptures;
  }
  if (std::system("tshark --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tshark is not installed";
  }
  const std::vector<Row> rows = readWithTshark(path);
  auto source = FileSource::open(path);
  ASSERT_TRUE(source) << source.error();
  Reference reference;
  FlowFinder finder;
  std::map<std::string, std::string> theirs;  // by our flow
  std::map<std::string, std::string> ours;    // by theirs
  Frame frame;
  std::size_t number = 0;
  for (auto next = source->next(frame); next && *next; next = source->next(frame)) {
    ASSERT_LT(number, rows.size());
    const std::string their = reference.flowOf(rows[number++]);
    const std::string our = finder.find(frame).key.text();
    EXPECT_EQ(theirs.emplace(our, their).first->second, their) << "frame " << number;
    EXPECT_EQ(ours.emplace(their, our).first->second, our) << "frame " << number;
  }
  EXPECT_EQ(number, rows.size());
}

INSTANTIATE_TEST_SUITE_P(
    Data, FlowsOfCapture,
    ::testing::Values("http-dns-browsing.pcap", "tls-many-sessions-v4-v6.pcap", "dns-lookups.pcap",
                      "smb2-file-transfer.pcap", "ftp-passive-transfers.pcap", "ftp-over-ipv6.pcap",
                      "smtp-mixed.pcap", "vlan-dns-caa.pcap", "vlan-mpls-mixed.pcap",
                      "ip-fragments.pcap", "attack-zerologon.pcap", "large-tcp-echo.pcap",
                      "odd/nanosecond-magic.pcap", "odd/big-endian.pcap",
                      "odd/truncated-last-record.pcap", "odd/snaplen-96.pcap",
                      "odd/gro-frames-smb2.pcap", "odd/frames-above-snaplen.pcap"),
    [](const auto& test) { return asTestName(test.param); });

}  // namespace
}  // namespace tarnik::brund
