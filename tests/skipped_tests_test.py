#!/usr/bin/env python3
"""tools/skipped-tests tells the tests that a log of CTest's shows as skipped, with their reasons."""

import pathlib
import subprocess
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parent.parent / "tools/skipped-tests"

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
        return subprocess.run([SCRIPT], input=log, stdout=subprocess.PIPE, text=True,
                              check=True).stdout

    def test_each_kind(self):
        self.assertEqual(self.shown(LOG), """\
skipped: Live.Sniffs: sniffing is not allowed here: no right
skipped: test_chroot: 'chroot needs root'
skipped: writer_test: private-root: bubblewrap is missing: apt-get install bubblewrap
skipped: ring_model_shutdown: spin is not installed (apt-get install spin)
""")

    def test_none(self):
        self.assertEqual(self.shown("1/1 Testing: a_test\n[       OK ] A.B (0 ms)\n"), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
