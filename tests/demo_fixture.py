"""What the tests of the demo share: how they run it and look at it from outside."""

import json
import os
import pathlib
import subprocess
import sys
import time
import unittest

from support import PRIVATE_ROOT, PROJECT, DirectoryTest, run

RECORD = PROJECT / "tools/demo/record"
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
EVERYTHING = "ips 70001 everything greater 0\n"

# The leak checker of the address sanitizer needs /proc, and a chroot has none.
LEAK_CHECKED = b"__lsan_do_leak_check" in (BUILD / "daemon/tarnikd").read_bytes()


def why_not(mode):
    """Why the demo cannot run here in a private root of this kind. Empty when it can."""
    environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE=mode)
    which = run(PRIVATE_ROOT, "--which", "--pair", env=environment)
    if which.status != 0:
        return which.errors.strip().removeprefix("private-root: ")
    if which.output == "chroot\n" and LEAK_CHECKED:
        return "the leak checker of this build needs /proc, and a chroot has none"
    return ""


NO_BWRAP = why_not("bwrap")
NO_CHROOT = why_not("chroot")


def can(mode):
    return not {"bwrap": NO_BWRAP, "chroot": NO_CHROOT}[mode]


def processes():
    """All processes: process id -> (id of the parent, command line)."""
    result = {}
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                stat = (entry / "stat").read_text()
                command = (entry / "cmdline").read_bytes().replace(b"\0", b" ").decode().strip()
            except OSError:
                continue
            result[int(entry.name)] = (int(stat.rpartition(")")[2].split()[1]), command)
    return result


def descendants(ancestor):
    table = processes()
    found = {ancestor}
    while True:
        more = {pid for pid, (parent, _) in table.items() if parent in found} - found
        if not more:
            return {pid: table[pid][1] for pid in found if pid in table}
        found |= more


class DemoTest(DirectoryTest):
    build = BUILD

    def setUp(self):
        super().setUp()
        self.out = self.directory / "out"
        self.rules = self.directory / "rules"
        self.rules.write_text(EVERYTHING)
        self.traffic = self.directory / "traffic.pcap"
        self.make_traffic("--flows", "60")

    def make_traffic(self, *options):
        self.assertEqual(run(BUILD / "tools/make-traffic", *options, self.traffic).status, 0)

    def command(self, *arguments):
        return [RECORD, "--build", self.build, "--out", self.out, "--rules", self.rules, *arguments]

    def start(self, *arguments, **options):
        return subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)

    def record(self, *arguments, **options):
        """Status, standard output, standard error."""
        return run(*self.command(*arguments), **options)

    def assert_recorded(self, *arguments, files=60, **options):
        """Records, with success and a balanced account of this many files."""
        ended = self.record(*arguments, **options)
        self.assertEqual(ended.status, 0, ended.errors)
        self.assert_balanced(files)
        return ended

    def assert_balanced(self, files=None):
        account = self.account()
        self.assertTrue(account["balanced"])
        if files is not None:
            self.assertEqual(account["files"], files)

    def account(self):
        return json.loads((self.out / "account.json").read_text())

    def has_captures(self, daemon):
        """Looks in the daemon's root too: captures leave a chroot only at the end."""
        for place in (self.out / "captures", f"/proc/{daemon}/root/var/support/tarnik"):
            try:
                if any(not name.startswith("template.") for name in os.listdir(place)):
                    return True
            except OSError:
                pass
        return False

    def daemon_of(self, process):
        """Waits until the daemon has a capture. Its process id, as seen from here."""
        for _ in range(1200):
            for pid, command in descendants(process.pid).items():
                if command.startswith(f"{self.build}/daemon/tarnikd ") and self.has_captures(pid):
                    return pid
            time.sleep(0.05)
        self.fail("no daemon captures")

    def assert_whole(self):
        """Every capture has its final name, its info file, and ends in a whole record."""
        files = [path for path in (self.out / "captures").iterdir()
                 if not path.name.startswith("template.")]
        captures = [path for path in files if path.suffix == ".pcap"]
        self.assertTrue(captures)
        for path in files:
            self.assertIn(path.suffix, (".pcap", ".info"), path.name)
        for path in captures:
            self.assertTrue(path.with_suffix(".info").exists(), path.name)
            read = run("tcpdump", "-n", "-r", path)
            self.assertEqual(read.status, 0, read.errors)

    def assert_gone(self, before):
        for _ in range(100):
            left = {pid: command for pid, command in before.items()
                    if processes().get(pid, (0, ""))[1] == command and command}
            if not left:
                return
            time.sleep(0.05)
        self.fail(f"left behind: {left}")

    def interrupt(self, how, status, **options):
        """Ends a replay with `how`. All captures must be complete and all processes gone."""
        process = self.start("--speed", "100", self.traffic, start_new_session=True, **options)
        self.daemon_of(process)
        time.sleep(0.3)
        before = descendants(process.pid)
        how(process)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, status, errors)
        self.assert_balanced()
        self.assert_whole()
        self.assert_gone(before)


def main():
    """Exit status 77: some tests were skipped, all others passed."""
    reason = why_not(os.environ.get("TARNIK_PRIVATE_ROOT_MODE", "auto"))
    if reason:
        print(f"no private root on this machine: {reason}")
        sys.exit(77)
    result = unittest.main(verbosity=2, exit=False).result
    sys.exit(1 if not result.wasSuccessful() else 77 if result.skipped else 0)
