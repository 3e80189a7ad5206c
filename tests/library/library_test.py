# SPDX-License-Identifier: Apache-2.0
"""The library as a file: what it exports, how it is hardened, and how a C program uses it once installed."""

import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
SANITIZE = os.environ.get("SANITIZE")
COMMAND_LIMIT = 450_000  # bytes of the command, stripped, on x86-64
EXAMPLE = TOP / "examples" / "next-slot"
# In the directory of an example: by pkg-config and by find_package, as plain C11.
BUILD_BOTH = """set -e
export CC=gcc CFLAGS="-std=c11 -D_DEFAULT_SOURCE -Wall -Wextra -Wpedantic -Werror ${SANITIZE:+-fsanitize=$SANITIZE}"
$CC $CFLAGS next_slot.c $(pkg-config --cflags --libs tessera) -o by-pkg-config
cmake -S . -B build >/dev/null
cmake --build build >/dev/null
cp build/next_slot by-cmake
"""
HEADERS = [*TOP.glob("include/*.h"), *TOP.glob("src/inc/*.h"), *TOP.glob("src/common/*.h")]
LIBRARY = BUILD / "src" / "libtessera.so.1"
PLATFORM = [BUILD / "platform" / "liblog" / "liblog.so", BUILD / "platform" / "efuse" / "libkastor_efuse.so"]


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.stdout}{result.stderr}")
    return result.stdout


def write_example(place):
    shutil.copytree(EXAMPLE, place, dirs_exist_ok=True)


class LibraryTest(unittest.TestCase):
    def test_export_list_headers_and_library_agree(self):
        listed = set(re.findall(r"^\s+(\w+);$", (TOP / "cmake" / "tessera.map").read_text(), re.M))
        headers = "".join(header.read_text() for header in HEADERS)
        declared = set(re.findall(r"^(?:extern )?OTA_API [^;(\[]*?(\w+)[;(\[]", headers, re.M))
        exported = run("nm", "-D", "--defined-only", LIBRARY)
        kinds = {name: kind for kind, name in re.findall(r" (\w) (\w+)@@TESSERA_1\.0$", exported, re.M)}
        self.assertEqual(len(exported.splitlines()), len(kinds) + 1)  # the version node itself
        self.assertEqual(set(kinds), listed)
        self.assertEqual(declared, listed)
        self.assertEqual({name for name, kind in kinds.items() if kind != "T"},
                         {"buffer_md5dev", "buffer_md5file", "g_ota_owner", "toc_entries"})

    @unittest.skipUnless(shutil.which("scdoc"), "there are no manual pages")
    def test_each_symbol_has_a_page_and_each_example_compiles(self):
        listed = re.findall(r"^\s+(\w+);$", (TOP / "cmake" / "tessera.map").read_text(), re.M)
        self.assertEqual([name for name in listed if not (BUILD / "docs" / f"{name}.3tessera.gz").exists()], [])
        flags = "-std=c11 -D_DEFAULT_SOURCE -Wall -Wextra -Wpedantic -Werror -fsyntax-only -xc -".split()
        for page in TOP.glob("docs/man/*.3tessera.scd"):
            example = page.read_text().split("```")[1]
            run("gcc", *(f"-I{path.parent}" for path in HEADERS), *flags, input=example)

    def test_hardening(self):
        programs = [path for path in [BUILD / "tool" / "tessera"] if path.exists()]
        for path in [LIBRARY, *PLATFORM, *programs]:
            with self.subTest(path.name):
                text = run("readelf", "--wide", "--file-header", "--segments", "--dynamic", path)
                for sign in (r"Type:\s+DYN", r"GNU_RELRO", r"FLAGS.*\b(BIND_NOW|NOW)\b", r"GNU_STACK.* RW "):
                    self.assertRegex(text, sign)
                self.assertNotRegex(text, r"TEXTREL|LOAD.* RWE ")
        for path in [LIBRARY, *programs]:
            imports = run("nm", "-D", "--undefined-only", path)
            if path == LIBRARY:  # no header redirects the plain file calls, in any order of inclusion
                self.assertEqual(set(re.findall(r"(?<= U )[a-z]+64", imports)), {"fopen64"})
            self.assertIn("__stack_chk_fail", imports, path)
            if not SANITIZE:
                self.assertRegex(imports, r"__v?[fs]n?printf_chk", path)

    def test_the_command_is_small(self):
        cache = (BUILD / "CMakeCache.txt").read_text()
        shipped = (r"TESSERA_LTO:BOOL=ON", r"CMAKE_BUILD_TYPE:STRING=RelWithDebInfo", r"CMAKE_CXX_COMPILER:.*[=/]g\+\+")
        if SANITIZE or platform.machine() != "x86_64" or not all(re.search(line, cache) for line in shipped):
            self.skipTest("this build is not the one that is shipped")
        stripped = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "tessera"
        run("strip", "-o", stripped, BUILD / "tool" / "tessera")
        self.assertLessEqual(stripped.stat().st_size, COMMAND_LIMIT)

    def test_it_needs_the_boards_libraries_by_name(self):
        text = run("readelf", "--dynamic", LIBRARY)
        for entry in (r"SONAME.*\[libtessera\.so\.1\]", r"NEEDED.*\[liblog\.so\]", r"NEEDED.*\[libkastor_efuse\.so\]"):
            self.assertRegex(text, entry)

    def test_a_c_program_uses_the_installed_library(self):
        with tempfile.TemporaryDirectory() as scratch:
            scratch = pathlib.Path(scratch)
            run("cmake", "--install", BUILD, "--prefix", scratch / "first")
            prefix = (scratch / "first").rename(scratch / "moved")
            libraries = next(prefix.rglob("libtessera.so")).parent
            write_example(scratch)
            run("bash", "-c", BUILD_BOTH, cwd=scratch, env={
                **os.environ, "PKG_CONFIG_PATH": libraries / "pkgconfig", "CMAKE_PREFIX_PATH": prefix})
            board = {**os.environ, "LD_LIBRARY_PATH": libraries}  # as if the prefix were the board's own
            for program in ("by-pkg-config", "by-cmake"):
                result = subprocess.run(scratch / program, env=board, capture_output=True, text=True, check=False)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertIn("slot conf not in cmdline", result.stderr)  # the library runs, and finds no board


    def test_sbom(self):
        def verdict(document):
            (scratch / "sbom.json").write_text(json.dumps(document))
            return subprocess.run([sbom, "--check", scratch / "sbom.json"], capture_output=True, text=True, check=False)

        sbom, scratch = TOP / "script" / "sbom", pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        good = json.loads(run(sbom, BUILD))
        libcrypto = re.search(r"libcrypto\.so\S* => (\S+)", run("ldd", LIBRARY))[1]
        owner = run("dpkg-query", "--search", os.path.realpath(libcrypto)).partition(":")[0]
        self.assertIn(("SPDXRef-libtessera", "DYNAMIC_LINK", f"SPDXRef-deb-{owner}"),
                      [tuple(entry.values()) for entry in good["relationships"]])
        self.assertEqual(verdict(good).returncode, 0)
        for place, name, value in ((good, "dataLicense", "MIT"), (good, "documentNamespace", "here"),
                                   (good["creationInfo"], "created", "today"), (good["creationInfo"], "creators", []),
                                   (good["packages"][1], "SPDXID", "SPDXRef-tessera"), (good, "relationships", []),
                                   (good["packages"][2], "downloadLocation", None),
                                   (good["packages"][2], "licenseDeclared", "GPL"),
                                   (good["packages"][2], "filesAnalyzed", True),
                                   (good["relationships"][1], "relatedSpdxElement", "SPDXRef-nothing")):
            kept, place[name] = place[name], value
            self.assertEqual(verdict(good).returncode, 1, (name, value))
            place[name] = kept


if __name__ == "__main__":  # the packages' test takes its tools from here
    unittest.main()
