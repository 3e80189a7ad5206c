# SPDX-License-Identifier: Apache-2.0
"""The examples, each used as its reader would use it. library_test and packages_test build and run the C program."""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests" / "install"))

from bench_board import BoardCase, images, slots  # noqa: E402

EXAMPLES = TOP / "examples"
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
SOFTHSM = pathlib.Path("/usr/lib/softhsm/libsofthsm2.so")
ENGINES = list(pathlib.Path("/usr/lib").glob("*/engines-3/pkcs11.so"))
MAKE_TOKEN = """set -e
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=signer -keyout key.pem -out cert.pem
softhsm2-util --init-token --free --label updates --so-pin 5678 --pin 1234
softhsm2-util --import key.pem --token updates --label signer --id 01 --pin 1234
rm key.pem
printf 1234 > pin
"""


class ExamplesTest(BoardCase):
    def test_the_readme_shows_the_c_example(self):
        code = (EXAMPLES / "next-slot" / "next_slot.c").read_text().partition("*/\n")[2]
        self.assertIn(f"```c\n{code}```", (TOP / "README.md").read_text())

    def test_boot_script(self):
        for check, status in (([], 0), (["true"], 0), (["test", "-e", "/userdata/healthy"], 1)):
            with self.subTest(check=check):
                self.new()
                self.board().save_slot_block(slots.SlotBlock.fresh())
                shutil.copy(EXAMPLES / "boot" / "confirm-boot", self.home)
                result = self.simulate("run", "--", "sh", "/userdata/confirm-boot", *check,
                                       env={"CONFIRM_ATTEMPTS": "2", "CONFIRM_PAUSE": "0"})
                self.assertEqual(result.returncode, status, result.stdout + result.stderr)
                slot = self.board().slot_block().slots[self.board().running_slot()]
                self.assertEqual(slot.marked, status == 0)

    @unittest.skipUnless(SOFTHSM.exists() and ENGINES and shutil.which("softhsm2-util"), "SoftHSM is not installed")
    def test_signing_with_an_hsm(self):
        self.new()
        (self.place / "tokens").mkdir()
        (self.place / "softhsm2.conf").write_text(f"directories.tokendir = {self.place}/tokens\n")
        environment = {**os.environ, "SOFTHSM2_CONF": str(self.place / "softhsm2.conf"),
                       "PKCS11_MODULE_PATH": str(SOFTHSM), "PATH": f"{BUILD}/tool:{os.environ['PATH']}"}
        image = images(1, system=50_000)
        (self.place / "system.img").write_bytes(image["system"])
        part = {"name": "system", "file": "system.img", "medium": "emmc", "type": "ab", "method": "image"}
        (self.place / "draft.json").write_text(json.dumps({"version": "V2.0", "partitions": [part]}))
        key = f"pkcs11:token=updates;object=signer;type=private?pin-source=file:{self.place}/pin"
        sign = [EXAMPLES / "signing" / "sign-with-hsm", "draft.json", ".", "cert.pem", key, self.home / "u.zip"]
        for command in (["bash", "-c", MAKE_TOKEN], sign):
            result = subprocess.run(command, cwd=self.place, env=environment, stdin=subprocess.DEVNULL,
                                    capture_output=True, text=True, check=False)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        shutil.copy(self.place / "cert.pem", self.home / "ca.pem")
        self.expect("install /userdata/u.zip --trust /userdata/ca.pem", 0)
        self.assertTrue(self.holds(image, 1))


unittest.main()
