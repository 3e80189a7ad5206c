# SPDX-License-Identifier: Apache-2.0
"""The Debian packages, installed into a machine with only their dependencies and a compiler.

The machine is a directory: apt resolves and unpacks the dependencies (script/sysroot), dpkg --root installs
the packages, and bubblewrap runs programs with that directory as the root.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from library_test import BUILD, BUILD_BOTH, TOP, run, write_example

MACHINE = BUILD / "packages-root"
sys.path.insert(0, str(TOP / "tests" / "install"))

from bench_board import BoardCase, images  # noqa: E402
from simboard import box  # noqa: E402

NAMES = ("libtessera1", "tessera-platform", "libtessera-dev", "tessera")
COMPLETE = """awk() { mawk "$@"; }  # Debian makes that link when a package is configured
. /usr/share/bash-completion/completions/tessera
COMP_WORDS=(tessera sl) COMP_CWORD=1
_tessera
echo "${COMPREPLY[*]}"
"""


def dpkg(*words):
    return run("unshare", "--map-root-user", "dpkg", "--root", MACHINE, "--force-unsafe-io", *words)


class PackagesTest(BoardCase):
    @classmethod
    def setUpClass(cls):
        files = run(TOP / "script" / "package", env={**os.environ, "TESSERA_BUILD": BUILD}).splitlines()[-len(NAMES):]
        cls.packages = {run("dpkg-deb", "--field", path, "Package").strip(): path for path in files}

    def field(self, name, field):
        return run("dpkg-deb", "--field", self.packages[name], field).strip()

    def files(self, name):
        lines = run("dpkg-deb", "--contents", self.packages[name]).splitlines()
        return {line.split()[5].removeprefix(".") for line in lines if not line.startswith("d")}

    def test_contents_and_dependencies(self):
        self.assertEqual(sorted(self.packages), sorted(NAMES))
        names = {path.rpartition("/")[2] for path in self.files("tessera-platform") if path.startswith("/usr/lib/")}
        self.assertEqual(names, {"liblog.so", "libkastor_efuse.so"})
        pages = {f"/usr/share/man/man{path.stem[-1]}/{path.stem}.gz" for path in (TOP / "docs" / "man").glob("*.[15].scd")}
        verbs = re.findall(r"^  (\w+) ", run(BUILD / "tool" / "tessera", "--help"), re.M)
        pages |= {f"/usr/share/man/man1/tessera-{verb}.1.gz" for verb in verbs}
        self.assertLess({*pages, "/usr/share/bash-completion/completions/tessera",
                         "/lib/systemd/system/tessera-confirm.service"}, self.files("tessera"))
        self.assertLess({"/usr/share/doc/libtessera-dev/tessera.spdx.json", "/usr/share/man/man3/CRC32.3tessera.gz"},
                        self.files("libtessera-dev"))
        self.assertGreater(len(verbs), 15)
        self.assertIn("libssl3", self.field("tessera", "Depends"))
        self.assertIn("tessera-platform | tessera-board-platform", self.field("libtessera1", "Depends"))
        self.assertIn(self.field("tessera", "Version"), run(BUILD / "tool" / "tessera", "--version").split())
        for name in ("tessera", "libtessera-dev"):
            self.assertIn(f"libtessera1 (= {self.field('libtessera1', 'Version')})", self.field(name, "Depends"))

    def test_lintian(self):
        run("lintian", "--allow-root", "--fail-on", "error,warning", *self.packages.values())

    def test_a_fresh_machine(self):
        files = [str(path) for path in self.packages.values()]
        others = ["bash", "dash", "coreutils", "grep", "mawk", "libc-bin", "gcc", "libc6-dev", "cmake", "make"]
        run(TOP / "script" / "sysroot", MACHINE, self.field("tessera", "Architecture"), *files, *others)
        dpkg("--install", *files)
        self.addCleanup(dpkg, "--purge", *NAMES)
        self.new()
        write_example(self.home)
        self.on_machine(BUILD_BOTH)
        for seed, program in enumerate(("by-pkg-config", "by-cmake")):
            image = images(seed, system=300_000)
            self.pack("update.zip", image, None)
            self.assertRegex(self.on_machine(f"./{program}"), r"300000 bytes are on \S*system_b")
            self.assertTrue(self.holds(image, 1))
        self.assertRegex(self.on_machine("tessera slots"), r"1 +b .*boots next")
        self.assertEqual(self.on_machine(COMPLETE), "slots\n")

    def on_machine(self, script):
        """Runs a script on the machine, which is a board with eMMC."""
        return run("bwrap", "--unshare-all", "--unshare-user", "--uid", "0", "--gid", "0", "--die-with-parent",
                   "--bind", MACHINE, "/", *box.board_view(self.board()), "--chdir", "/userdata",
                   "--clearenv", "--setenv", "PATH", "/usr/sbin:/usr/bin", "--", "/usr/bin/bash", "-c", script)


class ServiceTest(unittest.TestCase):
    @unittest.skipUnless(shutil.which("systemd-analyze"), "there is no systemd")
    def test_a_check_may_wait_for_all_services(self):
        system = pathlib.Path("/usr/lib/systemd/system")
        unit = (TOP / "packaging" / "tessera-confirm.service").read_text().replace("=tessera", "=/bin/true")
        with tempfile.TemporaryDirectory() as units:
            wants, requires = (pathlib.Path(units, name) for name in
                               ("multi-user.target.wants", "boot-complete.target.requires"))
            for directory, file in (wants, "tessera-confirm"), (requires, "systemd-boot-check-no-failures"):
                directory.mkdir()
                (directory / f"{file}.service").symlink_to(system / f"{file}.service")
            pathlib.Path(units, "tessera-confirm.service").write_text(unit)
            result = subprocess.run(["systemd-analyze", "--man=no", "verify", "multi-user.target"], capture_output=True,
                                  text=True, env={**os.environ, "SYSTEMD_UNIT_PATH": f"{units}:{system}"}, check=True)
        self.assertNotIn("cycle", result.stderr)


unittest.main()
