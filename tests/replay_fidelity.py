#!/usr/bin/env python3
"""Replays capture files through the whole system and compares the recorded captures with the input.

For each flow, the recorded frames must be those of the input from the first match on: the same
bytes, order, timestamps and both lengths. tshark reads the input and the recorded captures, and this
script determines flows and matches from tshark's fields. So a fault in the project's own reader
cannot hide itself.

usage: replay_fidelity.py BUILD_DIR [--generated] [FILE]...
exit status: 0 equal, 1 different, 77 no private root on this machine
"""

import collections
import hashlib
import json
import pathlib
import struct
import sys
import tempfile

from support import PRIVATE_ROOT, PROJECT, run

FIELDS = [
    "frame.number", "frame.time_epoch", "frame.cap_len", "frame.len", "frame.md5_hash",
    "frame.protocols", "eth.src", "eth.dst", "eth.type", "vlan.etype", "eth.len",
    "ip.src", "ip.dst", "ip.proto", "ip.id", "ip.flags.mf", "ip.frag_offset",
    "ipv6.src", "ipv6.dst", "ipv6.nxt", "ipv6.fraghdr.nxt", "ipv6.fraghdr.ident",
    "ipv6.fraghdr.offset", "ipv6.hopopts.nxt", "ipv6.dstopts.nxt", "ipv6.routing.nxt",
    "tcp.srcport", "tcp.dstport", "tcp.flags", "udp.srcport", "udp.dstport",
    "sctp.srcport", "sctp.dstport",
]

# Two sets of rules: one matches every frame, one first matches in the middle of a conversation.
RULES = {
    "every frame": ("ips 70001 everything greater 0\n", lambda frame: True),
    "first push": (
        "ips 70002 pushed ip proto 6 and ip[6:2] & 0x1fff = 0 and tcp[tcpflags] & tcp-push != 0\n",
        lambda frame: frame["frame.protocols"].startswith("eth:ethertype:ip:tcp")
        and frame["tcp.flags"] != "" and int(first(frame["tcp.flags"]), 16) & 8 != 0),
}

PORTS = {6: "tcp", 17: "udp", 132: "sctp"}
EXTENSIONS = {0: "ipv6.hopopts.nxt", 60: "ipv6.dstopts.nxt", 43: "ipv6.routing.nxt",
              44: "ipv6.fraghdr.nxt"}


def first(values):
    return values.split(",")[0]


def read(path, limit=None):
    """tshark's fields of each frame of a capture file."""
    command = ["tshark", "-n", "-r", str(path), "-o", "frame.generate_md5_hash:TRUE",
               "-o", "ip.defragment:FALSE", "-o", "ipv6.defragment:FALSE",
               "-T", "fields", "-E", "separator=|", "-E", "occurrence=a"]
    for field in FIELDS:
        command += ["-e", field]
    if limit is not None:
        command += ["-c", str(limit)]
    frames = [dict(zip(FIELDS, line.split("|"))) for line in run(*command).output.splitlines()]
    return [] if limit == 0 else frames


def record(frame):
    """The parts of a frame that a capture file keeps: time in microseconds, lengths, bytes."""
    seconds, _, fraction = frame["frame.time_epoch"].partition(".")
    return (seconds + "." + (fraction + "000000")[:6], frame["frame.cap_len"],
            frame["frame.len"], frame["frame.md5_hash"])


def recorded(path):
    """The records of a capture file of the daemon: classic pcap with microseconds."""
    data = path.read_bytes()
    assert data[:24] == struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 1500, 1), path.name
    records, at = [], 24
    while at < len(data):
        seconds, micros, captured, wire = struct.unpack_from("<IIII", data, at)
        frame = data[at + 16:at + 16 + captured]
        assert micros < 1000000 and len(frame) == captured, f"{path.name}: cut at {at}"
        records.append((f"{seconds}.{micros:06}", str(captured), str(wire),
                        hashlib.md5(frame).hexdigest()))
        at += 16 + captured
    return tuple(records)


class Flows:
    """Assigns frames to flows. A later fragment belongs to the flow of the first fragment."""

    def __init__(self):
        self.datagrams = {}

    def key(self, frame):
        if int(frame["frame.cap_len"]) < 14:
            return ("short",)
        if frame["ip.src"]:
            return self.ip(frame, first(frame["ip.src"]), first(frame["ip.dst"]),
                           int(first(frame["ip.proto"])), first(frame["ip.id"]),
                           int(first(frame["ip.frag_offset"])),
                           first(frame["ip.flags.mf"]) in ("1", "True"))
        if frame["ipv6.src"]:
            protocol = int(first(frame["ipv6.nxt"]))
            while protocol in EXTENSIONS and frame[EXTENSIONS[protocol]]:
                protocol = int(first(frame[EXTENSIONS[protocol]]))
            fragment = frame["ipv6.fraghdr.ident"]
            return self.ip(frame, first(frame["ipv6.src"]), first(frame["ipv6.dst"]), protocol,
                           first(fragment),
                           int(first(frame["ipv6.fraghdr.offset"]) or 0), bool(fragment))
        ethertype = (frame["vlan.etype"] or frame["eth.type"]).split(",")[-1]
        return ("ethernet", ethertype if ethertype and not frame["eth.len"] else "length",
                *sorted([first(frame["eth.src"]), first(frame["eth.dst"])]))

    def ip(self, frame, source, destination, protocol, identification, offset, more):
        datagram = (source, destination, protocol, identification)
        if offset > 0:
            return self.datagrams.get(datagram,
                                      (protocol, *sorted([(source, ""), (destination, "")])))
        name = PORTS.get(protocol)
        ports = [frame[f"{name}.{side}"] if name else "" for side in ("srcport", "dstport")]
        key = (protocol, *sorted([(source, first(ports[0])), (destination, first(ports[1]))]))
        if more:
            self.datagrams[datagram] = key
        return key


def expected(frames, matches):
    """The expected captures: for each flow its frames from the first match on. Also the number of
    these frames that no frame of the driver can hold."""
    flows = Flows()
    captures = collections.OrderedDict()
    unfit = 0
    for frame in frames:
        key = flows.key(frame)
        if key not in captures and matches(frame):
            captures[key] = []
        if key in captures and 0 < int(frame["frame.cap_len"]) <= 65535:
            captures[key].append(record(frame))
        elif key in captures:
            unfit += 1
    return [tuple(records) for records in captures.values() if records], unfit


def replay(build, path, rules, directory):
    (directory / "rules").write_text(rules)
    demo = run(PROJECT / "tools/demo/record", "--build", build, "--rules", directory / "rules",
               "--out", directory / "out", path)
    account = directory / "out/account.json"
    if not account.exists():
        raise AssertionError(f"no account; status {demo.status}: {demo.output}{demo.errors}")
    return demo, json.loads(account.read_text())


def readable(path):
    """The number of frames that tcpdump reads from the file, and its exit status."""
    ended = run("tcpdump", "-n", "-t", "-q", "-r", path, "--count")
    count = [int(line.split()[0]) for line in (ended.output + ended.errors).splitlines()
             if line.endswith(("packets", "packet"))]
    return count[0], ended.status


def count_with_tshark(captures, directory):
    """The number of frames that tshark reads from all recorded captures."""
    if not captures:
        return 0
    merged = directory / "merged.pcap"
    assert run("mergecap", "-a", "-F", "pcap", "-w", merged, *captures).status == 0
    return len(run("tshark", "-n", "-r", merged, "-T", "fields", "-e",
                   "frame.number").output.splitlines())


def check(build, path):
    count, failed = readable(path)
    frames = read(path, count)
    for name, (rules, matches) in RULES.items():
        with tempfile.TemporaryDirectory() as directory:
            directory = pathlib.Path(directory)
            demo, account = replay(build, path, rules, directory)
            flows, unfit = expected(frames, matches)
            wanted = collections.Counter(flows)
            captures = list((directory / "out/captures").glob("*.pcap"))
            got = collections.Counter(recorded(capture) for capture in captures)
            where = f"{path.name}, {name}: "
            assert account["balanced"], where + json.dumps(account) + demo.errors
            assert account["seen"] == count, where + f"seen {account['seen']}, in the file {count}"
            missing, unexpected = wanted - got, got - wanted
            assert not missing and not unexpected, (
                where + f"{sum(missing.values())} captures missing, "
                f"{sum(unexpected.values())} unexpected: "
                f"{[(len(c), c[0]) for c in list(missing)[:3]]} "
                f"{[(len(c), c[0]) for c in list(unexpected)[:3] if c]}")
            numbers = {
                "captures": sum(wanted.values()), "files": sum(wanted.values()),
                "queued": sum(len(records) * n for records, n in wanted.items()), "refused": 0}
            assert numbers.items() <= account.items(), where + f"{numbers}, not {account}"
            assert count_with_tshark(captures, directory) == sum(
                len(records) * n for records, n in wanted.items()), where + "not all read back"
            complaints = [line for line in demo.errors.splitlines() if str(path) in line]
            if failed or count == 0:
                assert demo.status == 1 and len(complaints) == 1, where + demo.errors
            else:
                status = 3 if unfit else 0  # 3: some matched frames were not queued
                assert demo.status == status and not complaints, where + demo.errors
            print(f"ok: {where}{sum(wanted.values())} captures, "
                  f"{sum(len(c) * n for c, n in wanted.items())} frames", flush=True)


def nanoseconds(path, result):
    """Writes a copy of a capture file with nanoseconds, and in the other byte order."""
    data = path.read_bytes()
    out = struct.pack(">IHHiIII", 0xa1b23c4d, 2, 4, 0, 0, 65535, 1)
    at = 24
    while at < len(data):
        seconds, micros, captured, wire = struct.unpack_from("<IIII", data, at)
        out += struct.pack(">IIII", seconds, micros * 1000 + 999, captured, wire)
        out += data[at + 16:at + 16 + captured]
        at += 16 + captured
    result.write_bytes(out)


def generate(build, directory):
    """Generates traffic, in each kind of capture file."""
    paths = [directory / name for name in ("generated.pcap", "nanoseconds.pcap", "generated.pcapng")]
    assert run(build / "tools/make-traffic", "--flows", "200", paths[0]).status == 0
    nanoseconds(paths[0], paths[1])
    assert run("editcap", "-F", "pcapng", paths[0], paths[2]).status == 0
    return paths


def main():
    which = run(PRIVATE_ROOT, "--which", "--pair")
    if which.status != 0:
        print(which.errors, end="")
        return 77
    build = pathlib.Path(sys.argv[1])
    paths = [pathlib.Path(argument).resolve() for argument in sys.argv[2:] if argument != "--generated"]
    with tempfile.TemporaryDirectory() as directory:
        if "--generated" in sys.argv:
            paths += generate(build, pathlib.Path(directory))
        failures = 0
        for path in paths:
            try:
                check(build, path)
            except AssertionError as failure:
                failures += 1
                print(f"FAILED: {failure}", flush=True)
    return 1 if failures else 0


sys.exit(main())
