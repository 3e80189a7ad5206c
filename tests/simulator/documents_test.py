# SPDX-License-Identifier: Apache-2.0
"""What the documents and the scripts' help show: each command is run as it is written there."""

import collections
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest
import zipfile

import jsonschema

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests" / "install"))

from bench_board import BoardCase, describe, images  # noqa: E402

BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
BOARD = TOP / "simulator" / "board"
PAPERS = [TOP / "README.md", TOP / "CONTRIBUTING.md", *sorted((TOP / "docs").glob("*.md"))]
PAPERS = [path for path in PAPERS if path.name not in ("story.md", "tutorial.md")]  # sessions_test.py runs these
PAGES = sorted((TOP / "docs" / "man").glob("*.scd"))
FORMAT_PAGE = TOP / "docs" / "man" / "tessera-package.5.scd"
SCRIPTS = sorted(path for path in (TOP / "script").iterdir() if path.suffix != ".sh")
INLINE = r"`((?:(?:tessera|simulator/board|openssl|ldd|df|cmake|apt) |script/\w)[^`]*)`"

NOT_RUN = {
    "script/test", "script/fuzz", "script/fuzz check", "script/analyse",  # runs this test, and stages of it
    "script/licences", "script/docs",  # stages of it too
    "script/fuzz SECONDS", "script/fuzz keep",  # takes the time it is given, and changes the tree
    "script/coverage", "script/cross",  # build everything once more
    "script/board",  # fetches and builds, and takes minutes
    "script/u-boot",  # builds U-Boot, and takes minutes
    "script/mutate", "script/mutate COUNT [SEED]",  # build everything once more and take long
    "script/bench",  # measures for a quarter of an hour, on a machine with nothing else to do
    "script/draw",  # changes the tree; what it would draw is compared below
    "script/demo",  # the test sessions
    "script/package", "apt install ./build/release/packages/*.deb",  # the test packages
}
# Names and places that a document leaves to its reader, and verbs that it names without their arguments.
MEANT = {
    "libtessera.so.1": str(BUILD / "src" / "libtessera.so.1"),
    "flashcmd NAME": "flashcmd misc_write_cmd",
    "simulator/board --help": f"{BOARD} --help",
    "simulator/board reboot": f"{BOARD} reboot board",
    "simulator/board cut": f"{BOARD} cut board --every 100 --no-status -- tessera slots mark-bad b",
    "--preset release": f"--preset release -S {TOP} -B configured -DTESSERA_TESTS=OFF",
    "curl -sSf https://updates.example.com/": "cat ",  # pipe_test.py downloads a package
    "ssh board.example.com ": "env ", "/etc/ca.pem": "ca.pem",
    "/path/liblog.so": str(BUILD / "platform" / "liblog" / "liblog.so"),
    "/path/libkastor_efuse.so": str(BUILD / "platform" / "efuse" / "libkastor_efuse.so"),
    "LOG_INCLUDE_DIR=/path/include": f"LOG_INCLUDE_DIR={TOP}/platform/liblog",
    "EFUSE_INCLUDE_DIR=/path/include": f"EFUSE_INCLUDE_DIR={TOP}/platform/efuse",
}
VERBS_ALONE = {"tessera install", "tessera install -", "tessera verify", "tessera pack", "tessera flashcmd"}


def fenced(text, wanted):
    """@return the text outside of fenced blocks, and the commands in those of the language `wanted`"""
    outside, commands, language = [], [], None
    for line in text.replace("\\\n", " ").splitlines():
        if line.startswith("```"):
            language = line[3:] if language is None else None
        elif language is None:
            outside.append(line)
        elif language == wanted:
            commands.append(line)
    return "\n".join(outside), commands


def commands_of_paper(path):
    text, commands = fenced(path.read_text(), "sh")
    return commands + re.findall(r"^ {4}(\S.*)$", text, re.M) + re.findall(INLINE, text)


def commands_of_page(path):
    return fenced(path.read_text().partition("# EXAMPLES")[2], "")[1]


class DocumentsTest(BoardCase):
    def must(self, command):
        result = subprocess.run(["bash", "-c", command], cwd=self.place, capture_output=True, text=True, check=False,
                                stdin=subprocess.DEVNULL)
        self.assertEqual(result.returncode, 0, f"{command}\n{result.stdout}{result.stderr}")
        return result.stdout

    def new_board(self):
        """A board with the files that the documents mention: an image, a key, the draft of a package."""
        self.new()
        (self.home / "images").mkdir()
        (self.home / "boot.img").write_bytes(os.urandom(5000))
        (self.home / "images" / "system.img").write_bytes(os.urandom(50000))
        part = {"name": "system", "file": "system.img", "medium": "emmc", "type": "ab", "method": "image"}
        (self.home / "draft.json").write_text(json.dumps({"version": "V2.0", "partitions": [part]}))
        keys = [line for line in commands_of_page(FORMAT_PAGE) if line.startswith("openssl ")]
        self.must(" && ".join(["cd board/userdata", *keys]))
        self.must("cd board/userdata && for file in key cert ca; do cp $file.pem new-$file.pem; done")

    def test_commands(self):
        seen = set()
        for path in [*PAPERS, *PAGES]:
            shown = commands_of_paper(path) if path.suffix == ".md" else commands_of_page(path)
            if any(command not in NOT_RUN for command in shown):
                self.new_board()
            for command in dict.fromkeys(shown):
                seen.add(command)
                with self.subTest(document=path.name, command=command):
                    self.follow(command)
        self.assertLessEqual(NOT_RUN, seen, "no longer in any document")

    def follow(self, command):
        if command in NOT_RUN:
            return
        self.assertNotRegex(command, "^script/", "say how this is run, or why not")
        command += " --help" if command in VERBS_ALONE else ""
        for word, meaning in MEANT.items():
            command = command.replace(word, meaning)
        if command.startswith("cmake") or str(BOARD) in command:
            self.must(command)
        else:
            result = self.simulate("run", "--", "sh", "-c", f"cd /userdata && {command}")
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_examples_of_the_simulator(self):
        examples = re.findall(r"^  (board \w.*)$", self.must(f"{BOARD} --help"), re.M)
        self.assertEqual(len(examples), 4)
        self.new()
        self.pack("new.zip", images(1), describe(images(1), "nand"))
        (self.home / "new.zip").rename(self.place / "new.zip")
        for command in examples:
            with self.subTest(command):
                self.must(f"{BOARD.parent}/{command}".replace("/tmp/b", "b").replace("--every 10 ", "--every 100 "))

    def test_help_of_the_scripts(self):
        """On the board, where a script that did its work instead would fail."""
        self.new()
        for script in SCRIPTS:
            with self.subTest(script.name):
                result = self.simulate("run", "--", script, "--help")
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertRegex(result.stdout, rf"(?s)usage: (script/)?{script.name}\b")

    def test_a_machine_without_namespaces(self):
        result = self.must("! unshare --map-root-user sh -c "
                           f"'echo 0 >/proc/sys/user/max_user_namespaces; {TOP}/script/demo' 2>&1")
        self.assertRegex(result, "^sandbox: .*\nhint: as root: sysctl user.max_user_namespaces=")

    def test_the_schema_accepts_what_the_command_accepts(self):
        schema = jsonschema.Draft202012Validator(json.loads((TOP / "docs" / "update.schema.json").read_text()))
        values = {
            "version": ["V", "v1", "V 1", "V" + "1" * 126, "V" + "1" * 127, "Vä", 1, None],
            "boards": [["a"], [], ["a b"], ["ä"], ["a" * 127], ["a" * 128], [""], ["a"] * 16, ["a"] * 17, "a"],
            "sec_up_flag": [0, 1, 2, -1, True, "1"], "nosec_up_flag": [1, None], "colour": ["red"],
            "partitions": [[], {}, None, [1]],
            "name": ["boot", "boot_a", "boot_c", "_b", "a.b", ".a", "a/b", "misc", "misc2", "ubootenv", "blk", "",
                     "a" * 31, "a" * 32, "a\0b", None],
            "file": ["a", "a/b", "/a", "a/", "../a", "a/..", "a/../b", "..a", "a..", "...", "update.json",
                     "update.json.p7s", "update.json.2.p7s", "update.json.8.p7s", "update.json.9.p7s",
                     "update.json.1.p7s", "x/update.json", "a\nb", "a" * 63, "a" * 64, "a\0b", "", None],
            "medium": ["emmc", "nand", "nor", "raw", "", 1], "type": ["ab", "permanent", "bak", "golden", "AB"],
            "method": ["image", "diff", None], "md5": ["UPPER", "12", "g" * 32, None], "sha256": ["UPPER", "12", ""],
            "size": [1, 0, -1, "1", 1.5, None], "anti_rollback": [True, False, 0], "shape": ["round"],
            "blocks": [{}, [], {"file": "m"}, {"sha256": "0" * 64}, {"file": "m", "sha256": "0" * 63},
                       {"file": "../m", "sha256": "0" * 64}, {"file": "m", "sha256": "0" * 64, "md5": "0" * 32}],
        }
        outcomes = collections.Counter()
        for field, value in ((field, value) for field, some in values.items() for value in some):
            with self.subTest(field=field, value=value):
                status, description = self.inspect_package_with(field, value)
                outcomes[status] += 1
                self.assertEqual(status == 0, schema.is_valid(description), status)
        self.assertEqual(set(outcomes), {0, 3})
        self.new_board()
        self.must("truncate -s 3M board/userdata/images/system.img")
        self.must(f"cd board/userdata && {BUILD}/tool/tessera pack draft.json images/ -o {self.place}/p.zip")
        with zipfile.ZipFile(self.place / "p.zip") as package:
            packed = json.loads(package.read("update.json"))
        schema.validate(packed)
        self.assertIn("blocks", packed["partitions"][0])

    def inspect_package_with(self, field, value):
        """@return the status of `package info` for a good description with one field changed, or removed by None"""
        digests = {"md5": hashlib.md5(b"x").hexdigest(), "sha256": hashlib.sha256(b"x").hexdigest()}
        part = {"name": "system", "file": "a", "medium": "emmc", "type": "ab", "method": "image", "md5": digests["md5"]}
        description = {"version": "V1", "partitions": [part]}
        changed = part if field in {*part, "sha256", "size", "anti_rollback", "shape", "blocks"} else description
        changed[field] = digests[field].upper() if value == "UPPER" else value
        if value is None:
            del changed[field]
        with zipfile.ZipFile(self.place / "p.zip", "w") as package:
            package.writestr("update.json", json.dumps(description))
            if part.get("file") not in (None, "", "update.json"):
                package.writestr(part["file"].replace("\0", ""), "x")
        info = [BUILD / "tool" / "tessera", "package", "info", self.place / "p.zip"]
        return subprocess.run(info, capture_output=True, check=False).returncode, description

    def test_the_fields_of_a_description(self):
        schema = json.loads((TOP / "docs" / "update.schema.json").read_text())["properties"]
        fields = {*schema, *schema["partitions"]["items"]["properties"]}
        _, _, text = (TOP / "docs" / "package.md").read_text().partition("## The description")
        rows = re.findall(r"^\| (`\w+`(?:, `\w+`)*) \|", text.partition("\n## ")[0], re.M)
        terms = re.findall(r"^(\*\w+\*(?:, \*\w+\*)*)$", FORMAT_PAGE.read_text(), re.M)
        for listed in (rows, terms):
            self.assertEqual(sorted(re.findall(r"\w+", " ".join(listed))), sorted(fields))

    def test_the_drawing_shows_the_table(self):
        self.must(f"{TOP}/script/draw drawn.svg")
        self.assertEqual((self.place / "drawn.svg").read_text(), (TOP / "docs" / "performance.svg").read_text(),
                         "docs/performance.md has changed: run script/draw")

    def test_the_reasons_give_numbers_of_the_pages_that_prove_them(self):
        reasons = (TOP / "README.md").read_text().partition("## Why\n")[2].partition("\n\nWhat it does not do")[0]
        for reason in re.split(r"^- ", reasons, flags=re.M)[1:]:
            pages = re.findall(r"\]\((docs/\w[\w.-]*)\)", reason)
            proof = re.findall(r"\d[\d.,]*", "".join((TOP / page).read_text() for page in pages))
            for number in re.findall(r"\d[\d.,]*(?<=\d)", reason.replace("\n", " ")):
                self.assertIn(number, [found.rstrip(".,") for found in proof], (reason, pages))

    def test_porting_lists_what_the_check_looks_at(self):
        listed = re.findall(r"^\| ([^|`]*?) +\|", (TOP / "docs" / "porting.md").read_text(), re.M)
        checked = {"item", "---"}
        for medium in ("emmc", "nand"):
            self.new(medium)
            checked |= {item["item"] for item in json.loads(self.expect("board --check --json", 0).stdout)["items"]}
        self.assertEqual(set(listed), checked)


unittest.main()
