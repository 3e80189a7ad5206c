# SPDX-License-Identifier: Apache-2.0
"""What an installation writes of an image, on all media: the bytes that differ, once, and nothing else."""

import json
import random
import shutil
import unittest

from bench_board import MEDIA, BoardCase, describe, state

MIB, ERASES = 1 << 20, ("MEMERASE64", "UBI_IOCEBER")


def image(kind, size):
    source = random.Random(size)
    return {"noise": source.randbytes(size), "zeros": bytes(size),
            "sparse": b"".join(source.choice((bytes(4096), source.randbytes(4096))) for _ in range(size // 4096 + 1))
            }[kind][:size]


class OnePassTest(BoardCase):
    def make(self, data, medium, version, options=""):
        (self.home / "system.img").write_bytes(data)
        (self.home / "d.json").write_text(json.dumps(describe({"system": data}, medium, version)))
        self.expect(f"pack /userdata/d.json /userdata -o /userdata/p.zip {options}", 0)

    def counts(self):
        """@return erases and writes of the image's device, writes of the one with the status"""
        all_of = [(device, kind) for device, kind, *_ in self.operations()]
        system, status = (self.board().device(name).node.rsplit("/", 1)[1] for name in ("system_b", "ubootenv"))
        erases = sum(all_of.count((system, kind)) for kind in ERASES)
        return erases, all_of.count((system, "pwrite")), all_of.count((status, "pwrite"))

    def test_every_unit_that_differs_is_written_once(self):
        rows = [("noise", MIB + 5), ("zeros", 2 * MIB), ("sparse", 9 * 131072 - 1), ("noise", 10 * 126976),
                ("sparse", 4097)]
        for medium in MEDIA:
            self.new(medium)
            erase_size = state.MEDIA[medium].erase_size if medium != "emmc" else 4096
            for number, (kind, size) in enumerate(rows):
                data = image(kind, size)
                for options in ("", "--plain"):
                    with self.subTest(medium=medium, kind=kind, size=size, options=options):
                        self.make(data, medium, f"V2.0.{number}", options)
                        told = json.loads(self.expect("install /userdata/p.zip --force --json", 0).stdout)
                        self.assertEqual((told["bytes_written"], told["bytes_kept"]), (size, 0))
                        self.assertTrue(self.holds({"system": data}, 1))
                        units = -(-size // erase_size)
                        erases, writes, status = self.counts()
                        self.assertTrue(medium == "emmc" or (erases, writes) == (units, units), (erases, writes))
                        self.assertEqual(status, 3)
                        changed = bytearray(data)
                        changed[size // 2] ^= 1
                        self.make(bytes(changed), medium, f"V2.0.{number}", options)
                        told = json.loads(self.expect("install /userdata/p.zip --json", 0).stdout)
                        self.assertLessEqual(told["bytes_written"], erase_size)
                        self.assertEqual(self.counts()[1], 1)
                        self.assertTrue(self.holds({"system": bytes(changed)}, 1))

    def test_a_damaged_frame_never_boots(self):
        self.new()
        data = image("noise", 2 * MIB)
        self.make(data, "emmc", "V2.0.0")
        whole = (self.home / "p.zip").read_bytes()
        for at in range(20_000, len(whole), len(whole) // 7):
            with self.subTest(at=at):
                (self.home / "p.zip").write_bytes(whole[:at] + bytes([whole[at] ^ 0x41]) + whole[at + 1:])
                self.expect("install /userdata/p.zip", 3)
                self.assertEqual(self.board().slot_block().best(), 0)

    def test_what_a_device_refuses_or_does_not_keep_is_reported(self):
        data = {"system": image("noise", 300_000)}
        lost, state_b = "cannot store the update status: the record did not persist in ubootenv", "the board boots slot b next"
        rows = [  # kind of the operation, its number from 0 or -1, fault, message, state of the board
            ("pwrite", 0, "lose", lost, "the board boots slot a next"), ("pwrite", -1, "lose", lost, state_b),
            ("MEMERASE64", 2, "give {} 1", "cannot erase system_b at byte 0\n", "slot b is unbootable"),
            ("pwrite", 2, "fail", "cannot write to system_b at byte 0: Input/output error\n", "slot b is unbootable"),
        ]
        for kind, number, fault, message, left in rows:
            with self.subTest(kind=kind, number=number, fault=fault):
                self.new("nand")
                self.pack("p.zip", data, describe(data, "nand"))
                kept = self.place / "kept"
                shutil.copytree(self.dir, kept, dirs_exist_ok=True)
                self.expect("install /userdata/p.zip", 0)
                nth = range(1, sum(op[1] == kind for op in self.operations()) + 1)[number]
                shutil.rmtree(self.dir)
                kept.rename(self.dir)
                words = fault.split()
                script = " ".join([words[0], kind, str(nth), *words[2:]])
                result = self.expect("install /userdata/p.zip", 4, message, script)
                self.assertIn(left, result.stderr)
                self.expect("install /userdata/p.zip", 0)


if __name__ == "__main__":
    unittest.main()
