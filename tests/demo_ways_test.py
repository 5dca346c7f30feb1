#!/usr/bin/env python3
"""The demo's ways: live and replayed, with and without root or namespaces, ended at any time.

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

from demo_fixture import (AS_NOBODY, BUILD, EVERYTHING, NO_BWRAP, NO_CHROOT, PRIVATE_ROOT, RECORD,
                          DemoTest, can, descendants, main)


class Signals(DemoTest):
    def test_sigterm_finalises_every_open_capture(self):
        process = self.start("--speed", "200", self.traffic)
        daemon = self.daemon_of(process)
        time.sleep(0.5)
        os.kill(daemon, signal.SIGTERM)
        process.communicate(timeout=60)
        self.assert_whole()

    def test_sighup_loses_no_frame_and_spoils_no_name(self):
        """Reloads, each of other policy files and settings than the one before."""
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
        account = self.account()
        self.assertTrue(account["balanced"])
        self.assertEqual(account["accepted"], account["seen"])
        self.assertEqual(account["files"], 60)
        log = (self.out / "tarnikd.log").read_text()
        self.assertEqual(log.count("onReload: Reloading"), 13)
        self.assertNotIn("Error: ", log)
        self.assert_whole()
        self.assertEqual(self.triggers(), {"ips.everything", "ips.anything", "naprule-10 uuid-one",
                                           "naprule-10 uuid-two"})

    def triggers(self):
        """What captures are called by their names and, as it has to agree, their info files."""
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
        status, _, errors = self.record("--seconds", "6")
        self.assertEqual(status, 0, errors)
        self.assertTrue(self.account()["balanced"])
        self.assertGreater(self.account()["files"], 5)
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), NO_CHROOT)
    def test_chroot(self):
        environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE="chroot")
        status, _, errors = self.record(self.traffic, env=environment)
        self.assertEqual(status, 0, errors)
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["files"], 60)
        self.assert_whole()

    @unittest.skipUnless(can("chroot"), NO_CHROOT)
    def test_without_namespaces_generated_traffic_is_replayed(self):
        environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE="chroot")
        status, _, errors = self.record(env=environment)
        self.assertEqual(status, 0, errors)
        self.assertIn("generated traffic", errors)
        self.assertTrue(self.account()["balanced"])

    @unittest.skipUnless(os.geteuid() == 0, "sniffing takes root")
    def test_an_interface(self):
        for mode in filter(can, ("bwrap", "chroot")):
            with self.subTest(mode), subprocess.Popen(
                    ["ping", "-q", "-i", "0.2", "127.0.0.1"], stdout=subprocess.DEVNULL) as ping:
                environment = dict(os.environ, TARNIK_PRIVATE_ROOT_MODE=mode)
                status, _, errors = self.record("--live", "lo", "--seconds", "3", env=environment)
                ping.terminate()
                self.assertEqual(status, 0, errors)
                self.assertTrue(self.account()["balanced"])
                self.assertGreater(self.account()["records"], 5)
                self.assert_whole()

    @unittest.skipUnless(os.geteuid() == 0, "sniffing takes root")
    def test_an_interface_that_is_not_there(self):
        status, _, errors = self.record("--live", "nosuch0")
        self.assertEqual(status, 1)
        self.assertEqual(len([line for line in errors.splitlines() if "nosuch0" in line]), 1)
        self.assertIn("nosuch0: No such device exists", errors)
        self.assertEqual(self.record(self.traffic)[0], 0)  # what failed is not in the way

    def test_the_pauses_of_the_recording(self):
        subprocess.run([self.build / "tools/make-traffic", "--flows", "20", "--seconds", "3",
                        self.traffic], check=True)
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
            self.assertLess(time.monotonic() - begin, 12)  # the replay would go on for longer


@unittest.skipUnless(os.geteuid() == 0, "already without root")
class WithoutRoot(DemoTest):
    def setUp(self):
        super().setUp()
        if subprocess.run([*AS_NOBODY, PRIVATE_ROOT, "--which"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no user namespaces for users here")
        for path in (self.directory, self.traffic, self.rules):
            os.chown(path, 65534, 65534)

    def as_nobody(self, *arguments):
        return subprocess.run(
            [*AS_NOBODY, "env", "PATH=/usr/bin:/bin", RECORD, "--build", self.build, "--out",
             self.out, "--rules", self.rules, *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            timeout=120)

    def test_a_file(self):
        run = self.as_nobody(self.traffic)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertTrue(self.account()["balanced"])
        self.assertEqual(self.account()["files"], 60)

    def test_the_live_network(self):
        run = self.as_nobody("--seconds", "4")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertTrue(self.account()["balanced"])
        self.assertGreater(self.account()["files"], 5)

    def test_an_interface(self):
        run = self.as_nobody("--live", "lo")
        self.assertEqual((run.returncode, run.stderr),
                         (1, "demo: sniffing lo takes root: sudo ./demo ...\n"))

    def test_no_private_root(self):
        run = subprocess.run([*AS_NOBODY, PRIVATE_ROOT, "--mode", "chroot", "--unavailable", "77",
                              "--", "true"], stderr=subprocess.PIPE, text=True)
        self.assertEqual((run.returncode, run.stderr), (77, "private-root: chroot needs root\n"))


class Names(DemoTest):
    """Names of folders and files with what a shell, the loader or an option would stumble over."""

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

    def in_the_directory(self, **environment):
        return subprocess.run(
            [RECORD, "--build", self.build.name, "--rules", self.rules.name, "--out",
             self.out.name, "--", self.traffic.name],
            cwd=self.directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
            env=dict(os.environ, LD_LIBRARY_PATH=self.build / "platform/orlo", **environment))

    def test_each_way(self):
        for mode in filter(can, ("bwrap", "chroot")):
            with self.subTest(mode):
                run = self.in_the_directory(TARNIK_PRIVATE_ROOT_MODE=mode)
                self.assertEqual(run.returncode, 0, run.stderr)
                self.assertTrue(self.account()["balanced"])
                self.assertEqual(self.account()["files"], 60)

    def test_a_rule_that_is_refused(self):
        self.rules.write_text("ips 1 x tcp\n")
        run = self.in_the_directory()
        self.assertEqual(run.returncode, 2)
        self.assertIn("-r: les:1: ips identifier 1 ", run.stderr)


class ByHand(unittest.TestCase):
    """The daemon started where something is missing says so in one line."""

    def run_daemon(self, script, *options):
        return subprocess.run(
            [PRIVATE_ROOT, "--build", BUILD, "--program", "timeout", "--program", "chmod", *options, "--",
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

    @unittest.skipUnless(os.geteuid() == 0, "only root can become another user")
    def test_without_the_right_to_write(self):
        run = self.run_daemon(
            self.CONFIGURED + "chmod 755 /var/support/tarnik; chmod 777 /run/orlo; "
            'timeout 3 setpriv --reuid 65534 --clear-groups "$0" -D; exit 0', "--program", "setpriv")
        self.assert_one_line(run.stderr,
                             "Cannot write to [/var/support/tarnik/]: Permission denied")


if __name__ == "__main__":
    main()
