# SPDX-License-Identifier: Apache-2.0
"""`tessera install -`: a package that comes from a pipe, whole, cut, damaged, or not as it was described."""

import json
import signal
import time
import unittest
import zlib

from bench_board import MEDIA, BoardCase, describe, images
from framed_test import read_raw, stored, write_raw

from simboard.cuts import CHANGES

FILE = "/userdata/p.zip"
CAT = f"cat {FILE}"
HASHES = 24 + 4 * 9  # where they begin in the block map of "system"


def flipped(data, at):
    return data[:at] + bytes([data[at] ^ 0x41]) + data[at + 1:]


class PipeTest(BoardCase):
    def make(self, medium="emmc", options="", **sizes):
        """Packs images for the slot and, unless sizes are given, for a partition that exists once."""
        self.new(medium)
        self.rename_partition("uboot_a", "data")
        self.contents = images(6, **(sizes or {"system": (1 << 20) + 70_001, "boot": 70_000, "data": 140_001}))
        self.draft = describe(self.contents, medium)
        for part in self.draft["partitions"]:
            part["type"] = "permanent" if part["name"] == "data" else "ab"
            (self.home / part["file"]).write_bytes(self.contents[part["name"]])
        (self.home / "d.json").write_text(json.dumps(self.draft))
        self.expect(f"pack /userdata/d.json /userdata -o {FILE} {options}", 0)
        return self.home / "p.zip"

    def data(self):
        with self.board().logical_file(self.board().device("data")) as file:
            return file.read(len(self.contents["data"]))

    def changes(self):
        return [op for op in self.operations() if op[1] in CHANGES and op[1] != "fsync"]

    def test_the_same_as_from_a_file(self):
        for number, medium in enumerate(MEDIA):
            size = 131072 * number + number  # around the ends of units and frames
            for options, sizes in (("", {}), ("--plain", {"system": (1 << 20) + size, "boot": 1})):
                with self.subTest(medium=medium, options=options):
                    self.make(medium, options, **sizes)
                    for force in ("", "--force"):
                        self.expect(f"install - --dry-run {force}", 0, "would be written", feed=CAT)
                    self.assertEqual(self.changes(), [])
                    self.expect("install -", 0, "slot b boots next", feed=CAT)
                    slot = {name: data for name, data in self.contents.items() if name != "data"}
                    self.assertTrue(self.holds(slot, 1) and (sizes or self.data() == self.contents["data"]))
                    for line, feed in ((f"install {FILE}", ""), ("install -", CAT), ("install - --dry-run", CAT)):
                        self.expect(line, 0, feed=feed)
                        self.assertEqual({op[0] for op in self.changes()} & {"mmcblk0p12", "mmcblk0p13", "mtd12"}, set())

    def test_packages_that_are_not_what_they_promise(self):
        for medium in MEDIA:
            good = read_raw(self.make(medium))
            names, system, blocks = list(good), good["system.img"], good["system.img.blocks"][3]
            self.assertEqual(names[1:3], ["data.img.blocks", "data.img"])
            text = zlib.decompress(good["update.json"][3], -15)

            def order(*kept):
                return {name: good[name] for name in kept}

            def say(number, field, value):
                description = json.loads(text)
                description["partitions"][number] |= {field: value}
                if value is None:
                    del description["partitions"][number][field]
                return good | {"update.json": stored(json.dumps(description).encode())}

            rows = [
                ("a block", good | {"system.img": [*system[:3], flipped(system[3], 600_000)]}, "system.img"),
                ("a map", good | {"system.img.blocks": stored(flipped(blocks, HASHES))}, "digest mismatch"),
                ("the only copy", good | {"data.img": [*good["data.img"][:3], flipped(good["data.img"][3], 70_000)]},
                 "data.img: the block at byte"),
            ]
            if medium == "emmc":
                rest = [name for name in names if name != "boot.img"]
                rows += [
                    ("missing", order(*rest), "its end where boot.img is expected"),
                    ("missing map", order(*names[:3], *names[4:]), "where system.img.blocks is expected"),
                    ("extra", good | {"more": stored(b"x")}, "not described: more"),
                    ("extra before", order(*names[:3]) | {"more": stored(b"x")} | good, "has more where"),
                    ("order", order(*names[:3], "boot.img", *names[3:5]), "where system.img.blocks"),
                    ("longer", good | {"boot.img": stored(self.contents["boot"] + b"x")}, "does not have the size"),
                    ("longer inside", good | {"system.img": [*system[:3], system[3] + b"x"]}, "not the block map"),
                    ("no size", say(1, "size", None), '"size" is missing'),
                    ("no map", say(2, "blocks", None), "data.img has no block map"),
                    ("another digest", say(0, "sha256", "0" * 64), "system.img: digest mismatch"),
                    ("too large", say(2, "size", 65 << 20), "more than 64 MiB"),
                ]
            before = self.data()
            for name, entries, told in rows:
                with self.subTest(medium=medium, name=name):
                    write_raw(self.home / "p.zip", entries)
                    result = self.expect("install - --force", 3, told, feed=CAT)
                    self.check_safe(result, before)

    def check_safe(self, result, before):
        self.assertEqual(self.board().slot_block().best(), 0)
        self.assertEqual(self.data(), before)
        self.assertTrue(not self.changes() or "slot b is unbootable until an inst" in result.stderr, result.stderr)

    def test_a_cut_or_changed_stream(self):
        for medium in MEDIA:
            path = self.make(medium)
            whole, before = path.read_bytes(), self.data()
            directory = whole.index(b"PK\1\2")
            spread = range(1, len(whole), len(whole) // (20 if medium == "emmc" else 5))
            changed = [whole[:at] for at in (*spread, directory, directory + 9, len(whole) - 1)]
            if medium == "emmc":
                changed += [whole + b"x", *(flipped(whole, directory + at) for at in (16, 42, 46)),
                            *(flipped(whole, len(whole) - at) for at in (6, 10, 12)), b"no zip file" * 9, b"",
                            whole[:6] + b"\x08" + whole[7:], whole[:directory + 41] + b"\xa1" + whole[directory + 42:],
                            whole[:-2] + b"\4\0PK\5\6"]
            for data in changed:
                with self.subTest(medium=medium, size=len(data)):
                    path.write_bytes(data)
                    self.check_safe(self.expect("install - --force", 3, feed=CAT), before)

    def test_records_for_sizes_past_4_GiB(self):
        path, before = self.make(), self.data()
        write_raw(path, read_raw(path), all_wide=True)
        whole = path.read_bytes()
        end = whole.index(b"PK\6\6")
        for at in (0, 4, 32, 40, 48, 56, 64):
            with self.subTest(at=at):
                path.write_bytes(flipped(whole, end + at))
                self.check_safe(self.expect("install - --force", 3, "directory", feed=CAT), before)
        path.write_bytes(whole)
        self.expect("install -", 0, "slot b boots next", feed=CAT)

    def test_firmware_is_checked_before_anything_is_written(self):
        self.new()
        second, third = self.firmware(2), self.firmware(3)
        for contents, status in ((third | {"uboot": second["uboot"]}, 3), (third, 0)):
            (self.home / "d.json").write_text(json.dumps(describe(contents, "emmc", anti_rollback=True)))
            for name, data in contents.items():
                (self.home / f"{name}.img").write_bytes(data)
            self.expect(f"pack /userdata/d.json /userdata -o {FILE}", 0)
            self.expect("install -", status, "differ" if status else "slot b boots next", feed=CAT)
            self.assertEqual(self.changes() == [], status == 3)
        self.assertEqual(json.loads(self.expect("status --json", 0).stdout)["anti_rollback"]["secure_version"], 3)

    def test_a_writer_that_pauses(self):
        self.make()
        begun = time.monotonic()
        for fault, kill, status, told in (("fail pwrite 4 5", "true", 4, "cannot write to system_b"),
                                          ("", "sleep 2; kill -TERM $!", 130, "interrupted\ntessera: the board boots")):
            result = self.simulate("run", "--", "sh", "-c", f"""mkfifo /userdata/pipe
                (head -c 900000 {FILE}; exec sleep 60) > /userdata/pipe & writer=$!
                TESSERA_FLASH_FAULT="{fault}" tessera install - --force < /userdata/pipe &
                {kill}; wait $!; echo $?; kill $writer; rm /userdata/pipe""")
            self.assertEqual(result.stdout, f"{status}\n", result.stderr)
            self.assertIn(told, result.stderr)
            self.assertIn("slot b is unbootable until an installation succeeds", result.stderr)
        self.assertLess(time.monotonic() - begun, 30)
        self.expect("install -", 0, "slot b boots next", feed=CAT)
        result = self.simulate("run", "--", "script", "-qec", "tessera install -", "/dev/null")
        self.assertEqual((result.returncode, "standard input is a terminal" in result.stdout), (2, True), result)

    def test_a_power_cut(self):
        self.make()
        self.expect("install -", 128 + signal.SIGKILL, "the power fails", "cut 25 kill", CAT)
        self.simulate("reboot")
        self.assertEqual(self.board().running_slot(), 0)
        self.expect("install -", 0, "slot b boots next", feed=CAT)

    def test_a_download(self):
        self.make()
        result = self.simulate("run", "--", "sh", "-c", """
            LD_PRELOAD= python3 -m http.server -b 127.0.0.1 -d /userdata 8000 > /dev/null 2>&1 & server=$!
            until curl -s -o /dev/null http://127.0.0.1:8000/d.json; do sleep 0.1; done
            for file in none p.zip; do curl -sSf http://127.0.0.1:8000/$file | tessera install -; echo $?; done
            kill $server""")
        self.assertIn("standard input is empty", result.stderr)
        self.assertRegex(result.stdout, "^3\n.*slot b boots next\n0\n$")


if __name__ == "__main__":
    unittest.main()
