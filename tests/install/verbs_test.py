"""The verbs around `tessera install`: what they must not call good."""

import json
import struct
import subprocess
import zipfile

import bench_board
from bench_board import BoardCase, describe, images, write_package

VBMETA = b"AVB0".ljust(112, b"\0") + struct.pack(">Q", 5)


class VerbsTest(BoardCase):
    def expect(self, words, status, told):
        result = self.tessera(*words)
        self.assertEqual(result.returncode, status, (words, result.stdout, result.stderr))
        self.assertIn(told, result.stdout + result.stderr)

    def test_packages(self):
        self.new("emmc")
        here = self.packages
        (here / "text").write_bytes(b"x" * 400)
        subprocess.run(["zip", "-q", "-0", "-fz", "wide.zip", "text"], check=True, cwd=here)
        whole = (here / "wide.zip").read_bytes()
        (here / "flipped.zip").write_bytes(whole.replace(b"xxxx", b"xxyx", 1))
        with zipfile.ZipFile(here / "two.zip", "w") as package:
            for name in "ab":
                package.writestr(name, name)
        (here / "cut.zip").write_bytes((here / "two.zip").read_bytes()[:-16])
        with zipfile.ZipFile(here / "huge.zip", "w") as package:
            package.writestr("a", "")
        huge = (here / "huge.zip").read_bytes()
        at = huge.index(b"PK\1\2")  # the size of its one entry moves into a zip64 field
        entry = bytearray(huge[at:at + 47])
        entry[24:28], entry[30:32] = b"\xff" * 4, struct.pack("<H", 12)
        entry += struct.pack("<HHQ", 1, 8, 2**63 - 10)
        end = struct.pack("<4s4H2LH", b"PK\5\6", 0, 0, 1, 1, len(entry), at, 0)
        (here / "huge.zip").write_bytes(huge[:at] + entry + end)
        for words, status, told in (
            (["check", "wide.zip"], 0, "all 1 entries are whole"), (["check", "flipped.zip"], 1, "wrong checksum"),
            (["unpack", "flipped.zip", "/tmp/u"], 3, "error -105"), (["unpack", "cut.zip", "/tmp/u"], 3, "no entries"),
            (["list", "huge.zip"], 0, "needs 9007199254743039 KiB"), (["unpack", "huge.zip", "/tmp/u"], 1, "has"),
        ):
            self.expect(["package", words[0], f"{here}/{words[1]}", *words[2:]], status, told)

    def test_versions(self):
        self.new("emmc")
        for name, text in (("cr", "b_V1.2.3\r\n"), ("long", "x" * 120 + "_V1.2.34\n")):
            (self.packages / name).write_text(text)
        self.expect(["version", "show", f"{self.packages}/cr", "--json"], 0, '"version": "V1.2.3"')
        self.expect(["version", "show", f"{self.packages}/long"], 1, "error")
        self.expect(["version", "compare", "V1.2_V3", "V1.4_V1"], 0, "V1.2_V3 is older than V1.4_V1")
        good = images(1)
        write_package(self.packages / "p.zip", describe(good, "emmc", "V1.2.2"), good)
        self.expect(["install", f"{self.packages}/p.zip", "--version-file", f"{self.packages}/cr"], 3, "older")

    def test_the_dry_run_and_verify_judge_as_the_installation_does(self):
        self.new("nand")
        contents = {"vbmeta": VBMETA, "uboot": VBMETA}
        description = describe(contents, "nand")
        for part in description["partitions"]:
            part["anti_rollback"] = True
        write_package(self.packages / "p.zip", description, contents)
        path = f"{self.packages}/p.zip"
        for words in (["install", path, "--dry-run"], ["install", path], ["verify", path]):
            self.expect(words, 3, "on eMMC only")
        self.assertIn("unknown", self.tessera("verify", path).stdout)  # the versions, beside the refusal

    def test_flash_commands_and_devices_without_a_size(self):
        self.new("emmc")
        record = struct.pack("<3LL", 0x46434D44, 0, 0, 4096).ljust(2272, b"\1")
        (self.dir / "velox" / "share" / "ota" / "misc_write_cmd").write_bytes(record)
        self.expect(["flashcmd", "misc_write_cmd"], 0, "is written")
        node = self.board().backing(self.board().device("flashcmd"))
        with open(node, "r+b") as file:
            file.truncate(3072)
        self.expect(["flashcmd", "misc_write_cmd"], 4, "did not keep the command")
        self.expect(["compare", "/dev/null", "/dev/zero"], 4, "tells no size")
        self.expect(["verify", "/none.zip", "--lock", "/userdata"], 1, "cannot use the lock file")
        result = self.tessera("flashcmd", "none", "--json")
        self.assertEqual(json.loads(result.stderr)["error"]["code"], 1)


bench_board.main()
