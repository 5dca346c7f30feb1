#!/usr/bin/env python3
"""Tests tools/install-packages with replaced system programs that only record their calls."""

import os
import shutil
import unittest

from support import PROJECT, DirectoryTest, run

SCRIPT = PROJECT / "tools/install-packages"
PROGRAMS = {
    # The files in the folder "installed" are the installed packages.
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


class InstallPackages(DirectoryTest):
    def setUp(self):
        super().setUp()
        self.add_installed()
        for name, text in PROGRAMS.items():
            (self.directory / name).write_text(f"#!/bin/sh\n{text}\n")
            (self.directory / name).chmod(0o755)
        for name in ("bash", "sh", "env", "mktemp", "rm", "tail"):
            (self.directory / name).symlink_to(shutil.which(name))

    def add_installed(self, *packages):
        (self.directory / "installed").mkdir(exist_ok=True)
        for package in packages:
            (self.directory / "installed" / package).touch()

    def install(self, *packages, **environment):
        """Exit status, standard error, recorded calls."""
        here = str(self.directory)
        ended = run(SCRIPT, *packages, env=dict(os.environ, PATH=here, HERE=here, **environment))
        calls = self.directory / "calls"
        return ended.status, ended.errors, calls.read_text().splitlines() if calls.exists() else []

    INSTALL = "apt-get install -y -q --no-install-recommends "

    def test_does_nothing_when_nothing_is_missing(self):
        self.add_installed("jq")
        self.assertEqual(self.install("jq"), (0, "", []))

    def test_installs_only_what_is_missing(self):
        self.add_installed("jq", "nginx")
        self.assertEqual(self.install("jq", "curl", "g++"), (
            0, "installing curl g++\n", ["apt-get update -q", self.INSTALL + "curl g++"]))

    def test_uses_sudo_when_not_root(self):
        self.add_installed("nginx")
        status, _, calls = self.install("curl", USER_ID="1000")
        self.assertEqual((status, calls), (0, [
            "sudo apt-get", "apt-get update -q", "sudo env", self.INSTALL + "curl"]))

    def test_stops_a_web_server_that_it_installed(self):
        status, _, calls = self.install("nginx-light")
        self.assertEqual((status, calls[2:]),
                         (0, ["invoke-rc.d nginx stop", "update-rc.d nginx disable"]))

    def test_leaves_a_web_server_that_was_installed(self):
        self.add_installed("nginx")
        self.assertEqual(len(self.install("nginx-light")[2]), 2)

    def test_tries_three_times(self):
        (self.directory / "broken").touch()
        status, errors, calls = self.install("curl")
        self.assertEqual((status, len(calls)), (1, 6))
        self.assertEqual(errors, "installing curl\nE: no such package\n"
                                 "install-packages: apt-get could not install curl\n")

    def test_fails_without_root_and_sudo(self):
        (self.directory / "sudo").unlink()
        self.assertEqual(self.install("curl", "jq", USER_ID="1000"), (
            1, "install-packages: packages are missing, and there is no sudo; as root, run: "
               "apt-get install curl jq\n", []))

    def test_fails_without_apt_get(self):
        (self.directory / "apt-get").unlink()
        self.assertEqual(self.install("curl", "jq"), (
            1, "install-packages: there is no apt-get; install the contents of these Debian "
               "packages: curl jq\n", []))


if __name__ == "__main__":
    unittest.main(verbosity=2)
