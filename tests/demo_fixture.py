"""What the tests of the demo share: how it is started, and what is known of it from outside."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

PROJECT = pathlib.Path(__file__).resolve().parent.parent
RECORD = PROJECT / "tools/demo/record"
PRIVATE_ROOT = PROJECT / "platform/private-root/private-root"
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
EVERYTHING = "ips 70001 everything greater 0\n"


# The address sanitizer's leak checker cannot do without /proc, which a chroot has not.
LEAK_CHECKED = b"__lsan_do_leak_check" in (BUILD / "daemon/tarnikd").read_bytes()


def why_not(mode):
    """Why the demo cannot run in a private root of this kind here; empty when it can."""
    environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE=mode)
    run = subprocess.run([PRIVATE_ROOT, "--which", "--pair"], env=environment,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        return run.stderr.strip().removeprefix("private-root: ")
    if run.stdout == "chroot\n" and LEAK_CHECKED:
        return "the leak checker of this build needs /proc, which a chroot has not"
    return ""


NO_BWRAP = why_not("bwrap")
NO_CHROOT = why_not("chroot")


def can(mode):
    return not {"bwrap": NO_BWRAP, "chroot": NO_CHROOT}[mode]


def processes():
    """Process id: (parent's id, command line)."""
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


class DemoTest(unittest.TestCase):
    build = BUILD

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.out = self.directory / "out"
        self.rules = self.directory / "rules"
        self.rules.write_text(EVERYTHING)
        self.traffic = self.directory / "traffic.pcap"
        subprocess.run([BUILD / "tools/make-traffic", "--flows", "60", self.traffic], check=True)

    def start(self, *arguments, **options):
        return subprocess.Popen(
            [RECORD, "--build", self.build, "--out", self.out, "--rules", self.rules, *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            **options)

    def record(self, *arguments, **options):
        process = self.start(*arguments, **options)
        output, errors = process.communicate(timeout=120)
        return process.returncode, output, errors

    def account(self):
        return json.loads((self.out / "account.json").read_text())

    def has_captures(self, daemon):
        """Seen from here, or in the daemon's root: out of a chroot they come at the end only."""
        for place in (self.out / "captures", f"/proc/{daemon}/root/var/support/tarnik"):
            try:
                if any(not name.startswith("template.") for name in os.listdir(place)):
                    return True
            except OSError:
                pass
        return False

    def daemon_of(self, process):
        """The daemon's process id once it captures, seen from here."""
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
            read = subprocess.run(["tcpdump", "-n", "-r", path], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True)
            self.assertEqual(read.returncode, 0, read.stderr)

    def assert_gone(self, before):
        for _ in range(100):
            left = {pid: command for pid, command in before.items()
                    if processes().get(pid, (0, ""))[1] == command and command}
            if not left:
                return
            time.sleep(0.05)
        self.fail(f"left behind: {left}")

    def interrupt(self, how, status, **options):
        """Ends a replay by `how`: in good order, with nothing left behind."""
        process = self.start("--speed", "100", self.traffic, start_new_session=True, **options)
        self.daemon_of(process)
        time.sleep(0.3)
        before = descendants(process.pid)
        how(process)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, status, errors)
        self.assertTrue(self.account()["balanced"])
        self.assert_whole()
        self.assert_gone(before)


AS_NOBODY = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"]


def main():
    """Exit status 77: what could run passed, but some tests could not; their reasons are told."""
    reason = why_not(os.environ.get("TARNIK_PRIVATE_ROOT_MODE", "auto"))
    if reason:
        print(f"no private root can be had on this machine: {reason}")
        sys.exit(77)
    result = unittest.main(verbosity=2, exit=False).result
    sys.exit(1 if not result.wasSuccessful() else 77 if result.skipped else 0)
