# SPDX-License-Identifier: Apache-2.0
"""Signed packages for the board, and the authority that it trusts."""

import json
import pathlib
import tempfile

from .parts import TOP, run

BOARD = "linux,dummy-virt"  # the name in QEMU's device tree


class Signer:
    """An authority, and a signer with a certificate of it, in a directory."""

    def __init__(self, place):
        self.authority, self.key, self.certificate = place / "ca.pem", place / "key.pem", place / "cert.pem"
        request, authority_key = place / "request.pem", place / "ca.key"
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-noenc", "-days", "3650", "-subj", "/CN=authority",
            "-keyout", authority_key, "-out", self.authority)
        run("openssl", "req", "-newkey", "rsa:2048", "-noenc", "-subj", "/CN=signer", "-keyout", self.key, "-out",
            request)
        run("openssl", "x509", "-req", "-in", request, "-CA", self.authority, "-CAkey", authority_key,
            "-CAcreateserial", "-days", "3650", "-out", self.certificate)

    def pack(self, command, package, version, raise_counter=False, **images):
        """Makes a package of `images`, files by the name of their partitions, with block maps. If `raise_counter`,
        it asks for the secure counter to be raised to the version of its miniboot image."""
        with tempfile.TemporaryDirectory() as scratch:
            place = pathlib.Path(scratch)
            described = []
            for name, image in images.items():
                (place / f"{name}.img").symlink_to(image.resolve())
                described.append({"name": name, "file": f"{name}.img", "medium": "emmc", "type": "ab",
                                  "method": "image", "anti_rollback": name == "miniboot"})
            draft = {"version": version, "boards": [BOARD], "partitions": described}
            (place / "draft.json").write_text(json.dumps(draft | {"sec_up_flag": int(raise_counter)}))
            run(command, "pack", place / "draft.json", place, "-o", package, "--sign", self.key, "--cert",
                self.certificate)


def make_firmware(place, version):
    """@return a miniboot image whose certificates show this version"""
    run(TOP / "simulator/make_firmware", place, "--version", version)
    return place / "miniboot.img"
