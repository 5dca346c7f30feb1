#!/usr/bin/env python3
"""Replays captures through the whole system and compares what was recorded with the input.

Goal: for every capture, the recorded frames are byte for byte, in order, with their timestamps and
both lengths, those of the flow in the input from the first match on. The input is read by
tshark, flows and first matches are worked out here from tshark's fields, so that a mistake of the
project's own reader cannot hide itself; what was recorded is read back by tshark too.

usage: replay_fidelity.py BUILD_DIR [--generated] [FILE]...
exit status: 0 alike, 1 not, 77 no private root can be had on this machine
"""

import collections
import hashlib
import json
import pathlib
import struct
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parent.parent

FIELDS = [
    "frame.number", "frame.time_epoch", "frame.cap_len", "frame.len", "frame.md5_hash",
    "frame.protocols", "eth.src", "eth.dst", "eth.type", "vlan.etype", "eth.len",
    "ip.src", "ip.dst", "ip.proto", "ip.id", "ip.flags.mf", "ip.frag_offset",
    "ipv6.src", "ipv6.dst", "ipv6.nxt", "ipv6.fraghdr.nxt", "ipv6.fraghdr.ident",
    "ipv6.fraghdr.offset", "ipv6.hopopts.nxt", "ipv6.dstopts.nxt", "ipv6.routing.nxt",
    "tcp.srcport", "tcp.dstport", "tcp.flags", "udp.srcport", "udp.dstport",
    "sctp.srcport", "sctp.dstport",
]

# Two sets of triggers: every frame, and one that begins in the middle of a conversation.
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
    """The frames of a capture file, as tshark sees them."""
    command = ["tshark", "-n", "-r", str(path), "-o", "frame.generate_md5_hash:TRUE",
               "-o", "ip.defragment:FALSE", "-o", "ipv6.defragment:FALSE",
               "-T", "fields", "-E", "separator=|", "-E", "occurrence=a"]
    for field in FIELDS:
        command += ["-e", field]
    if limit is not None:
        command += ["-c", str(limit)]
    lines = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                           text=True).stdout.splitlines()
    frames = [dict(zip(FIELDS, line.split("|"))) for line in lines]
    return [] if limit == 0 else frames


def record(frame):
    """What a capture file keeps of a frame: microseconds, lengths, bytes."""
    seconds, _, fraction = frame["frame.time_epoch"].partition(".")
    return (seconds + "." + (fraction + "000000")[:6], frame["frame.cap_len"],
            frame["frame.len"], frame["frame.md5_hash"])


def recorded(path):
    """The records of a capture file that the daemon wrote: a classic pcap file, microseconds."""
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
    """The flow of each frame. A later fragment belongs to the flow of its datagram's first."""

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
    """The captures that the input must give: for each flow its frames from the first match on."""
    flows = Flows()
    captures = collections.OrderedDict()
    for frame in frames:
        key = flows.key(frame)
        if key not in captures and matches(frame):
            captures[key] = []
        if key in captures and 0 < int(frame["frame.cap_len"]) <= 65535:
            captures[key].append(record(frame))
    return [tuple(records) for records in captures.values() if records]


def replay(build, path, rules, directory):
    (directory / "rules").write_text(rules)
    run = subprocess.run(
        [PROJECT / "tools/demo/record", "--build", build, "--rules", directory / "rules",
         "--out", directory / "out", path],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    account = directory / "out/account.json"
    if not account.exists():
        raise AssertionError(f"no account; status {run.returncode}: {run.stdout}{run.stderr}")
    return run, json.loads(account.read_text())


def readable(path):
    """How many frames the system's own capture library gets out of the file, and its complaint."""
    run = subprocess.run(["tcpdump", "-n", "-t", "-q", "-r", str(path), "--count"],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    count = [int(line.split()[0]) for line in (run.stdout + run.stderr).splitlines()
             if line.endswith("packets") or line.endswith("packet")]
    return count[0], run.returncode


def count_with_tshark(captures, directory):
    """How many frames tshark reads back out of all capture files."""
    if not captures:
        return 0
    merged = directory / "merged.pcap"
    subprocess.run(["mergecap", "-a", "-F", "pcap", "-w", merged, *captures], check=True)
    return len(subprocess.run(["tshark", "-n", "-r", merged, "-T", "fields", "-e", "frame.number"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              text=True).stdout.splitlines())


def check(build, path):
    count, failed = readable(path)
    frames = read(path, count)
    for name, (rules, matches) in RULES.items():
        with tempfile.TemporaryDirectory() as directory:
            directory = pathlib.Path(directory)
            run, account = replay(build, path, rules, directory)
            wanted = collections.Counter(expected(frames, matches))
            captures = list((directory / "out/captures").glob("*.pcap"))
            got = collections.Counter(recorded(capture) for capture in captures)
            where = f"{path.name}, {name}: "
            assert account["balanced"], where + json.dumps(account) + run.stderr
            assert account["seen"] == count, where + f"seen {account['seen']}, in the file {count}"
            missing, surplus = wanted - got, got - wanted
            assert not missing and not surplus, (
                where + f"{sum(missing.values())} captures missing, "
                f"{sum(surplus.values())} surplus: "
                f"{[(len(c), c[0]) for c in list(missing)[:3]]} "
                f"{[(len(c), c[0]) for c in list(surplus)[:3] if c]}")
            numbers = {
                "captures": sum(wanted.values()), "files": sum(wanted.values()),
                "queued": sum(len(records) * n for records, n in wanted.items()), "refused": 0}
            assert numbers.items() <= account.items(), where + f"{numbers}, not {account}"
            assert count_with_tshark(captures, directory) == sum(
                len(records) * n for records, n in wanted.items()), where + "not all read back"
            complaints = [line for line in run.stderr.splitlines() if str(path) in line]
            if failed or count == 0:
                assert run.returncode == 1 and len(complaints) == 1, where + run.stderr
            else:
                assert run.returncode == 0 and not complaints, where + run.stderr
            print(f"ok: {where}{sum(wanted.values())} captures, "
                  f"{sum(len(c) * n for c, n in wanted.items())} frames", flush=True)


def nanoseconds(path, result):
    """A copy of a capture file with timestamps in nanoseconds, and in the other byte order."""
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
    """Made-up traffic in each kind of capture file."""
    paths = [directory / name for name in ("made-up.pcap", "nanoseconds.pcap", "made-up.pcapng")]
    subprocess.run([build / "tools/make-traffic", "--flows", "200", paths[0]], check=True)
    nanoseconds(paths[0], paths[1])
    subprocess.run(["editcap", "-F", "pcapng", paths[0], paths[2]], check=True)
    return paths


def main():
    if subprocess.run([PROJECT / "platform/private-root/private-root", "--which", "--pair"],
                      stdout=subprocess.DEVNULL).returncode != 0:
        return 77  # its reason stands in the line before
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
