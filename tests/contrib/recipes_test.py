"""The OpenEmbedded layer and the Buildroot package, as far as they can be checked without either."""

import fnmatch
import hashlib
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import zipfile

import kconfiglib

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
LAYER, TREE = TOP / "contrib" / "openembedded", TOP / "contrib" / "buildroot"
CMAKE = "".join((TOP / room / "CMakeLists.txt").read_text() for room in (".", "tool"))
VERSION = re.search(r"project\(tessera VERSION (\S+)", CMAKE)[1]
RECIPE = (LAYER / "recipes-support" / "tessera" / f"tessera_{VERSION}.bb").read_text()
# A library that CMake looks for: its names as a recipe and as a package of Buildroot.
NAMES = {"OpenSSL": ("openssl", "openssl"), "minizip": ("minizip", "minizip-zlib"), "zlib": ("zlib", "zlib"),
         "CLI11": ("cli11", "cli11"), "nlohmann_json": ("nlohmann-json", "json-for-modern-cpp"),
         "json-c": ("json-c", "json-c")}
MAKE = """BR2_EXTERNAL_TESSERA_PATH = {tree}
STAGING_DIR = /staging
BR2_PACKAGE_TESSERA_LOG_LIBRARY = "usr/lib/liblog.so"
qstrip = $(strip $(subst ",,$(1)))
include {tree}/external.mk
all:
	@echo '$(TESSERA_VERSION)|$(TESSERA_DEPENDENCIES)|$(TESSERA_CONF_OPTS)|$(wildcard $(TESSERA_SITE)/CMakeLists.txt)'
"""
PACKAGES = [("tessera-dev", "include/* lib/lib*.so lib/cmake/* lib/pkgconfig/*"),  # what BitBake knows by itself
            ("tessera-doc", "share/doc/* share/man/*"), ("tessera", "bin/*")]


class Datastore:
    def __init__(self, variables, flags):
        self.getVar = variables.get
        self.getVarFlag = lambda name, flag: flags.get((name, flag))


def libraries():
    found = re.findall(r"find_package\((\w+)|pkg_check_modules\(\w+ REQUIRED IMPORTED_TARGET ([\w-]+)", CMAKE)
    return {first or second for first, second in found} - {"PkgConfig"}


class RecipesTest(unittest.TestCase):
    def test_versions_sums_and_dependencies(self):
        licence = (TOP / "LICENSE").read_bytes()
        self.assertIn(f"file://LICENSE;md5={hashlib.md5(licence).hexdigest()}", RECIPE)
        self.assertIn(f"sha256  {hashlib.sha256(licence).hexdigest()}  LICENSE",
                      (TREE / "package" / "tessera" / "tessera.hash").read_text())
        self.assertEqual(set(re.search(r'^DEPENDS = "(.*)"', RECIPE, re.M)[1].split()),
                         {NAMES[name][0] for name in libraries()})
        with tempfile.NamedTemporaryFile("w", suffix=".mk") as stub:
            stub.write(MAKE.format(tree=TREE))
            stub.flush()
            answer = subprocess.run(["make", "-f", stub.name], capture_output=True, text=True, check=True).stdout
        version, dependencies, options, site = answer.strip().split("|")
        self.assertEqual((version, pathlib.Path(site).resolve()), (VERSION, TOP / "CMakeLists.txt"))
        self.assertEqual(set(dependencies.split()), {NAMES[name][1] for name in libraries()})
        self.assertIn("-DTESSERA_LOG_LIBRARY=/staging/usr/lib/liblog.so", options)
        self.assertNotIn("EFUSE", options)

    def test_kconfig(self):
        os.environ["BR2_EXTERNAL_TESSERA_PATH"] = str(TREE)
        selected = ["CLI11", "JSON_FOR_MODERN_CPP", "MINIZIP_ZLIB", "OPENSSL", "ZLIB", "JSON_C"]
        wanted = ["INSTALL_LIBSTDCPP", "TOOLCHAIN_GCC_AT_LEAST_11", "TOOLCHAIN_USES_GLIBC", "STATIC_LIBS"]
        with tempfile.NamedTemporaryFile("w") as menu:
            menu.writelines(f"config BR2_{name}\n\tbool \"x\"\n" for name in wanted)
            menu.writelines(f"config BR2_PACKAGE_{name}\n\tbool\n" for name in selected)
            menu.write('config BR2_ENDIAN\n\tstring\n\tdefault "LITTLE"\n')
            menu.write((TREE / "Config.in").read_text())
            menu.flush()
            config = kconfiglib.Kconfig(menu.name, warn_to_stderr=False)
        for values, offered in (("yyyn", 2), ("yyyy", 0), ("nyyn", 0), ("ynyn", 0), ("yynn", 0)):
            for name, value in zip(wanted, values):
                config.syms[f"BR2_{name}"].set_value(value)
            config.syms["BR2_PACKAGE_TESSERA"].set_value("y")
            self.assertEqual(config.syms["BR2_PACKAGE_TESSERA"].tri_value, offered, values)
            self.assertEqual(config.syms["BR2_PACKAGE_MINIZIP_ZLIB"].tri_value, offered)

    def test_every_installed_file_falls_into_a_package(self):
        claims = dict(PACKAGES)
        expand = {"${PN}": "tessera", "${libdir}": "lib", "${datadir}": "share"}
        text = re.sub("|".join(map(re.escape, expand)), lambda name: expand[name[0]], RECIPE)
        for name, sign, patterns in re.findall(r'^FILES:(\S+) (\+?=) "(.*)"$', text, re.M):
            claims[name] = f"{claims[name]} {patterns}/*" if sign == "+=" else patterns
        first = re.search(r'^PACKAGES =\+ "(.*)"$', text, re.M)[1].split()
        order = [*first, *(name for name, _ in PACKAGES)]
        found = {}
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
            for path in (path for path in pathlib.Path(prefix).rglob("*") if not path.is_dir()):
                name = re.sub(r"^lib/[^/]*-linux-gnu/", "lib/", str(path.relative_to(prefix)))
                found[name] = next((package for package in order for pattern in claims[package].split()
                                    if fnmatch.fnmatch(name, pattern)), None)
        self.assertEqual([name for name, package in found.items() if package is None], [])
        for name, package in (("lib/libtessera.so.1", "libtessera"), ("lib/libtessera.so", "tessera-dev"),
                              ("lib/liblog.so", "tessera-platform"), ("bin/tessera", "tessera")):
            self.assertEqual(found[name], package)

    def test_the_class_describes_a_package(self):
        functions = re.findall(r"^def .*?(?=^\S(?!ef ))", (LAYER / "classes" / "tessera-package.bbclass").read_text(),
                               re.M | re.S)
        room = {}
        exec("\n".join(functions), room)  # what BitBake would run
        data = Datastore({"TESSERA_PARTITIONS": "boot system", "TESSERA_VERSION": "V2.0", "TESSERA_MEDIUM": "nand",
                          "TESSERA_DESCRIPTION_FIELDS": '{"sec_up_flag": 1}'}, {("TESSERA_TYPE", "boot"): "permanent"})
        with tempfile.TemporaryDirectory() as place:
            place = pathlib.Path(place)
            for name in ("boot", "system"):
                (place / f"{name}.img").write_bytes(os.urandom(1000))
            (place / "draft.json").write_text(json.dumps(room["tessera_description"](data)))
            subprocess.run([BUILD / "tool" / "tessera", "pack", place / "draft.json", place, "-o", place / "u.zip"],
                           check=True, capture_output=True)
            with zipfile.ZipFile(place / "u.zip") as package:
                parts = json.loads(package.read("update.json"))["partitions"]
        self.assertEqual([(part["name"], part["type"], part["medium"]) for part in parts],
                         [("boot", "permanent", "nand"), ("system", "ab", "nand")])


unittest.main()
