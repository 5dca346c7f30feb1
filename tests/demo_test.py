#!/usr/bin/env python3
"""Tests what the demo records, refuses and leaves behind.

usage: demo_test.py BUILD_DIR [unittest argument]...
"""

import os
import pathlib
import signal
import struct
import tempfile
import time
import unittest

from demo_fixture import EVERYTHING, NO_CHROOT, DemoTest, can, descendants, main
from support import PROJECT, run


class Recording(DemoTest):
    def test_records_a_capture_file(self):
        _, output, errors = self.assert_recorded(self.traffic)
        account = self.account()
        self.assertEqual(account["seen"], account["accepted"])
        self.assertIn("balanced", output)
        self.assertNotIn("interface group stays", errors)
        self.assert_whole()
        self.assertIn("onTerminate: Received SIGTERM, exiting",
                      (self.out / "tarnikd.log").read_text())

    def test_replaces_the_recording_of_an_earlier_demo(self):
        self.assert_recorded(self.traffic)
        self.assert_recorded(self.traffic)

    def test_leaves_a_folder_with_other_files_alone(self):
        self.out.mkdir()
        (self.out / "thesis.tex").write_text("years of work")
        status, _, errors = self.record(self.traffic)
        self.assertEqual(status, 2)
        self.assertIn("has other files than those of an earlier demo", errors)
        self.assertEqual([path.name for path in self.out.iterdir()], ["thesis.tex"])

    def test_the_daemon_always_has_two_threads(self):
        process = self.start("--speed", "200", self.traffic)
        tasks = pathlib.Path(f"/proc/{self.daemon_of(process)}/task")
        counts = []
        for _ in range(30):
            counts.append(len(list(tasks.iterdir())))
            time.sleep(0.02)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 0, errors)
        # The thread sanitizer's runtime adds a thread of its own.
        sanitizer = b"__tsan_init" in (self.build / "daemon/tarnikd").read_bytes()
        self.assertEqual(set(counts), {3 if sanitizer else 2})

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
        self.assert_recorded(self.traffic, self.traffic)


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

    def test_refuses_wrong_rules(self):
        self.refused("ips 65535 name tcp\n", 1, "65535")
        self.refused("# comment\n\nips 0 name tcp\n", 3, "0")
        self.refused("ips 70001 a/b tcp\n", 1, "a/b")
        self.refused("ips 70001 name tcp prot\n", 1)
        self.refused("nap 0 uuid tcp\n", 1, "0")
        self.refused("nap 65535 uuid tcp\n", 1, "65535")
        self.refused(EVERYTHING + "ipz 1 name tcp\n", 2, "ipz")

    def test_refuses_wrong_options(self):
        for arguments in (["--speed", "0", self.traffic], ["--speed", "fast", self.traffic],
                          ["--seconds", "x"], ["--seconds", "86401"], ["--live", "lo", self.traffic],
                          ["--seconds", "5", self.traffic], ["--speed", "max"], ["--live", ""],
                          ["--nonsense"], ["--rules"], ["--config", "/nonexistent", self.traffic],
                          [self.traffic, self.directory]):
            status, _, errors = self.record(*arguments)
            self.assertEqual((status, len(errors.splitlines())), (2, 1), (arguments, errors))
            self.assertFalse(self.out.exists())

    def test_refuses_options_before_it_installs_or_builds(self):
        self.assertEqual(run(PROJECT / "demo", "--nonsense", timeout=5),
                         (2, "", "demo: unknown option --nonsense (./demo --help)\n"))

    def test_prints_help_from_any_folder(self):
        for script in ("demo", "run-tests"):
            ended = run(os.path.join(PROJECT.name, script), "--help", cwd=PROJECT.parent)
            self.assertEqual((ended.status, ended.errors), (0, ""))
            self.assertIn(f"./{script} [", ended.output)

    def test_refuses_to_replay_the_captures_that_it_would_delete(self):
        self.assertEqual(self.record(self.traffic)[0], 0)
        capture = next((self.out / "captures").glob("*.pcap"))
        status, _, errors = self.record(capture)
        self.assertEqual(status, 2)
        self.assertIn("which is emptied first: choose another --out", errors)
        self.assertEqual(len(list((self.out / "captures").glob("*.pcap"))), 60)

    def test_reports_a_daemon_that_does_not_start(self):
        config = self.directory / "tarnik.conf"
        config.write_text("tarnik.file.maxno = x\n")
        status, _, errors = self.record("--config", config, self.traffic)
        self.assertEqual(status, 1)
        self.assertIn("demo: tarnikd ended with status 1; its last lines:\n", errors)
        self.assertIn("Fatal error: tarnikd: Failed to load the configuration", errors)
        self.assertNotIn("within 30 seconds", errors)  # brund-sim does not wait for a daemon

    def test_refuses_the_folder_of_a_running_demo(self):
        process = self.start("--speed", "100", self.traffic)
        self.daemon_of(process)
        status, _, errors = self.record(self.traffic)
        self.assertEqual((status, errors),
                         (2, f"demo: another demo is recording into {self.out}\n"))
        process.terminate()
        process.communicate(timeout=60)
        self.assert_balanced()

    def test_refuses_a_folder_that_it_cannot_write(self):
        self.out.write_text("a file")
        status, _, errors = self.record(self.traffic)
        self.assertEqual((status, errors), (2, f"demo: cannot write to {self.out}: File exists\n"))


class BadInput(DemoTest):
    def complaint(self, path, *reasons):
        status, _, errors = self.record(self.traffic, path, self.traffic)
        self.assertEqual(status, 1, errors)
        lines = [line for line in errors.splitlines() if str(path) in line]
        self.assertEqual(len(lines), 1, errors)
        for reason in reasons:
            self.assertIn(reason, lines[0])
        self.assert_balanced(files=60)  # all others are recorded

    def test_missing_file(self):
        self.complaint(self.directory / "nothing.pcap", "No such file")

    def test_empty_file(self):
        (self.directory / "empty.pcap").touch()
        self.complaint(self.directory / "empty.pcap")

    def test_file_of_another_kind(self):
        (self.directory / "text.pcap").write_text("this is no capture file at all\n" * 10)
        self.complaint(self.directory / "text.pcap")

    def test_truncated_file(self):
        whole = self.traffic.read_bytes()
        (self.directory / "cut.pcap").write_bytes(whole[:len(whole) // 2])
        self.complaint(self.directory / "cut.pcap", "truncated")

    def test_other_link_type(self):
        raw = bytearray(self.traffic.read_bytes())
        raw[20] = 101  # raw IP
        (self.directory / "raw.pcap").write_bytes(raw)
        self.complaint(self.directory / "raw.pcap", "Ethernet")

    def test_a_frame_too_large_for_a_descriptor(self):
        whole = self.traffic.read_bytes()
        large = struct.pack("<IIII", 1, 0, 70000, 70000) + whole[40:54] + bytes(70000 - 14)
        (self.directory / "large.pcap").write_bytes(whole[:24] + large + whole[24:])
        status, output, errors = self.record(self.directory / "large.pcap")
        self.assertEqual(status, 3, errors)
        account = self.account()
        self.assertEqual(account["not_queued_by_reason"], {"too large": 1})
        self.assertEqual(account["matched"], account["queued"] + 1)
        self.assertTrue(account["balanced"])
        self.assertIn("not queued: 1 (too large)", output)
        self.assertIn("matched frames were not queued (1: longer than a frame of the driver)\n", errors)


class Leftovers(DemoTest):
    def surroundings(self):
        mounts = pathlib.Path("/proc/self/mounts").read_text()
        paths = [sorted(os.listdir(path)) if os.path.isdir(path) else None
                 for path in ("/etc", "/run/orlo", "/var/support", "/dev/zorvik", "/run/netns")]
        return mounts, paths, sorted(os.listdir(tempfile.gettempdir()))

    def setUp(self):
        super().setUp()
        (self.directory / "tmp").mkdir()
        os.environ["TMPDIR"] = tempfile.tempdir = str(self.directory / "tmp")
        self.before = self.surroundings()

    def tearDown(self):
        tempfile.tempdir = None
        del os.environ["TMPDIR"]

    def assert_nothing_remains(self):
        self.assertEqual(self.surroundings(), self.before)
        self.assertEqual(sorted(os.listdir(self.out)), ["account.json", "captures", "tarnikd.log"])

    def test_after_a_replay(self):
        self.assertEqual(self.record(self.traffic)[0], 0)
        self.assert_nothing_remains()

    def test_after_ctrl_c(self):
        self.interrupt(lambda process: os.killpg(process.pid, signal.SIGINT), 130)
        self.assert_nothing_remains()

    @unittest.skipUnless(can("chroot"), NO_CHROOT)
    def test_after_ctrl_c_in_a_chroot(self):
        process = self.start("--speed", "100", self.traffic, start_new_session=True,
                             env=dict(os.environ, TARNIK_PRIVATE_ROOT_MODE="chroot"))
        self.daemon_of(process)
        before = descendants(process.pid)
        os.killpg(process.pid, signal.SIGINT)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 130, errors)
        self.assert_balanced()
        self.assert_gone(before)
        self.assert_nothing_remains()


if __name__ == "__main__":
    main()
