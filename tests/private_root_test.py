#!/usr/bin/env python3
"""The private root's network, and what reaches the command that runs in it."""

import os
import pathlib
import shutil
import socket
import subprocess
import unittest

PRIVATE_ROOT = (pathlib.Path(__file__).resolve().parent.parent /
                "platform/private-root/private-root")


def run(*arguments, prefix=()):
    return subprocess.run([*prefix, PRIVATE_ROOT, *arguments], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def possible(*arguments, prefix=()):
    return run(*arguments, "--", "/bin/true", prefix=prefix).returncode == 0


OWN_NETWORK = ("unshare", "--net")  # with a loopback only
MODES = [mode for mode in ("bwrap", "chroot") if possible("--mode", mode)]


def interfaces(*options):
    lines = run("--mode", "bwrap", *options, "--", "cat", "/proc/net/dev").stdout.splitlines()
    return sorted(line.split(":")[0].strip() for line in lines if ":" in line)


class PrivateRoot(unittest.TestCase):
    @unittest.skipUnless(possible("--mode", "bwrap", "--pair"), "no namespaces, or no iproute2")
    def test_a_pair_of_interfaces(self):
        self.assertEqual(interfaces(), ["lo", "port0", "port1"])
        self.assertEqual(interfaces("--pair"), ["lo", "port0", "port1"])

    @unittest.skipUnless("bwrap" in MODES, "no namespaces on this machine")
    def test_the_machines_network(self):
        self.assertEqual(interfaces("--host-net"),
                         sorted(name for _, name in socket.if_nameindex()))

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("unshare")
                         and subprocess.run([*OWN_NETWORK, "true"]).returncode == 0,
                         "no network namespace can be made")
    def test_where_there_is_no_pair(self):
        for options in (["--mode", "chroot"], ["--mode", "bwrap", "--host-net"]):
            if options[1] not in MODES:
                continue
            with self.subTest(options):
                alone = run(*options, "--pair", "--unavailable", "77", "--", "/bin/true",
                            prefix=OWN_NETWORK)
                self.assertEqual((alone.returncode, alone.stderr), (
                    77, "private-root: the machine has no pair of network interfaces: make one "
                    "(ip link add port0 type veth peer name port1)\n"))
                self.assertTrue(possible(*options, prefix=OWN_NETWORK))

    def test_arguments_and_status_of_the_command(self):
        for mode in MODES:
            with self.subTest(mode):
                ended = run("--mode", mode, "--", "sh", "-c", 'printf "<%s>" "$@"; exit 3', "0",
                            "a  b", "$x", "", "'")
                self.assertEqual((ended.returncode, ended.stdout), (3, "<a  b><$x><><'>"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
