#!/usr/bin/env python3
"""tools/skipped-tests lists the tests that a CTest log shows as skipped, one line per reason."""

import unittest

from support import PROJECT, run

SCRIPT = PROJECT / "tools/skipped-tests"

LOG = """\
Start testing: Nov 21 03:36 UTC
1/5 Testing: live_test
[ RUN      ] Live.Sniffs
/a folder/live_test.cc:12: Skipped
sniffing is not allowed here: no right

[  SKIPPED ] Live.Sniffs (0 ms)
[       OK ] Live.Ends (2 ms)
[  SKIPPED ] 1 test, listed below:
[  SKIPPED ] Live.Sniffs
2/5 Testing: demo_Ways
test_chroot (__main__.Ways.test_chroot) ... skipped 'chroot needs root'
OK (skipped=1)
3/5 Testing: writer_test
private-root: bubblewrap is missing: apt-get install bubblewrap
4/5 Testing: thread_test
private-root: no namespaces on this machine, using chroot
[       OK ] Thread.Ends (2 ms)
5/5 Testing: ring_model_shutdown
skipped: spin is not installed (apt-get install spin)
"""


class SkippedTests(unittest.TestCase):
    def shown(self, log):
        ended = run(SCRIPT, input=log)
        self.assertEqual((ended.status, ended.errors), (0, ""))
        return ended.output

    def test_lists_each_kind_of_skipped_test(self):
        self.assertEqual(self.shown(LOG), """\
skipped: Live.Sniffs: sniffing is not allowed here: no right
skipped: test_chroot: chroot needs root
skipped: writer_test: private-root: bubblewrap is missing: apt-get install bubblewrap
skipped: ring_model_shutdown: spin is not installed (apt-get install spin)
""")

    def test_prints_one_line_per_reason(self):
        log = "".join(f"{i}/4 Testing: replay_{i}\nskipped: no captures\n" for i in range(3))
        self.assertEqual(self.shown(log), "skipped: replay_0, replay_1, replay_2: no captures\n")
        log += "4/4 Testing: reads_test\nA.cc:1: Skipped\nno captures\n[  SKIPPED ] Reads.A (0 ms)\n"
        self.assertEqual(self.shown(log), "skipped: 4 tests: no captures\n")

    def test_prints_nothing_when_no_test_was_skipped(self):
        self.assertEqual(self.shown("1/1 Testing: a_test\n[       OK ] A.B (0 ms)\n"), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
