#!/usr/bin/env python3
"""The demo as a person meets it: what it refuses, how it ends, what it leaves behind.

usage: demo_test.py BUILD_DIR [unittest argument]...     exit status 77: nothing could run here
"""

import json
import os
import pathlib
import shutil
import signal
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


def can(mode):
    environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE=mode)
    return subprocess.run([PRIVATE_ROOT, "--which"], env=environment, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


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
            [RECORD, "--build", BUILD, "--out", self.out, "--rules", self.rules, *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            **options)

    def record(self, *arguments, **options):
        process = self.start(*arguments, **options)
        output, errors = process.communicate(timeout=120)
        return process.returncode, output, errors

    def account(self):
        return json.loads((self.out / "account.json").read_text())

    def daemon_of(self, process):
        """The daemon's process id once it captures, seen from here."""
        for _ in range(200):
            for pid, command in descendants(process.pid).items():
                if command.startswith(f"{BUILD}/daemon/tarnikd "):
                    if list((self.out / "captures").glob("*")):
                        return pid
            time.sleep(0.05)
        self.fail("no daemon captures")

    def assert_whole(self):
        """Every capture has its final name, its info file, and ends in a whole record."""
        files = list((self.out / "captures").iterdir())
        captures = [path for path in files if path.suffix == ".pcap"]
        self.assertTrue(captures)
        for path in files:
            self.assertIn(path.suffix, (".pcap", ".info", ".ips"), path.name)
        for path in captures:
            self.assertTrue(path.with_suffix(".info").exists(), path.name)
            read = subprocess.run(["tcpdump", "-n", "-r", path], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True)
            self.assertEqual(read.returncode, 0, read.stderr)


class Recording(DemoTest):
    def test_a_file_that_ends_well(self):
        status, output, errors = self.record(self.traffic)
        self.assertEqual(status, 0, errors)
        account = self.account()
        self.assertTrue(account["balanced"])
        self.assertEqual(account["seen"], account["accepted"])
        self.assertEqual(account["files"], 60)
        self.assertIn("balanced", output)
        self.assert_whole()
        self.assertIn("onTerminate: Received SIGTERM, exiting",
                      (self.out / "tarnikd.log").read_text())

    def test_the_same_place_again(self):
        self.assertEqual(self.record(self.traffic)[0], 0)
        self.assertEqual(self.record(self.traffic)[0], 0)
        self.assertEqual(self.account()["files"], 60)

    def test_a_place_with_something_else_in_it_is_left_alone(self):
        self.out.mkdir()
        (self.out / "thesis.tex").write_text("years of work")
        status, _, errors = self.record(self.traffic)
        self.assertEqual(status, 2)
        self.assertIn("neither empty nor of an earlier demo", errors)
        self.assertEqual([path.name for path in self.out.iterdir()], ["thesis.tex"])

    def test_refused_frames_are_in_the_account(self):
        config = self.directory / "tarnik.conf"
        config.write_text((PROJECT / "tools/demo/tarnik.conf").read_text() +
                          "tarnik.file.maxno = 10\n")
        status, _, errors = self.record("--config", config, self.traffic)
        account = self.account()
        self.assertEqual(status, 0, errors)
        self.assertGreater(account["refused"], 0)
        self.assertEqual(account["queued"], account["accepted"] + account["refused"])
        self.assertEqual(account["records"], account["accepted"])

    def test_several_files_are_one_input(self):
        status, _, errors = self.record(self.traffic, self.traffic)
        self.assertEqual(status, 0, errors)
        self.assertEqual(self.account()["files"], 60)


class Refusals(DemoTest):
    def refused(self, rules, line, *reasons):
        self.rules.write_text(rules)
        status, _, errors = self.record(self.traffic)
        self.assertEqual(status, 2, errors)
        self.assertFalse(self.out.exists())
        complaint = errors.splitlines()[0]
        self.assertIn(f"{self.rules}:{line}:", complaint)
        for reason in reasons:
            self.assertIn(reason, complaint)

    def test_rules(self):
        self.refused("ips 65535 name tcp\n", 1, "65535")
        self.refused("# comment\n\nips 0 name tcp\n", 3, "0")
        self.refused("ips 70001 a/b tcp\n", 1, "a/b")
        self.refused("ips 70001 name tcp prot\n", 1)
        self.refused("nap 0 uuid tcp\n", 1, "0")
        self.refused("nap 65535 uuid tcp\n", 1, "65535")
        self.refused(EVERYTHING + "ipz 1 name tcp\n", 2, "ipz")

    def test_options(self):
        for arguments in (["--speed", "0", self.traffic], ["--speed", "fast", self.traffic],
                          ["--seconds", "x"], ["--live", "lo", self.traffic], ["--nonsense"],
                          ["--rules"], ["--config", "/nonexistent", self.traffic]):
            status, _, errors = self.record(*arguments)
            self.assertEqual((status, len(errors.splitlines())), (2, 1), (arguments, errors))
            self.assertFalse(self.out.exists())


class BadInput(DemoTest):
    def complaint(self, path, *reasons):
        status, _, errors = self.record(self.traffic, path, self.traffic)
        self.assertEqual(status, 1, errors)
        lines = [line for line in errors.splitlines() if str(path) in line]
        self.assertEqual(len(lines), 1, errors)
        for reason in reasons:
            self.assertIn(reason, lines[0])
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["files"], 60)  # all else is recorded

    def test_missing_file(self):
        self.complaint(self.directory / "nothing.pcap", "No such file")

    def test_empty_file(self):
        (self.directory / "empty.pcap").touch()
        self.complaint(self.directory / "empty.pcap")

    def test_no_capture_file(self):
        (self.directory / "text.pcap").write_text("this is no capture file at all\n" * 10)
        self.complaint(self.directory / "text.pcap")

    def test_record_cut_short(self):
        whole = self.traffic.read_bytes()
        (self.directory / "cut.pcap").write_bytes(whole[:len(whole) // 2])
        self.complaint(self.directory / "cut.pcap", "truncated")

    def test_other_link_type(self):
        raw = bytearray(self.traffic.read_bytes())
        raw[20] = 101  # raw IP
        (self.directory / "raw.pcap").write_bytes(raw)
        self.complaint(self.directory / "raw.pcap", "Ethernet")


class Signals(DemoTest):
    def test_sigterm_finalises_every_open_capture(self):
        process = self.start("--speed", "200", self.traffic)
        daemon = self.daemon_of(process)
        time.sleep(0.5)
        os.kill(daemon, signal.SIGTERM)
        process.communicate(timeout=60)
        self.assert_whole()

    def test_sighup_loses_no_frame(self):
        process = self.start("--speed", "400", self.traffic)
        daemon = self.daemon_of(process)
        for _ in range(8):
            os.kill(daemon, signal.SIGHUP)
            time.sleep(0.2)
        _, errors = process.communicate(timeout=120)
        self.assertEqual(process.returncode, 0, errors)
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["accepted"], self.account()["seen"])
        self.assertEqual((self.out / "tarnikd.log").read_text().count("onReload: Reloading"), 9)

    def interrupt(self, how, status):
        process = self.start("--speed", "100", self.traffic, start_new_session=True)
        self.daemon_of(process)
        time.sleep(0.3)
        before = descendants(process.pid)
        how(process)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, status, errors)
        self.assertTrue(self.account()["balanced"])
        self.assert_whole()
        self.assert_gone(before)

    def assert_gone(self, before):
        for _ in range(100):
            left = {pid: command for pid, command in before.items()
                    if processes().get(pid, (0, ""))[1] == command and command}
            if not left:
                return
            time.sleep(0.05)
        self.fail(f"left behind: {left}")

    def test_ctrl_c(self):
        self.interrupt(lambda process: os.killpg(process.pid, signal.SIGINT), 130)

    def test_sigterm_of_the_demo(self):
        self.interrupt(lambda process: process.terminate(), 143)

    def test_a_killed_demo_leaves_no_process(self):
        process = self.start("--speed", "100", self.traffic)
        self.daemon_of(process)
        before = descendants(process.pid)
        process.kill()
        process.communicate(timeout=60)
        self.assert_gone(before)


class Leftovers(DemoTest):
    def surroundings(self):
        mounts = pathlib.Path("/proc/self/mounts").read_text()
        paths = [sorted(os.listdir(path)) if os.path.isdir(path) else None
                 for path in ("/run/orlo", "/var/support", "/dev/zorvik", "/run/netns")]
        return mounts, paths, sorted(os.listdir(tempfile.gettempdir()))

    def test_nothing_remains(self):
        os.environ["TMPDIR"] = tempfile.tempdir = str(self.directory / "tmp")
        (self.directory / "tmp").mkdir()
        try:
            before = self.surroundings()
            self.assertEqual(self.record(self.traffic)[0], 0)
            self.assertEqual(self.surroundings(), before)
            self.assertEqual(sorted(os.listdir(self.out)),
                             ["account.json", "captures", "tarnikd.log"])
        finally:
            tempfile.tempdir = None
            del os.environ["TMPDIR"]


class Ways(DemoTest):
    @unittest.skipUnless(can("bwrap"), "no namespaces on this machine: nothing to sniff")
    def test_live_network(self):
        status, _, errors = self.record("--seconds", "6")
        self.assertEqual(status, 0, errors)
        self.assertTrue(self.account()["balanced"])
        self.assertGreater(self.account()["files"], 5)
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), "chroot needs root")
    def test_chroot(self):
        environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE="chroot")
        status, _, errors = self.record(self.traffic, env=environment)
        self.assertEqual(status, 0, errors)
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["files"], 60)
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), "chroot needs root")
    def test_without_namespaces_generated_traffic_is_replayed(self):
        environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE="chroot")
        status, _, errors = self.record(env=environment)
        self.assertEqual(status, 0, errors)
        self.assertIn("generated traffic", errors)
        self.assertTrue(self.account()["balanced"])

    @unittest.skipUnless(os.geteuid() == 0, "already without root")
    def test_without_root(self):
        if subprocess.run(["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                           PRIVATE_ROOT, "--which"], stdout=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no user namespaces for users here")
        for path in (self.directory, self.traffic, self.rules):
            os.chown(path, 65534, 65534)
        shutil.copy(self.rules, self.directory / "my.rules")
        run = subprocess.run(
            ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", RECORD,
             "--build", BUILD, "--out", self.out, "--rules", self.rules, self.traffic],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["files"], 60)


class ByHand(unittest.TestCase):
    """The daemon started where something is missing says so in one line."""

    def run_daemon(self, script):
        return subprocess.run(
            [PRIVATE_ROOT, "--build", BUILD, "--program", "timeout", "--program", "chmod", "--",
             "sh", "-c", script, str(BUILD / "daemon/tarnikd")],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    CONFIGURED = ": >/etc/tarnik.conf; : >/etc/ips.conf; : >/etc/acl.conf; "

    def assert_one_line(self, errors, text):
        lines = [line for line in errors.splitlines() if text in line]
        self.assertEqual(len(lines), 1, errors)

    def test_without_configuration(self):
        run = self.run_daemon('"$0" -D')
        self.assertEqual(run.returncode, 1)
        self.assert_one_line(run.stderr, "Fatal error: tarnikd: Failed to load the configuration")

    def test_without_driver(self):
        run = self.run_daemon(self.CONFIGURED + 'timeout 4 "$0" -D; exit 0')
        self.assert_one_line(run.stderr, "Cannot open zorvik ctl - No such file or directory")

    def test_without_directory(self):
        run = self.run_daemon(self.CONFIGURED +
                              'rm -r /var/support/tarnik; timeout 1 "$0" -D; exit 0')
        self.assert_one_line(run.stderr, "Cannot write to [/var/support/tarnik/]: No such file")

    def test_without_the_run_directory(self):
        run = self.run_daemon(self.CONFIGURED + 'rm -r /run/orlo; : >/run/orlo; "$0" -D')
        self.assertEqual(run.returncode, 1)
        self.assert_one_line(run.stderr, "Failed to create command interface: ")


if __name__ == "__main__":
    if not can("bwrap") and not can("chroot"):
        print("no private root can be had on this machine: neither namespaces nor chroot")
        sys.exit(77)
    unittest.main(verbosity=2)
