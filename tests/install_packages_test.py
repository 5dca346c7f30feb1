#!/usr/bin/env python3
"""tools/install-packages, with a packager of its own that only notes what it is asked."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parent.parent / "tools/install-packages"
PROGRAMS = {
    # What is installed are the files of the folder "installed".
    "dpkg-query": '[ -e "$HERE/installed/$4" ] && printf installed',
    "apt-get": 'echo "apt-get $*" >>"$HERE/calls"\n'
               '[ "$1" = update ] || [ ! -e "$HERE/broken" ] || { echo "E: no such package"; exit 100; }\n'
               '[ "$1" = update ] || : >"$HERE/installed/nginx"',
    "sudo": 'echo "sudo $1" >>"$HERE/calls"; exec "$@"',
    "sleep": "",
    "id": "echo ${USER_ID:-0}",
    "invoke-rc.d": 'echo "invoke-rc.d $*" >>"$HERE/calls"',
    "update-rc.d": 'echo "update-rc.d $*" >>"$HERE/calls"',
}


class InstallPackages(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.here = pathlib.Path(directory.name)
        (self.here / "installed").mkdir()
        for name, text in PROGRAMS.items():
            (self.here / name).write_text(f"#!/bin/sh\n{text}\n")
            (self.here / name).chmod(0o755)
        for name in ("bash", "sh", "env", "mktemp", "rm", "tail"):
            (self.here / name).symlink_to(shutil.which(name))

    def install(self, *packages, **environment):
        run = subprocess.run(
            [SCRIPT, *packages], stderr=subprocess.PIPE, text=True,
            env=dict(os.environ, PATH=str(self.here), HERE=str(self.here),
                     **environment))
        calls = self.here / "calls"
        return run.returncode, run.stderr, calls.read_text().splitlines() if calls.exists() else []

    INSTALL = "apt-get install -y -q --no-install-recommends "

    def test_nothing_is_missing(self):
        (self.here / "installed/jq").touch()
        self.assertEqual(self.install("jq"), (0, "", []))

    def test_only_what_is_missing(self):
        (self.here / "installed/jq").touch()
        (self.here / "installed/nginx").touch()
        self.assertEqual(self.install("jq", "curl", "g++"), (
            0, "installing curl g++\n", ["apt-get update -q", self.INSTALL + "curl g++"]))

    def test_sudo_for_a_user(self):
        (self.here / "installed/nginx").touch()
        status, _, calls = self.install("curl", USER_ID="1000")
        self.assertEqual((status, calls), (0, [
            "sudo apt-get", "apt-get update -q", "sudo env", self.INSTALL + "curl"]))

    def test_a_web_server_that_came_with_it_does_not_stay(self):
        status, _, calls = self.install("nginx-light")
        self.assertEqual((status, calls[2:]),
                         (0, ["invoke-rc.d nginx stop", "update-rc.d nginx disable"]))

    def test_a_web_server_that_was_there_stays(self):
        (self.here / "installed/nginx").touch()
        self.assertEqual(len(self.install("nginx-light")[2]), 2)

    def test_what_cannot_be_installed(self):
        (self.here / "broken").touch()
        status, errors, calls = self.install("curl")
        self.assertEqual((status, len(calls)), (1, 6))
        self.assertEqual(errors, "installing curl\nE: no such package\n"
                                 "install-packages: apt-get could not install curl\n")

    def test_neither_root_nor_sudo(self):
        (self.here / "sudo").unlink()
        self.assertEqual(self.install("curl", "jq", USER_ID="1000"), (
            1, "install-packages: missing packages, and neither root nor sudo; as root: "
               "apt-get install curl jq\n", []))

    def test_another_system(self):
        (self.here / "apt-get").unlink()
        self.assertEqual(self.install("curl", "jq"), (
            1, "install-packages: no apt-get on this machine; install what these Debian packages "
               "hold: curl jq\n", []))


if __name__ == "__main__":
    unittest.main(verbosity=2)
