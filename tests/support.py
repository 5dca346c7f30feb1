"""What the Python tests share: paths, running a process, temporary directories."""

import collections
import pathlib
import subprocess
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parent.parent
PRIVATE_ROOT = PROJECT / "platform/private-root/private-root"
AS_NOBODY = ("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups")

Finished = collections.namedtuple("Finished", "status output errors")


def run(*command, timeout=120, **options):
    """Runs a command to its end. Its standard input is empty unless `input` is given."""
    if "input" not in options:
        options["stdin"] = subprocess.DEVNULL
    ended = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           timeout=timeout, **options)
    return Finished(ended.returncode, ended.stdout, ended.stderr)


class DirectoryTest(unittest.TestCase):
    """A test with a temporary directory of its own."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
