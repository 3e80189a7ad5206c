"""The Debian packages, installed into a machine that holds nothing but what they depend on and a compiler.

The machine is a directory: apt resolves and unpacks the dependencies (script/sysroot), dpkg --root installs
the packages, and bubblewrap runs programs with that directory as the root.
"""

import os
import pathlib
import re
import socket
import sys
import tempfile
import unittest
import zipfile

from library_test import BUILD, CMAKE_PROJECT, EXAMPLE, TOP, run

MACHINE = BUILD / "packages-root"
sys.path.insert(0, str(TOP / "simulator"))

from simboard import box, state  # noqa: E402

NAMES = ("libtessera1", "tessera-platform", "libtessera-dev", "tessera")
MEANT = (  # what lintian would rather not see
    "package-name-doesnt-match-sonames", "shared-library-lacks-version",  # the board's libraries have these names
    "maintscript-calls-ldconfig",  # cpack's own scripts do, beside the trigger
)
BUILD_BOTH = """set -e
gcc -std=gnu11 -Wall -Wextra -Werror example.c $(pkg-config --cflags --libs tessera) -o by-pkg-config
CC=gcc cmake -G 'Unix Makefiles' -S . -B build >/dev/null
cmake --build build >/dev/null
cp build/example by-cmake
"""
COMPLETE = """awk() { mawk "$@"; }  # Debian makes that link when a package is configured
. /usr/share/bash-completion/completions/tessera
COMP_WORDS=(tessera sl) COMP_CWORD=1
_tessera
echo "${COMPREPLY[*]}"
"""


def dpkg(*words):
    return run("unshare", "--map-root-user", "dpkg", "--root", MACHINE, "--force-unsafe-io", *words)


class PackagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.place = pathlib.Path(scratch.name)
        run("cpack", "--config", BUILD / "CPackConfig.cmake", "-B", cls.place / "out")
        files = sorted((cls.place / "out").glob("*.deb"))
        cls.packages = {run("dpkg-deb", "--field", path, "Package").strip(): path for path in files}

    def field(self, name, field):
        return run("dpkg-deb", "--field", self.packages[name], field).strip()

    def files(self, name):
        lines = run("dpkg-deb", "--contents", self.packages[name]).splitlines()
        return {line.split()[5].removeprefix(".") for line in lines if not line.startswith("d")}

    def test_who_brings_what(self):
        self.assertEqual(sorted(self.packages), sorted(NAMES))
        names = {path.rpartition("/")[2] for path in self.files("tessera-platform")}
        self.assertEqual(names, {"liblog.so", "libkastor_efuse.so", "changelog.gz", "copyright"})
        pages = {f"/usr/share/man/man1/{path.stem}.gz" for path in (TOP / "docs" / "man").glob("*.scd")}
        self.assertLess({*pages, "/usr/share/bash-completion/completions/tessera"}, self.files("tessera"))
        self.assertIn("tessera-platform | tessera-board-platform", self.field("libtessera1", "Depends"))
        for name in ("tessera", "libtessera-dev"):
            self.assertIn(f"libtessera1 (= {self.field('libtessera1', 'Version')})", self.field(name, "Depends"))

    def test_lintian(self):
        run("lintian", "--allow-root", "--fail-on", "error,warning", "--suppress-tags", ",".join(MEANT),
            *self.packages.values())

    def test_a_fresh_machine(self):
        files = [str(path) for path in self.packages.values()]
        others = ["bash", "dash", "coreutils", "grep", "mawk", "libc-bin", "gcc", "libc6-dev", "cmake", "make"]
        run(TOP / "script" / "sysroot", MACHINE, self.field("tessera", "Architecture"), *files, *others)
        dpkg("--install", *files)
        self.addCleanup(dpkg, "--purge", *NAMES)
        work = self.place / "work"
        work.mkdir()
        (work / "example.c").write_text(EXAMPLE)
        (work / "CMakeLists.txt").write_text(CMAKE_PROJECT)
        image = os.urandom(300_000)
        with zipfile.ZipFile(work / "update.zip", "w", zipfile.ZIP_DEFLATED) as package:
            package.writestr("system.img", image)
        state.create(self.place / "board", state.MEDIA["emmc"], [], 2 << 20)
        self.on_machine(BUILD_BOTH)
        for program in ("by-pkg-config", "by-cmake"):
            written = state.Board(self.place / "board").backing(state.Device("system_b", ""))
            written.write_bytes(bytes(2 << 20))
            self.assertRegex(self.on_machine(f"./{program}"), r"300000 bytes are on \S*system_b")
            self.assertEqual(written.read_bytes()[: len(image)], image)
        self.assertRegex(self.on_machine("tessera slots"), r"1 +b .*boots next")
        self.assertEqual(self.on_machine(COMPLETE), "slots\n")
        symbols = run("nm", "-D", "--defined-only", next(MACHINE.rglob("libtessera.so.1"))).splitlines()
        self.assertEqual([line for line in symbols if not re.search(r"@@TESSERA_1\.0$| A TESSERA_1\.0$", line)], [])

    def on_machine(self, script):
        """Runs a script on the machine, which is a board with eMMC."""
        board = state.Board(self.place / "board")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
            path = self.place / "log"
            path.unlink(missing_ok=True)
            syslog.bind(str(path))
            return run("bwrap", "--unshare-all", "--unshare-user", "--uid", "0", "--gid", "0", "--die-with-parent",
                       "--bind", MACHINE, "/", *box.board_view(board, path), "--bind", self.place / "work", "/work",
                       "--chdir", "/work", "--clearenv", "--setenv", "PATH", "/usr/sbin:/usr/bin",
                       "--", "/usr/bin/bash", "-c", script)


if __name__ == "__main__":
    unittest.main()
