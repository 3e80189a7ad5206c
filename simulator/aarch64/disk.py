# SPDX-License-Identifier: Apache-2.0
"""The board's disk, as it leaves the factory: slot a holds a system and is confirmed, slot b is empty."""

import pathlib
import tempfile

from simboard import gpt, slots

from .parts import TOP, run

MIB = 1 << 20
PARTITIONS = [("script", 2 * MIB), ("misc", MIB), ("ubootenv", MIB), ("miniboot_a", 4 * MIB), ("miniboot_b", 4 * MIB),
              ("boot_a", 24 * MIB), ("boot_b", 24 * MIB), ("system_a", 16 * MIB), ("system_b", 16 * MIB),
              ("userdata", 64 * MIB)]
OFFSETS = gpt.offsets(PARTITIONS)


def make(disk, boot, system):
    """Creates the file `disk` with these images in slot a."""
    gpt.write(disk, PARTITIONS)
    with tempfile.TemporaryDirectory() as scratch:
        place = pathlib.Path(scratch)
        make_script(place / "root", place / "script")
        run("/usr/sbin/mkfs.ext4", "-q", place / "userdata", f"{dict(PARTITIONS)['userdata'] // 1024}")
        for name, image in {"script": place / "script", "boot_a": boot, "system_a": system,
                            "userdata": place / "userdata"}.items():
            put(disk, name, image.read_bytes())
    factory = slots.SlotBlock.of(slots.Slot(15, 1, True), slots.Slot(14, 0, False))
    put(disk, "misc", bytes(slots.OFFSET) + factory.pack())


def make_script(root, image):
    """A file system with the boot script where U-Boot looks for it; U-Boot reads old ext4 only."""
    root.mkdir()
    text = (pathlib.Path(__file__).with_name("board.cmd").read_text() +
            (TOP / "contrib/u-boot/boot.cmd").read_text())
    (root / "text").write_text(text)
    run("mkimage", "-A", "arm64", "-T", "script", "-d", root / "text", root / "boot.scr")
    run("/usr/sbin/mkfs.ext4", "-q", "-O", "^metadata_csum,^64bit", "-d", root, image, "2M")


def put(disk, partition, data):
    if len(data) > dict(PARTITIONS)[partition]:
        raise RuntimeError(f"the image for {partition} has {len(data)} bytes, more than the partition")
    with open(disk, "r+b") as file:
        file.seek(OFFSETS[partition])
        file.write(data)
