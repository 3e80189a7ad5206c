# SPDX-License-Identifier: Apache-2.0
"""Debian's RAUC installs a bundle on the simulated board, with the backend that keeps its slots in the slot block."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BOARD, BACKEND = TOP / "simulator" / "board", TOP / "contrib" / "rauc" / "tessera-backend"
BUS = """<busconfig><type>system</type><listen>unix:path={0}/bus</listen><policy context="default">
<allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy></busconfig>"""
CONF = """[system]\ncompatible=t\nbootloader=custom\nstatusfile={0}/status\nmountprefix={0}/mnt
[handlers]\nbootloader-custom-backend={1}\n[keyring]\npath={0}/cert
[slot.rootfs.0]\ndevice={0}/board/partitions/system_a\ntype=raw\nbootname=a
[slot.rootfs.1]\ndevice={0}/board/partitions/system_b\ntype=raw\nbootname=b\n"""
MANIFEST = "[update]\ncompatible=t\nversion=2\n[bundle]\nformat=plain\n[image.rootfs]\nfilename=system.img\n"


class RaucTest(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.system = self.dir / "board" / "partitions" / "system_b"
        self.image = os.urandom(100_000)
        for name, text in {"bus.conf": BUS, "system.conf": CONF, "bundle/manifest.raucm": MANIFEST,
                           "tools/tessera": '#!/bin/sh\nexec {2} run {0}/board -- tessera "$@"\n'}.items():
            (self.dir / name).parent.mkdir(exist_ok=True)
            (self.dir / name).write_text(text.format(self.dir, BACKEND, BOARD))
        (self.dir / "tools/tessera").chmod(0o755)
        (self.dir / "bundle/system.img").write_bytes(self.image)
        self.env = os.environ | {"PATH": f"{self.dir}/tools:{os.environ['PATH']}",
                                 "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.dir}/bus"}
        self.call(BOARD, "new", "board")
        self.call(*"openssl req -x509 -newkey rsa:2048 -nodes -keyout key -out cert -subj /CN=test".split())
        self.call("rauc", "--cert=cert", "--key=key", "bundle", "bundle", "update.raucb")

    def call(self, *command, status=0):
        result = subprocess.run(command, capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL,
                                cwd=self.dir, env=self.env, timeout=60)
        self.assertEqual(result.returncode, status, (command, result.stdout, result.stderr))
        return result.stdout + result.stderr

    def start(self, *command):
        process = subprocess.Popen(command, cwd=self.dir, env=self.env, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)

    def serve(self):
        self.start("dbus-daemon", "--config-file=bus.conf", "--nofork")
        for _ in range(100):
            if (self.dir / "bus").exists():
                break
            time.sleep(0.1)
        self.start("rauc", "--conf=system.conf", "--override-boot-slot=a", "service")
        for _ in range(100):
            if subprocess.run(["rauc", "status"], env=self.env, capture_output=True, check=False).returncode == 0:
                return
            time.sleep(0.1)
        self.fail("RAUC's service does not answer")

    def test_installation(self):
        before = self.system.read_bytes()
        self.serve()
        self.call("tessera", "slots", "reset")  # slot a runs on trial
        self.call("rauc", "install", "update.raucb", status=1)
        self.assertEqual(self.system.read_bytes(), before)
        self.call("rauc", "status", "mark-good")
        self.call("rauc", "install", "update.raucb")
        self.assertEqual(self.system.read_bytes()[:len(self.image)], self.image)
        slots = self.call("tessera", "slots")
        self.assertRegex(slots, "a +confirmed +14 .*running")
        self.assertRegex(slots, "b +trial +15 +1 +no +boots next")
        self.assertRegex(self.call("rauc", "status"), r"Activated: rootfs\.1 \(b\)")
        self.assertIn("slot b", self.call(BOARD, "reboot", "board"))
        for words, status, told in (
                ("get-current", 0, "b"), ("set-state b good", 0, "slot b"), ("get-state b", 0, "good"),
                ("set-state a good", 0, "a  confirmed"), ("get-state c", 1, "not answer"), ("x", 2, "unknown request")):
            with self.subTest(words):
                self.assertIn(told, self.call(BACKEND, *words.split(), status=status))
        (self.dir / "tools/tessera").write_text("#!/bin/sh\nexit 1\n")
        self.call(BACKEND, "set-state", "a", "good", status=1)


if __name__ == "__main__":
    if os.geteuid() or not all(map(shutil.which, ("rauc", "dbus-daemon", "mksquashfs", "jq", "openssl"))):
        print("left out: needs root, rauc, rauc-service, dbus, squashfs-tools, jq and openssl")
        sys.exit(77)
    unittest.main()
