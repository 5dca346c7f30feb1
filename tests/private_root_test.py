#!/usr/bin/env python3
"""Tests the network of the private root, and the arguments of the command that runs in it."""

import os
import shutil
import socket
import unittest

from support import PRIVATE_ROOT, run


def in_root(*arguments, prefix=()):
    return run(*prefix, PRIVATE_ROOT, *arguments)


def possible(*arguments, prefix=()):
    return in_root(*arguments, "--", "/bin/true", prefix=prefix).status == 0


OWN_NETWORK = ("unshare", "--net")  # with a loopback only
MODES = [mode for mode in ("bwrap", "chroot") if possible("--mode", mode)]


def interfaces(*options):
    lines = in_root("--mode", "bwrap", *options, "--", "cat", "/proc/net/dev").output.splitlines()
    return sorted(line.split(":")[0].strip() for line in lines if ":" in line)


class PrivateRoot(unittest.TestCase):
    @unittest.skipUnless(possible("--mode", "bwrap", "--pair"), "no namespaces, or no iproute2")
    def test_has_a_pair_of_interfaces(self):
        self.assertEqual(interfaces(), ["lo", "port0", "port1"])
        self.assertEqual(interfaces("--pair"), ["lo", "port0", "port1"])

    @unittest.skipUnless("bwrap" in MODES, "no namespaces on this machine")
    def test_host_net_is_the_network_of_the_machine(self):
        self.assertEqual(interfaces("--host-net"),
                         sorted(name for _, name in socket.if_nameindex()))

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("unshare")
                         and run(*OWN_NETWORK, "true").status == 0,
                         "no network namespace can be made")
    def test_reports_a_missing_pair(self):
        for options in (["--mode", "chroot"], ["--mode", "bwrap", "--host-net"]):
            if options[1] not in MODES:
                continue
            with self.subTest(options):
                alone = in_root(*options, "--pair", "--unavailable", "77", "--", "/bin/true",
                                prefix=OWN_NETWORK)
                self.assertEqual((alone.status, alone.errors), (
                    77, "private-root: the machine has no pair of network interfaces: make one "
                    "(ip link add port0 type veth peer name port1)\n"))
                self.assertTrue(possible(*options, prefix=OWN_NETWORK))

    def test_passes_arguments_and_exit_status(self):
        for mode in MODES:
            with self.subTest(mode):
                ended = in_root("--mode", mode, "--", "sh", "-c", 'printf "<%s>" "$@"; exit 3', "0",
                                "a  b", "$x", "", "'")
                self.assertEqual((ended.status, ended.output), (3, "<a  b><$x><><'>"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
