# SPDX-License-Identifier: Apache-2.0
"""Framed packages: what other readers make of them, and what a damaged or lying block map leads to."""

import ctypes
import hashlib
import json
import os
import pathlib
import random
import struct
import subprocess
import unittest
import zipfile
import zlib

from bench_board import BoardCase, describe

BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
LOCAL, LISTED, WIDE_END, END = "<4s5H3I2H", "<4s6H3I5H2I", "<4sQ2H2I4Q4sIQI", "<4s4H2IH"
FRAME, BLOCK, HEAD = 131072, 4096, 24


class Target(ctypes.Structure):
    """A destination of the library's."""
    _fields_ = [("offset", ctypes.c_uint64), ("size", ctypes.c_uint64), ("medium", ctypes.c_int),
                ("path", ctypes.c_char * 128)]


def read_raw(path):
    """@return a dict of name: [method, checksum, size, packed bytes], in the order of the package"""
    whole = path.read_bytes()
    with zipfile.ZipFile(path) as package:
        entries = {}
        for entry in package.infolist():
            name_size, extra_size = struct.unpack_from("<HH", whole, entry.header_offset + 26)
            at = entry.header_offset + 30 + name_size + extra_size
            packed = whole[at:at + entry.compress_size]
            entries[entry.filename] = [entry.compress_type, entry.CRC, entry.file_size, packed]
        return entries


def write_raw(path, entries, all_wide=False):
    body, listed = b"", b""
    for name, (method, crc, size, packed) in entries.items():
        wide = all_wide or size >= 1 << 32
        rest = name.encode() + (struct.pack("<2H2Q", 1, 16, size, len(packed)) if wide else b"")
        sizes = (0xFFFFFFFF, 0xFFFFFFFF) if wide else (len(packed), size)
        fields = (20, 0, method, 0, 33, crc, *sizes, len(name), len(rest) - len(name))
        listed += struct.pack(LISTED, b"PK\1\2", 788, *fields, 0, 0, 0, 0o100644 << 16, len(body)) + rest
        body += struct.pack(LOCAL, b"PK\3\4", *fields) + rest + packed
    place = [len(entries), len(entries), len(listed), len(body)]
    if all_wide:
        listed += struct.pack(WIDE_END, b"PK\6\6", 44, 788, 45, 0, 0, *place, b"PK\6\7", 0, sum(place[2:]), 1)
        place = [0xFFFF, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF]
    path.write_bytes(body + listed + struct.pack(END, b"PK\5\6", 0, 0, *place, 0))


def flushed(data):
    """@return a frame"""
    packer = zlib.compressobj(wbits=-15)
    return packer.compress(data) + packer.flush(zlib.Z_FULL_FLUSH)


def stored(data):
    return [0, zlib.crc32(data), len(data), data]


def image(seed, size):
    """@return text, zeros and noise, more than one frame of each"""
    source = random.Random(seed)
    text = b"".join(b"%d\n" % source.randrange(999) for _ in range(size // 4))
    return (bytes(3 * FRAME) + source.randbytes(2 * FRAME + 5) + text)[:size]


class FramedTest(BoardCase):
    def make(self, contents, *options):
        """Packs images with the command. @return the path of the package"""
        self.new()
        for name, data in contents.items():
            (self.home / f"{name}.img").write_bytes(data)
        (self.home / "d.json").write_text(json.dumps(describe(contents, "emmc")))
        self.expect(" ".join(("pack /userdata/d.json /userdata -o /userdata/p.zip", *options)), 0)
        return self.home / "p.zip"

    def test_other_readers_and_the_order_of_entries(self):
        contents = {"system": image(1, (1 << 20) + 5), "noise": random.Random(2).randbytes(1 << 20),
                    "zeros": bytes(9 * FRAME), "small": image(3, (1 << 20) - 1)}
        path = self.make(contents)
        names = [f"{name}.img{end}" for name in contents for end in ((".blocks", "") if name != "small" else ("",))]
        self.assertEqual(list(read_raw(path)), ["update.json", *names])
        first = path.read_bytes()
        self.expect("pack /userdata/d.json /userdata -o /userdata/p.zip", 0)
        self.assertEqual(path.read_bytes(), first)
        plain = read_raw(self.make(contents, "--plain"))
        self.assertEqual(list(plain), ["update.json", *(f"{name}.img" for name in contents)])
        path.write_bytes(first)
        # A sanitized library cannot be loaded into this process.
        library = None if os.environ.get("SANITIZE") else ctypes.CDLL(BUILD / "src" / "libtessera.so.1")
        for name, data in contents.items():
            with self.subTest(name=name):
                for reader in (["unzip", "-p"], ["bsdtar", "-xOf"]):
                    result = subprocess.run([*reader, path, f"{name}.img"], capture_output=True, check=True)
                    self.assertEqual(result.stdout, data)
                if library is None:
                    continue
                node = self.place / "node"
                node.write_bytes(b"")
                target = Target(0, 0, 0, str(node).encode())
                self.assertEqual(library.vx_uncompress_file_to(str(path).encode(), f"{name}.img".encode(),
                                                               ctypes.byref(target), None), 0)
                self.assertEqual(node.read_bytes(), data)

    def test_an_image_past_4_GiB(self):
        size, count, end = (4 << 30) + 5, 1 << 15, b"hello"  # frames of zeros, then this
        sha256, crc = "2178c0ec68741327bd541fa5a96d97868095caeec823392bf5b7874fede6b1cf", 0x41F0F038
        frame, last = flushed(bytes(FRAME)), flushed(end)
        blocks = struct.pack(f"<4sIQ2I{count + 1}I", b"TSBM", 1, size, BLOCK, FRAME, *[len(frame)] * count, len(last))
        blocks += hashlib.sha256(bytes(BLOCK)).digest()[:16] * (size // BLOCK) + hashlib.sha256(end).digest()[:16]
        description = describe({"system": end}, "emmc")
        description["partitions"][0] |= {"size": size, "sha256": sha256, "blocks": {
            "file": "system.img.blocks", "sha256": hashlib.sha256(blocks).hexdigest()}}
        self.new("emmc", size + BLOCK - 5)
        write_raw(self.home / "p.zip", {
            "update.json": stored(json.dumps(description).encode()), "system.img.blocks": stored(blocks),
            "system.img": [8, crc, size, frame * count + last + b"\3\0"]})
        told = json.loads(self.expect("install /userdata/p.zip --json", 0).stdout)
        self.assertEqual(told["bytes_written"] + told["bytes_kept"], size)
        with self.board().logical_file(self.board().device("system_b")) as file:
            file.seek(size - 5)
            self.assertEqual(file.read(5), end)
        self.expect("package unpack /userdata/p.zip /userdata/all", 3, f"of {size} bytes is too large to be read")

    def test_a_package_with_two_directories(self):
        path = self.make({"boot": image(2, 70_000)})
        whole = path.read_bytes()
        write_raw(path, read_raw(path), all_wide=True)
        path.write_bytes(path.read_bytes() + whole)  # the library would read the first half, other programs the second
        self.expect("install /userdata/p.zip", 3, "the package has more than one directory")

    def test_damaged_and_lying_maps(self):
        contents = {"system": image(1, (1 << 20) + 5), "boot": image(4, (1 << 20) + 5)}
        good = read_raw(self.make(contents))
        description = json.loads(zlib.decompress(good["update.json"][3], -15))
        whole, frames = good["system.img.blocks"][3], 9
        lengths = struct.unpack_from(f"<{frames}I", whole, HEAD)

        def lie(data, file="system.img.blocks"):
            """The description covers these bytes as the map."""
            description["partitions"][0]["blocks"] = {"file": file, "sha256": hashlib.sha256(data).hexdigest()}
            text = json.dumps(description).encode()
            return {"update.json": stored(text), "system.img.blocks": stored(data)}

        def flipped(data, at):
            return data[:at] + bytes([data[at] ^ 1]) + data[at + 1:]

        def shorter(data, by):
            return [8, good["system.img"][1], good["system.img"][2], data[:-by]]

        hashes = HEAD + 4 * frames
        moved = whole[:HEAD] + struct.pack("<2I", lengths[0] - 1, lengths[1] + 1) + whole[HEAD + 8:]
        packed = good["system.img"][3]
        rows = [
            ("map, one bit", {"system.img.blocks": stored(flipped(whole, hashes))}, "digest mismatch"),
            ("map, stored checksum", {"system.img.blocks": [0, 1, len(whole), whole]}, "checksum mismatch"),
            ("map of the other image", {"system.img.blocks": good["boot.img.blocks"]}, "not the block map"),
            ("the other's map, described", lie(good["boot.img.blocks"][3]), "not the block map"),
            ("another version", lie(flipped(whole, 4)), "unknown version"),
            ("one hash", lie(flipped(whole, hashes + 16 * 200)), "the block at byte 819200 differs from its hash"),
            ("last hash", lie(flipped(whole, len(whole) - 1)), "the block at byte 1048576 differs from its hash"),
            ("one length", lie(flipped(whole, HEAD + 4)), "not the block map"),
            ("two lengths, with the right sum", lie(moved), "the frame at byte 0 is damaged"),
            ("one hash more", lie(whole + bytes(16)), "wrong length"),
            ("cut map", lie(whole[:-16]), "wrong length"),
            ("map named but missing", lie(whole, "none.blocks"), "has no entry none.blocks"),
            ("map of itself", lie(whole, "system.img"), "must name an entry of its own"),
            ("map of two", lie(whole, "boot.img.blocks"), "must name an entry of its own"),
            ("image stored", {"system.img": stored(contents["system"])}, "is not deflated"),
            ("image cut", {"system.img": shorter(packed, 9)}, "not the block map"),
            ("another end", {"system.img": [*good["system.img"][:3], packed[:-2] + b"\1\0"]}, "system.img"),
        ]
        for at in range(frames):  # not in the middle: of zeros, another distance gives the same
            damaged = flipped(packed, sum(lengths[:at]))
            rows.append((f"frame {at}", {"system.img": [*good["system.img"][:3], damaged]}, "system.img"))
        for name, changes, told in rows:
            with self.subTest(name=name):
                write_raw(self.home / "p.zip", {**good, **changes})
                forced = ("install --force",) if told in ("digest mismatch", "not the block map") else ()
                for line in ("verify", "package info", "install --dry-run", *forced):
                    self.expect_no_change(f"{line} /userdata/p.zip", 3, told)
                if "must name" not in told and "no entry" not in told:
                    self.expect("package check-zip /userdata/p.zip", 3, told)


if __name__ == "__main__":
    unittest.main()
