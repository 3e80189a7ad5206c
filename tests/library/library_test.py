"""The library as a file: what it exports, how it is hardened, and what a C program finds of it once installed."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
SANITIZE = os.environ["SANITIZE"]
HEADERS = [*TOP.glob("include/*.h"), *TOP.glob("src/inc/*.h"), *TOP.glob("src/common/*.h")]
LIBRARY = BUILD / "src" / "libtessera.so.1"
PLATFORM = [BUILD / "platform" / "liblog" / "liblog.so", BUILD / "platform" / "efuse" / "libkastor_efuse.so"]


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.stdout}{result.stderr}")
    return result.stdout


def dynamic_symbols(library):
    """Names by kind: functions under T, data under D."""
    symbols = {"T": set(), "D": set()}
    for line in run("nm", "-D", "--defined-only", library).splitlines():
        _, kind, name = line.split()
        if kind != "A":  # the version node itself
            symbols["T" if kind == "T" else "D"].add(name.removesuffix("@@TESSERA_1.0"))
    return symbols


class LibraryTest(unittest.TestCase):
    def test_the_list_the_headers_and_the_library_name_the_same(self):
        listed = set(re.findall(r"^\s+(\w+);$", (TOP / "cmake" / "tessera.map").read_text(), re.M))
        declared = set()
        for header in HEADERS:
            declared.update(re.findall(r"^(?:extern )?OTA_API [^;(\[]*?(\w+)[;(\[]", header.read_text(), re.M))
        symbols = dynamic_symbols(LIBRARY)
        self.assertEqual(symbols["T"] | symbols["D"], listed)
        self.assertEqual(declared, listed)
        self.assertEqual(symbols["D"], {"buffer_md5dev", "buffer_md5file", "g_ota_owner", "toc_entries"})

    def test_hardening(self):
        programs = [path for path in [BUILD / "tool" / "tessera"] if path.exists()]
        for path in [LIBRARY, *PLATFORM, *programs]:
            with self.subTest(path.name):
                text = run("readelf", "--wide", "--file-header", "--segments", "--dynamic", path)
                self.assertRegex(text, r"Type:\s+DYN")
                self.assertRegex(text, r"GNU_RELRO")
                self.assertRegex(text, r"FLAGS.*\b(BIND_NOW|NOW)\b")
                self.assertRegex(text, r"GNU_STACK.* RW ")
                self.assertNotRegex(text, r"TEXTREL")
                self.assertNotRegex(text, r"LOAD.* RWE ")
        for path in [LIBRARY, *programs]:
            imports = run("nm", "-D", "--undefined-only", path)
            self.assertIn("__stack_chk_fail", imports, path)
            if not SANITIZE:
                self.assertRegex(imports, r"__v?[fs]n?printf_chk", path)

    def test_it_asks_for_the_board_by_name(self):
        text = run("readelf", "--dynamic", LIBRARY)
        self.assertRegex(text, r"SONAME.*\[libtessera\.so\.1\]")
        for name in ("liblog.so", "libkastor_efuse.so"):
            self.assertIn(f"[{name}]", text)

    def test_a_c_program_finds_it_once_installed(self):
        with tempfile.TemporaryDirectory() as scratch:
            scratch = pathlib.Path(scratch)
            run("cmake", "--install", BUILD, "--prefix", scratch / "first")
            prefix = (scratch / "first").rename(scratch / "moved")
            source, functions = TOP / "tests" / "library" / "consumer", dynamic_symbols(LIBRARY)["T"]
            (scratch / "functions.h").write_text("".join(f"EXPORTED({name})\n" for name in sorted(functions)))
            flags = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", f"-I{scratch}"]
            if SANITIZE:
                flags.append(f"-fsanitize={SANITIZE}")
            pkgconfig = next(prefix.rglob("tessera.pc")).parent
            libdir = pkgconfig.parent
            names = run("pkg-config", "--cflags", "--libs", "tessera", env={**os.environ, "PKG_CONFIG_PATH": pkgconfig})
            run("cc", "-std=c11", *flags, source / "main.c", *names.split(), "-o", scratch / "consumer")
            board = {**os.environ, "LD_LIBRARY_PATH": libdir}  # as if the prefix were the board's own
            said = run(scratch / "consumer", env=board)
            self.assertEqual(said, f"{len(functions)} functions, data {2 * 1048576 + 10} 0\n")
            run("cmake", "-S", source, "-B", scratch / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
                f"-DCMAKE_C_FLAGS={' '.join(flags)}")
            run("cmake", "--build", scratch / "build")
            self.assertEqual(run(scratch / "build" / "consumer", env=board), said)


if __name__ == "__main__":
    unittest.main()
