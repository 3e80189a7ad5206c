# SPDX-License-Identifier: Apache-2.0
"""The OpenEmbedded layer and the Buildroot package, as far as they can be checked without either."""

import fnmatch
import hashlib
import json
import os
import pathlib
import re
import subprocess
import tempfile
import types
import unittest

import kconfiglib

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
LAYER, TREE = TOP / "contrib" / "openembedded", TOP / "contrib" / "buildroot"
CMAKE = "".join((TOP / room / "CMakeLists.txt").read_text() for room in (".", "tool"))
VERSION = re.search(r"project\(tessera VERSION (\S+)", CMAKE)[1]
RECIPE = (LAYER / "recipes-support" / "tessera" / f"tessera_{VERSION}.bb").read_text()
# A library that CMake looks for: its names as a recipe and as a package of Buildroot.
NAMES = {"OpenSSL": ("openssl", "openssl"), "minizip": ("minizip", "minizip-zlib"), "zlib": ("zlib", "zlib"),
         "jansson": ("jansson", "jansson"), "libdeflate": ("libdeflate", "libdeflate")}
LIBRARIES = {first or second for first, second in re.findall(
    r"find_package\((\w+)|pkg_check_modules\(\w+ REQUIRED IMPORTED_TARGET ([\w-]+)", CMAKE)} - {"PkgConfig", "Threads"}
MAKE = f"""BR2_EXTERNAL_TESSERA_PATH = {TREE}
BR2_PACKAGE_TESSERA_LOG_LIBRARY = "usr/lib/liblog.so"
qstrip = $(strip $(subst ",,$(1)))
include {TREE}/external.mk
all: ; @echo '$(TESSERA_VERSION)|$(TESSERA_DEPENDENCIES)|$(TESSERA_CONF_OPTS)|$(wildcard $(TESSERA_SITE)/LICENSE)'
"""
TOOLCHAIN = "INSTALL_LIBSTDCPP", "TOOLCHAIN_GCC_AT_LEAST_11", "TOOLCHAIN_USES_GLIBC", "STATIC_LIBS"
CLAIMS = {"tessera-dev": "include/* lib/lib*.so lib/cmake/* lib/pkgconfig/*",  # BitBake's defaults
          "tessera-doc": "share/doc/* share/man/*", "tessera": "bin/*"}


class RecipesTest(unittest.TestCase):
    def test_versions_sums_and_dependencies(self):
        licence = (TOP / "LICENSE").read_bytes()
        self.assertIn(f"file://LICENSE;md5={hashlib.md5(licence).hexdigest()}", RECIPE)
        self.assertIn(f"sha256  {hashlib.sha256(licence).hexdigest()}  LICENSE",
                      (TREE / "package" / "tessera" / "tessera.hash").read_text())
        self.assertEqual(set(re.search(r'^DEPENDS = "(.*)"', RECIPE, re.M)[1].split()),
                         {NAMES[name][0] for name in LIBRARIES})
        answer = subprocess.run(["make", "-f", "-"], input=MAKE, capture_output=True, text=True, check=True).stdout
        version, dependencies, options, site = answer.strip().split("|")
        self.assertEqual((version, pathlib.Path(site).resolve()), (VERSION, TOP / "LICENSE"))
        self.assertEqual(set(dependencies.split()), {NAMES[name][1] for name in LIBRARIES})
        self.assertRegex(options, "-DTESSERA_LOG_LIBRARY=/usr/lib/liblog.so(?!.*EFUSE)")

    def test_kconfig(self):
        os.environ["BR2_EXTERNAL_TESSERA_PATH"] = str(TREE)
        with tempfile.NamedTemporaryFile("w") as menu:
            menu.writelines(f'config BR2_{name}\n\tbool "x"\n' for name in (*TOOLCHAIN, "PACKAGE_MINIZIP_ZLIB"))
            menu.write('config BR2_ENDIAN\n\tstring\n\tdefault "LITTLE"\n' + (TREE / "Config.in").read_text())
            menu.flush()
            symbols = kconfiglib.Kconfig(menu.name, warn=False).syms
        for values, offered in (("yyyn", 2), ("yyyy", 0), ("yynn", 0)):
            for name, value in zip(("PACKAGE_TESSERA", *TOOLCHAIN), "y" + values):
                symbols[f"BR2_{name}"].set_value(value)
            self.assertEqual(symbols["BR2_PACKAGE_TESSERA"].tri_value, offered, values)
            self.assertEqual(symbols["BR2_PACKAGE_MINIZIP_ZLIB"].tri_value, offered, values)

    def test_every_installed_file_belongs_to_a_package(self):
        text = RECIPE.replace("${PN}", "tessera").replace("${datadir}", "share")
        text = re.sub(r"\$\{(nonarch_)?libdir\}", "lib", text)
        claims = {name: patterns for name, patterns in re.findall(r'^FILES:(\S+) = "(.*)"$', text, re.M)}
        more = re.search(r'^FILES:tessera \+= "(.*)"$', text, re.M)[1]
        claims |= {**CLAIMS, "tessera": f"{CLAIMS['tessera']} {more.replace(' ', '/* ')}/*"}
        found = {}
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
            for path in (path for path in pathlib.Path(prefix).rglob("*") if not path.is_dir()):
                name = re.sub(r"^lib/[^/]*-linux-gnu/", "lib/", str(path.relative_to(prefix)))
                found[name] = next((package for package, patterns in claims.items() for pattern in patterns.split()
                                    if fnmatch.fnmatch(name, pattern)), None)
        self.assertEqual([name for name, package in found.items() if package is None], [])
        self.assertEqual([found[f"lib/{name}"] for name in ("libtessera.so.1", "libtessera.so", "liblog.so")],
                         ["libtessera", "tessera-dev", "tessera-platform"])

    def test_the_class_describes_a_package(self):
        text = (LAYER / "classes" / "tessera-package.bbclass").read_text()
        functions = {}
        exec("\n".join(re.findall(r"^def .*?(?=^\S(?!ef ))", text, re.M | re.S)), functions)  # as BitBake would
        values = {"TESSERA_PARTITIONS": "boot system", "TESSERA_VERSION": "V2.0", "TESSERA_MEDIUM": "nand",
                  "TESSERA_DESCRIPTION_FIELDS": '{"sec_up_flag": 1}', ("TESSERA_TYPE", "boot"): "permanent",
                  "TESSERA_SIGN_KEY": "old.key new.key", "TESSERA_SIGN_CERT": "old.pem new.pem"}
        data = types.SimpleNamespace(getVar=values.get, getVarFlag=lambda *name: values.get(name))
        draft = functions["tessera_description"](data)
        self.assertEqual(functions["tessera_sign_options"](data),
                         "--sign 'old.key' --cert 'old.pem' --sign 'new.key' --cert 'new.pem'")
        self.assertEqual([(part["name"], part["type"]) for part in draft["partitions"]],
                         [("boot", "permanent"), ("system", "ab")])
        with tempfile.TemporaryDirectory() as place:
            for part in draft["partitions"]:
                pathlib.Path(place, part["file"]).write_bytes(b"image")
            pathlib.Path(place, "draft.json").write_text(json.dumps(draft))
            command = [BUILD / "tool" / "tessera", "pack", "draft.json", ".", "-o", "u.zip"]
            subprocess.run(command, cwd=place, check=True, capture_output=True)


unittest.main()
