"""What the documents show: each command is run as it stands there."""

import json
import os
import pathlib
import re
import shlex
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
BOARD = TOP / "simulator" / "board"
PAPERS = [TOP / "README.md", TOP / "CONTRIBUTING.md", *sorted((TOP / "docs").glob("*.md"))]
PAGES = sorted((TOP / "docs" / "man").glob("*.scd"))
INLINE = r"`((?:(?:tessera|simulator/board|openssl|ldd|df|cmake|cpack) |script/\w)[^`]*)`"

NOT_RUN = {
    "script/test": "runs this test",
    "script/fuzz": "a stage of script/test",
    "script/fuzz check": "a stage of script/test",
    "script/fuzz SECONDS": "takes the time it is given",
    "script/fuzz keep": "changes the tree",
    "script/analyse": "a stage of script/test",
    "script/coverage": "builds everything once more, and takes minutes",
    "script/mutate": "takes an hour",
    "script/bench": "measures for a quarter of an hour, on a machine with nothing else to do",
    "script/cross": "builds everything once more, for another processor",
    "script/picture": "runs the demo; the picture is compared with it below",
    "cpack --config build/release/CPackConfig.cmake": "the test packages",
    "script/demo": "the test demo_emmc",
    "script/demo --medium nand": "the test demo_nand",
}
# Names and places that a document leaves to its reader, and verbs that it names without their arguments.
MEANT = {
    "libtessera.so.1": str(BUILD / "src" / "libtessera.so.1"),
    "flashcmd NAME": "flashcmd misc_write_cmd",
    "simulator/board --help": f"{BOARD} --help",
    "simulator/board reboot": f"{BOARD} reboot board",
    "--preset release": "--preset release -B configured -DTESSERA_TESTS=OFF",
    "/path/liblog.so": str(BUILD / "platform" / "liblog" / "liblog.so"),
    "/path/libkastor_efuse.so": str(BUILD / "platform" / "efuse" / "libkastor_efuse.so"),
    "LOG_INCLUDE_DIR=/path/include": f"LOG_INCLUDE_DIR={TOP}/platform/liblog",
    "EFUSE_INCLUDE_DIR=/path/include": f"EFUSE_INCLUDE_DIR={TOP}/platform/efuse",
}
VERBS_ALONE = {"tessera install", "tessera pack", "tessera flashcmd"}


def commands_of_paper(path):
    text = re.sub(r"```(?!sh)\w*\n.*?```", "", path.read_text(), flags=re.DOTALL)
    blocks = re.findall(r"```sh\n(.*?)```", text, re.DOTALL) + re.findall(r"^ {4}(\S.*)$", text, re.M)
    inline = re.findall(INLINE, text)
    return [line for block in blocks for line in block.replace("\\\n", " ").splitlines()] + inline


def commands_of_page(path):
    _, _, examples = path.read_text().partition("# EXAMPLES")
    return [line for block in re.findall(r"```\n(.*?)```", examples, re.DOTALL) for line in block.splitlines()]


def run(command, cwd=None):
    return subprocess.run(["bash", "-c", command], cwd=cwd, capture_output=True, text=True, check=False)


class DocumentsTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.place = pathlib.Path(scratch.name)
        self.home = self.place / "board" / "userdata"

    def must(self, command, cwd=None):
        result = run(command, cwd)
        self.assertEqual(result.returncode, 0, f"{command}\n{result.stdout}{result.stderr}")
        return result.stdout

    def on_board(self, command):
        return self.must(f"{BOARD} run board -- sh -c {shlex.quote('cd /userdata && ' + command)}", self.place)

    def new_board(self):
        """A board, and on it what the documents speak of: an image, a key, the draft of a package."""
        self.must("rm -rf board && " f"{BOARD} new board --size-system 2M", self.place)
        (self.home / "images").mkdir()
        (self.home / "boot.img").write_bytes(os.urandom(5000))
        (self.home / "images" / "system.img").write_bytes(os.urandom(50000))
        part = {"name": "system", "file": "system.img", "medium": "emmc", "type": "ab", "method": "image"}
        (self.home / "draft.json").write_text(json.dumps({"version": "V2.0", "partitions": [part]}))
        self.must("""openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj /CN=ca
                     openssl req -newkey rsa:2048 -nodes -keyout key.pem -out request -subj /CN=signer
                     openssl x509 -req -in request -CA ca.pem -CAkey ca.key -CAcreateserial -out cert.pem""", self.home)

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
        self.assertLessEqual(set(NOT_RUN), seen, "no longer in any document")

    def follow(self, command):
        if command in NOT_RUN:
            return
        self.assertNotRegex(command, "^script/", "say how this is run, or why not")
        command += " --help" if command in VERBS_ALONE else ""
        for word, meaning in MEANT.items():
            command = command.replace(word, meaning)
        if command.startswith("cmake"):
            self.must(f"cd {TOP} && {command.replace('-B configured', f'-B {self.place}/configured')}")
        elif str(BOARD) in command:
            self.must(command, self.place)
        else:
            self.on_board(command)

    def test_examples_of_the_simulator(self):
        examples = re.findall(r"^  (board \w.*)$", self.must(f"{BOARD} --help"), re.M)
        ending = re.findall(r"^  simulator/(board .*\$board.*)$", (TOP / "script" / "demo").read_text(), re.M)
        self.assertEqual((len(examples), len(ending)), (3, 3))
        for command in examples + ending:
            with self.subTest(command):
                self.must(f"{BOARD.parent}/{command}".replace("/tmp/b", "b").replace("$board", "b"), self.place)

    def test_the_picture_shows_the_demo(self):
        picture = re.sub(r"<[^>]+>", "", re.sub(r"(<tspan class=.heading.>)", "\x01", (TOP / "docs" / "demo.svg").read_text()))
        shown = re.findall(r"^\x01(.*)$", picture, re.M)
        chapters = re.findall(r'^chapter "(.*)"$', (TOP / "script" / "demo").read_text(), re.M)
        self.assertGreater(len(chapters), 5)
        patterns = [re.sub(r"\\\$\w+", r"\\w+", re.escape(chapter)) for chapter in chapters]
        self.assertRegex("\n".join(shown), "^" + "\n".join(patterns) + "$")

    def test_porting_lists_what_the_check_looks_at(self):
        listed = set(re.findall(r"^\| ([^|`]*?) +\|", (TOP / "docs" / "porting.md").read_text(), re.M)) - {"item", "---"}
        checked = set()
        for medium in ("emmc", "nand"):
            self.must(f"{BOARD} new {medium} --size-system 2M --medium {medium}", self.place)
            said = self.must(f"{BOARD} run {medium} -- tessera board --check --json", self.place)
            checked |= {item["item"] for item in json.loads(said)["items"]}
        self.assertEqual(listed, checked)


if __name__ == "__main__":
    unittest.main()
