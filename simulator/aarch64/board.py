# SPDX-License-Identifier: Apache-2.0
"""A board of one's own in a directory: its disk, and packages for it."""

import shutil
from dataclasses import dataclass

from . import disk, images, packages, parts

FACTORY_VERSION = "V1.0.0_20260101"


@dataclass(frozen=True)
class Package:
    version: str
    about: str
    firmware: int = 0  # anti-rollback version of its firmware, 0 without firmware
    comes_up: bool = True


PACKAGES = {
    "update.zip": Package("V2.0.0_20260201", "a newer system"),
    "next.zip": Package("V3.0.0_20260301", "a still newer one"),
    "broken.zip": Package("V4.0.0_20260401", "a system that does not come up", comes_up=False),
    "firmware.zip": Package("V5.0.0_20260501", "a system with firmware 3, for `tessera efuse burn --yes`", firmware=3),
    "rollback.zip": Package("V6.0.0_20260601", "a system with firmware 2, refused after the burn", firmware=2),
}


class Board:
    def __init__(self, directory):
        self.dir = directory
        self.disk = directory / "disk"
        self.packages = directory / "packages"

    def exists(self):
        return self.disk.exists()

    def create(self, say):
        """In place of one that exists. The disk comes last, so a board with a disk is complete."""
        say("making a disk and packages")
        command = parts.host_command()
        shutil.rmtree(self.dir, ignore_errors=True)
        self.packages.mkdir(parents=True)
        signer = packages.Signer(self.dir)
        boot, root = self.dir / "boot.img", self.dir / "root"
        images.make_boot(boot)
        images.make_root(root, signer.authority)
        for name, package in PACKAGES.items():
            contents = {"boot": boot, "system": self.make_system(root, package.version, package.comes_up)}
            if package.firmware:
                contents["miniboot"] = packages.make_firmware(self.dir / "firmware", package.firmware)
            signer.pack(command, self.packages / name, package.version, raise_counter=package.firmware > 0, **contents)
        made = self.dir / "new_disk"
        disk.make(made, boot, self.make_system(root, FACTORY_VERSION))
        made.rename(self.disk)

    def make_system(self, root, version, comes_up=True):
        image = self.dir / "system.img"
        images.make_system(root, image, version, comes_up)
        return image
