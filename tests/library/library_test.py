"""The library as a file: what it exports, how it is hardened, and what a C program finds of it once installed."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
SANITIZE = os.environ.get("SANITIZE")
EXAMPLE = re.search(r"```c\n(.*?)```", (TOP / "README.md").read_text(), re.DOTALL)[1]
CMAKE_PROJECT = """cmake_minimum_required(VERSION 3.25)
project(example LANGUAGES C)
find_package(tessera 1.0 REQUIRED)
add_executable(example example.c)
target_link_libraries(example PRIVATE tessera::tessera)
"""
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
            (scratch / "example.c").write_text(EXAMPLE)
            (scratch / "CMakeLists.txt").write_text(CMAKE_PROJECT)
            flags = ["-std=c11", "-D_DEFAULT_SOURCE", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]
            flags += [f"-fsanitize={SANITIZE}"] if SANITIZE else []
            pkgconfig = next(prefix.rglob("tessera.pc")).parent
            names = run("pkg-config", "--cflags", "--libs", "tessera", env={**os.environ, "PKG_CONFIG_PATH": pkgconfig})
            run("cc", *flags, scratch / "example.c", *names.split(), "-o", scratch / "by-pkg-config")
            run("cmake", "-S", scratch, "-B", scratch / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
                f"-DCMAKE_C_FLAGS={' '.join(flags)}")
            run("cmake", "--build", scratch / "build")
            board = {**os.environ, "LD_LIBRARY_PATH": pkgconfig.parent}  # as if the prefix were the board's own
            for program in ("by-pkg-config", "build/example"):
                result = subprocess.run(scratch / program, env=board, capture_output=True, text=True, check=False)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertIn("slot conf not in cmdline", result.stderr)  # the library runs, and finds no board


if __name__ == "__main__":
    unittest.main()
