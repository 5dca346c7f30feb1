#!/usr/bin/env python3
"""Tests the demo live and with capture files, with and without root or namespaces, and interrupted.

usage: demo_ways_test.py BUILD_DIR [unittest argument]...
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import unittest

from demo_fixture import (BUILD, EVERYTHING, NO_BWRAP, NO_CHROOT, RECORD, DemoTest, can,
                          descendants, main)
from support import AS_NOBODY, PRIVATE_ROOT, run


def in_mode(mode):
    """The environment for a demo in a private root of this kind."""
    return dict(os.environ, TARNIK_PRIVATE_ROOT_MODE=mode)


class Signals(DemoTest):
    def test_sigterm_finalises_every_open_capture(self):
        process = self.start("--speed", "200", self.traffic)
        daemon = self.daemon_of(process)
        time.sleep(0.5)
        os.kill(daemon, signal.SIGTERM)
        process.communicate(timeout=60)
        self.assert_whole()

    def test_reloads_lose_no_frame_and_no_name(self):
        """Changes policy files and settings before each reload."""
        self.rules.write_text("nap 10 uuid-one icmp or icmp6 or udp\n" + EVERYTHING)
        process = self.start("--speed", "200", self.traffic)
        daemon = self.daemon_of(process)
        etc = pathlib.Path(f"/proc/{daemon}/root/etc")
        changes = {"ruv-qan/issues.csv": ("everything", "anything"),
                   "acl.conf": ("uuid-one", "uuid-two"),
                   "tarnik.conf": ("maxno = 20000", "maxno = 19999")}
        for turn in range(12):
            for name, (one, other) in changes.items():
                text = (etc / name).read_text()
                one, other = (one, other) if turn % 2 == 0 else (other, one)
                self.assertIn(one, text)
                (etc / "new").write_text(text.replace(one, other))
                os.replace(etc / "new", etc / name)
            os.kill(daemon, signal.SIGHUP)
            time.sleep(0.2)
        _, errors = process.communicate(timeout=120)
        self.assertEqual(process.returncode, 0, errors)
        self.assert_balanced(files=60)
        self.assertEqual(self.account()["accepted"], self.account()["seen"])
        log = (self.out / "tarnikd.log").read_text()
        self.assertEqual(log.count("onReload: Reloading"), 13)
        self.assertNotIn("Error: ", log)
        self.assert_whole()
        self.assertEqual(self.triggers(), {"ips.everything", "ips.anything", "naprule-10 uuid-one",
                                           "naprule-10 uuid-two"})

    def triggers(self):
        """The triggers in the names of the captures. Their info files must agree."""
        found = set()
        for path in (self.out / "captures").glob("*.pcap"):
            name = re.fullmatch(r"\d{8}-\d{6}\.(ips|naprule)([.-])(\w+)\.\d+\.pcap", path.name)
            self.assertTrue(name, path.name)
            info = path.with_suffix(".info").read_text()
            if name[1] == "ips":
                self.assertIn(f"ips.issue.name={name[3]}\n", info)
                found.add(f"ips.{name[3]}")
            else:
                self.assertIn(f"nap.priority={name[3]}\n", info)
                found.add(f"naprule-{name[3]} " + re.search(r"^nap\.uuid=(.*)$", info, re.M)[1])
        return found

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


class Ways(DemoTest):
    @unittest.skipUnless(can("bwrap"), NO_BWRAP)
    def test_live_network(self):
        self.assert_recorded("--seconds", "6", files=None)
        self.assertGreater(self.account()["files"], 5)
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), NO_CHROOT)
    def test_chroot(self):
        self.assert_recorded(self.traffic, env=in_mode("chroot"))
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), NO_CHROOT)
    def test_without_namespaces_generated_traffic_is_replayed(self):
        ended = self.assert_recorded(files=None, env=in_mode("chroot"))
        self.assertIn("generated traffic", ended.errors)

    @unittest.skipUnless(os.geteuid() == 0, "live capture needs root")
    def test_an_interface(self):
        for mode in filter(can, ("bwrap", "chroot")):
            with self.subTest(mode), subprocess.Popen(
                    ["ping", "-q", "-i", "0.2", "127.0.0.1"], stdout=subprocess.DEVNULL) as ping:
                ended = self.record("--live", "lo", "--seconds", "3", env=in_mode(mode))
                ping.terminate()
                self.assertEqual(ended.status, 0, ended.errors)
                self.assert_balanced()
                self.assertGreater(self.account()["records"], 5)
                self.assert_whole()

    @unittest.skipUnless(os.geteuid() == 0, "live capture needs root")
    def test_an_interface_that_is_not_there(self):
        status, _, errors = self.record("--live", "nosuch0")
        self.assertEqual(status, 1)
        self.assertEqual(len([line for line in errors.splitlines() if "nosuch0" in line]), 1)
        self.assertIn("nosuch0: No such device exists", errors)
        self.assertEqual(self.record(self.traffic)[0], 0)  # works again

    def test_the_pauses_of_the_recording(self):
        self.make_traffic("--flows", "20", "--seconds", "3")
        begin = time.monotonic()
        self.assertEqual(self.record(self.traffic)[0], 0)
        fast = time.monotonic() - begin
        begin = time.monotonic()
        self.assertEqual(self.record("--speed", "recorded", self.traffic)[0], 0)
        self.assertGreater(time.monotonic() - begin, fast + 1.5)

    def test_an_end_at_any_moment_of_the_beginning(self):
        for tenths in range(1, 10, 2):
            process = self.start("--speed", "100", self.traffic)
            time.sleep(tenths / 10)
            process.terminate()
            begin = time.monotonic()
            _, errors = process.communicate(timeout=30)
            self.assertIn(process.returncode, (143, -15), errors)
            self.assertLess(time.monotonic() - begin, 12)  # the replay takes longer


@unittest.skipUnless(os.geteuid() == 0, "already without root")
class WithoutRoot(DemoTest):
    def setUp(self):
        super().setUp()
        if run(*AS_NOBODY, PRIVATE_ROOT, "--which").status != 0:
            self.skipTest("no user namespaces for users here")
        for path in (self.directory, self.traffic, self.rules):
            os.chown(path, 65534, 65534)

    def command(self, *arguments):
        return [*AS_NOBODY, "env", "PATH=/usr/bin:/bin", *super().command(*arguments)]

    def test_a_file(self):
        self.assert_recorded(self.traffic)

    def test_the_live_network(self):
        self.assert_recorded("--seconds", "4", files=None)
        self.assertGreater(self.account()["files"], 5)

    def test_an_interface(self):
        self.assertEqual(self.record("--live", "lo"),
                         (1, "", "demo: live capture needs root: sudo ./demo ...\n"))

    def test_no_private_root(self):
        ended = run(*AS_NOBODY, PRIVATE_ROOT, "--mode", "chroot", "--unavailable", "77", "--", "true")
        self.assertEqual(ended, (77, "", "private-root: chroot needs root\n"))


class Names(DemoTest):
    """Names of folders and files with characters that are special for a shell, loader or parser."""

    def setUp(self):
        super().setUp()
        self.build = self.directory / "a build's folder"
        for part in ("daemon/tarnikd", "platform/brund/brund-sim", "platform/zorvik/zorvikctl",
                     "platform/zorvik/libzorvik.so", "platform/orlo/liborlo_sdk.so.1", "tools/tarnikctl", "tools/make-traffic"):
            (self.build / part).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(BUILD / part, self.build / part)
        self.traffic = self.traffic.rename(self.directory / "-my: capture's *.pcap")
        self.rules = self.rules.rename(self.directory / "-r: les")
        self.out = self.directory / "-o: ut $x"

    def command(self, *arguments):
        return [RECORD, "--build", self.build.name, "--rules", self.rules.name, "--out",
                self.out.name, "--", self.traffic.name]

    def options(self, mode):
        return {"cwd": self.directory,
                "env": dict(in_mode(mode), LD_LIBRARY_PATH=self.build / "platform/orlo")}

    def test_in_each_mode(self):
        for mode in filter(can, ("bwrap", "chroot")):
            with self.subTest(mode):
                self.assert_recorded(**self.options(mode))

    def test_a_rule_that_is_refused(self):
        self.rules.write_text("ips 1 x tcp\n")
        ended = self.record(**self.options("auto"))
        self.assertEqual(ended.status, 2)
        self.assertIn("-r: les:1: ips identifier 1 ", ended.errors)


class ByHand(unittest.TestCase):
    """The daemon, started without something that it needs, says so in one line."""

    def run_daemon(self, script, *options):
        return run(PRIVATE_ROOT, "--build", BUILD, "--program", "timeout", "--program", "chmod",
                   *options, "--", "sh", "-c", script, BUILD / "daemon/tarnikd")

    CONFIGURED = ": >/etc/tarnik.conf; : >/etc/ips.conf; : >/etc/acl.conf; "

    def assert_one_line(self, errors, text):
        lines = [line for line in errors.splitlines() if text in line]
        self.assertEqual(len(lines), 1, errors)

    def test_without_configuration(self):
        ended = self.run_daemon('"$0" -D')
        self.assertEqual(ended.status, 1)
        self.assert_one_line(ended.errors, "Fatal error: tarnikd: Failed to load the configuration")

    def test_without_driver(self):
        ended = self.run_daemon(self.CONFIGURED + 'timeout 4 "$0" -D; exit 0')
        self.assert_one_line(ended.errors, "Cannot open zorvik ctl - No such file or directory")

    def test_without_directory(self):
        ended = self.run_daemon(self.CONFIGURED +
                                'rm -r /var/support/tarnik; timeout 1 "$0" -D; exit 0')
        self.assert_one_line(ended.errors, "Cannot write to [/var/support/tarnik/]: No such file")

    def test_without_the_run_directory(self):
        ended = self.run_daemon(self.CONFIGURED + 'rm -r /run/orlo; : >/run/orlo; "$0" -D')
        self.assertEqual(ended.status, 1)
        self.assert_one_line(ended.errors, "Failed to create command interface: ")

    @unittest.skipUnless(os.geteuid() == 0, "only root can become another user")
    def test_without_the_right_to_write(self):
        ended = self.run_daemon(
            self.CONFIGURED + "chmod 755 /var/support/tarnik; chmod 777 /run/orlo; "
            'timeout 3 setpriv --reuid 65534 --clear-groups "$0" -D; exit 0', "--program", "setpriv")
        self.assert_one_line(ended.errors,
                             "Cannot write to [/var/support/tarnik/]: Permission denied")


if __name__ == "__main__":
    main()
