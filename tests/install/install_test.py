# SPDX-License-Identifier: Apache-2.0
"""`tessera install` and the other verbs, end to end on the simulated board."""

import json
import os
import pathlib
import shutil
import struct
import subprocess
import unittest
import zipfile

from authority import DELTA, Authorities, make_clock
from bench_board import MEDIA, SIMULATOR, BoardCase, describe, error_of, images, slots

BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
RAISE_BOTH = {"sec_up_flag": 1, "nosec_up_flag": 1}
BUILD = pathlib.Path(os.environ.get("TESSERA_BUILD", SIMULATOR.parent / "build" / "release")).resolve()


class InstallTest(BoardCase):
    def test_a_good_update_and_a_rollback(self):
        first, second = images(1), images(2)
        for medium in MEDIA:
            with self.subTest(medium=medium):
                self.new(medium)
                self.pack("1.zip", first, describe(first, medium))
                self.pack("2.zip", second, describe(second, medium, "V3.0.0"))
                self.expect("install /userdata/1.zip", 0)
                self.assertTrue(self.holds(first, 1))
                self.expect("install /userdata/1.zip", 0, "is already installed")
                written = {op[0] for op in self.operations() if op[1] in ("pwrite", "MEMERASE64", "UBI_IOCEBER")}
                self.assertLessEqual(written, {"mmcblk0p2", "mtd1", "ubi0_1"})  # the update status
                synced = {op[0] for op in self.operations() if op[1] == "fsync"}
                self.assertTrue(synced & {"mmcblk0p1", "mtd0", "ubi0_0"})  # the slot block
                self.expect("rollback", 1)  # slot b is only on trial
                self.simulate("reboot")
                self.assertEqual(self.board().running_slot(), 1)
                self.expect("rollback", 0)
                self.expect("install /userdata/1.zip", 0, "slot b boots next")
                self.expect("install /userdata/1.zip", 0, "slot b is on trial until tessera confirm keeps it")
                for line in ("confirm", "rollback"):
                    self.expect(line, 0)
                self.assertEqual(self.board().slot_block().best(), 0)
                for line in ("slots set-next b", "install /userdata/2.zip"):
                    self.expect(line, 0)
                self.assertTrue(self.holds(first, 1) and self.holds(second, 0))
                self.simulate("reboot", "--fail")  # slot a spends its one try: back to the confirmed one
                self.assertEqual(self.board().running_slot(), 1)

    def test_what_is_refused_before_anything_is_written(self):
        good, big = images(1), {"boot": bytes(5 << 20)}
        fields = [  # of the description or of its first image, value, words in the error
            ("version", None, "version"), ("version", "V0.9", "older"), ("partitions", [], "partitions"),
            ("name", "nowhere", "nowhere"), ("name", "misc", "misc"), ("name", "../boot", "name"),
            ("name", "boot_b", "suffix"), ("name", "boot_c", "suffix"), ("name", "system", "described twice"),
            ("medium", "nand", "nand"),
            ("medium", "tape", "medium"), ("type", "abc", "type"), ("method", "diff", "method"), ("md5", "12", "md5"),
            ("size", -1, "size"), ("size", 70_001, "boot.img"), ("file", "absent.img", "absent.img"),
            ("colour", "red", "colour"),
        ]
        cases = [  # description, contents, further entries, words in the error
            (None, good, [], "update.json"), ("{", good, [], "update.json"), ("[]", good, [], "object"),
            ('{"version": 1e999}', good, [], "update.json contains a number that is too large"),
            ('{"a": "b", "a": 1}', good, [], 'update.json: "a" is given twice'), ("[" * 2049, good, [], "depth"),
            ('{"a": 1\0}', good, [], "byte 7 is 0"), ('{"a": 1,\n"b"}', good, [], "line 2, column 4: ':' expected"),
            (describe(big, "emmc"), big, [], "room"),
            (describe(images(2), "emmc", anti_rollback=True), good, [], "digest"),  # its versions are not trusted
        ]
        for field, value, words in fields:
            description = describe(good, "emmc")
            (description if field in description else description["partitions"][0])[field] = value
            cases.append((description, good, [], words))
        hidden = zipfile.ZipInfo("boot.img")
        hidden.filename = "boot.img\0.txt"  # the name up to its null character is that of the next image
        for extra, words in ([(hidden, b"x")], "null"), ([("other", b"x"), ("other", b"y")], "other"):
            cases.append((describe(good, "emmc"), good, extra, words))
        self.new()
        for description, contents, extra, words in cases:
            with self.subTest(words=words):
                self.pack("p.zip", contents, description, extra)
                error = error_of(self.expect_no_change("install /userdata/p.zip --json", 3))
                self.assertIn(words, error["message"])
                self.assertIn("nothing was written", error["state"])
        self.pack("p.zip", good, describe(good, "emmc", "V0.9"))
        self.expect("install /userdata/p.zip --allow-downgrade --dry-run", 0)
        self.assertNotIn("pwrite", [op[1] for op in self.operations()])
        self.expect("install /userdata/p.zip --allow-downgrade", 0)

    def test_a_damaged_package_is_never_installed_as_good(self):
        self.new()
        good = images(3, boot=3000, system=9000)
        self.pack("p.zip", good, describe(good, "emmc"))
        whole = (self.home / "p.zip").read_bytes()
        for at in range(0, len(whole), len(whole) // 24):
            with self.subTest(at=at):
                damaged = bytearray(whole)
                damaged[at] ^= 0x41
                (self.home / "p.zip").write_bytes(damaged)
                result = self.simulate("run", "--", "tessera", "install", "/userdata/p.zip", "--force")
                if self.board().slot_block().best() == 1:
                    self.assertTrue(result.returncode == 0 and self.holds(good, 1), result.stderr)
                    self.expect("slots set-next a", 0)
                else:
                    self.assertNotEqual(result.returncode, 0)

    def test_two_installs_at_once(self):
        self.new()
        good = images(1)
        self.pack("p.zip", good, describe(good, "emmc"))
        result = self.simulate("run", "--", "sh", "-c", """install='tessera install -q /userdata/p.zip'
            TESSERA_FLASH_FAULT='raise pwrite 5 19' $install & first=$!
            until grep -q '^State:.T' /proc/$first/status; do sleep 0.02; done
            $install; echo second $?
            for verb in confirm rollback 'slots mark-good b' 'slots reset' 'status set owner tool' 'status reset'
            do tessera $verb > /dev/null; echo $?; done
            kill -CONT $first; wait $first; echo first $?""")
        words = result.stdout.split()
        refused = ["0"] + ["1"] * 5  # the running slot is confirmed already
        self.assertEqual(words[:8] + words[-2:], ["second", "1", *refused, "first", "0"])
        self.assertRegex(result.stderr, "another command is at work: process [0-9]+ .*install")
        self.assertTrue(self.holds(good, 1))

    def test_other_files_in_place_of_the_lock_file(self):
        cases = [  # what makes it, status, word of the message; then what the file holds, its mode and links
            ("mkfifo $L", 1, "it is a FIFO", "-"), ("mkdir $L", 1, "it is a directory", "-"),
            ("ln -s /userdata/other $L", 1, "it is a symbolic link", "-"), ("ln -s /no/such $L", 1, "symbolic link", "-"),
            ("echo text > $L; ln $L $L.2", 1, "hard link", "text 644 2"),
            ("echo text > $L; chmod 620 $L", 1, "group or others", "text 620 1"),
            ("echo text > $L", 0, "confirmed", "text 644 1"), ("umask 0", 0, "confirmed", " 600 1"),
            ("umask 777", 0, "confirmed", " 600 1"),
        ]
        self.new()
        for made, status, word, left in cases:
            with self.subTest(made=made):
                result = self.simulate("run", "--", "sh", "-c", f"""L=/run/tessera.lock; echo kept > /userdata/other
                    rm -rf $L $L.2; {made}; timeout -k 1 5 tessera slots mark-good b; echo $?
                    test -f $L -a ! -L $L && echo "$(cat $L) $(stat -c '%a %h' $L)" || echo -""")
                self.assertEqual(result.stdout.splitlines()[-2:], [str(status), left], result.stderr)
                self.assertIn(word, result.stdout + result.stderr)
                self.assertEqual((self.home / "other").read_text(), "kept\n")
        if os.geteuid() == 0:
            os.chown(self.dir / "run" / "tessera.lock", 1, 1)
            self.expect("slots mark-good b", 1, "it belongs to user")

    def test_a_command_that_waits_for_the_lock_can_be_ended(self):
        self.new()
        self.board().save_slot_block(slots.SlotBlock.of(slots.Slot(15, 1, False), slots.Slot(14, 1, False)))
        result = self.simulate("run", "--", "sh", "-c", """flock /run/tessera.lock sleep 60 & sleep 0.5
            for action in - "''"; do
                (trap "$action" TERM; exec tessera confirm) & sleep 1; kill -TERM $!; wait $!; echo $?
            done""")
        self.assertEqual(result.stdout.split(), ["130", "130"], result.stderr)

    def test_a_target_that_is_in_use(self):
        good = images(1)
        cases = [  # medium, how it is used, word of the message, or none if that is not a use of a target
            ("nand", "mkdir -p $S/ubi3; echo 12 > $S/ubi3/mtd_num", "system_b: UBI is attached to it as ubi3"),
            ("nand", "mkdir -p $S/ubi3; echo 2 > $S/ubi3/mtd_num", ""),
            ("nor", "mount -t tmpfs /dev/mtdblock12 /mnt", "system_b: it is mounted on /mnt"),
            ("ubi", "mount -t tmpfs ubi0_12 /mnt", "system_b: it is mounted on /mnt"),
            ("ubi", "mkdir -p $S/ubi0_12 '/run/a b'; echo system_b > $S/ubi0_12/name; mount -t tmpfs ubi0:system_b "
             "'/run/a b'", "system_b: it is mounted on /run/a b"),
            ("ubi", "mount -t tmpfs ubi0_11 /mnt", ""),
        ]
        for medium, use, word in cases:
            with self.subTest(use=use):
                self.new(medium)
                self.pack("p.zip", good, describe(good, medium))
                before = [self.board().backing(device).read_bytes() for device in self.board().devices]
                inner = "bwrap --cap-add ALL --bind / / --dev-bind /dev /dev --tmpfs /sys --tmpfs /mnt -- sh -ec"
                result = self.simulate("run", "--", *inner.split(), f"""S=/sys/class/ubi; {use}
                    tessera install /userdata/p.zip""")
                self.assertEqual((result.returncode, word in result.stderr), (1 if word else 0, True), result.stderr)
                after = [self.board().backing(device).read_bytes() for device in self.board().devices]
                self.assertEqual(before == after, bool(word))

    def test_a_target_that_is_mounted_on_a_loop_device(self):
        self.new()
        good, system = images(1), self.board().backing(self.board().device("system_b"))
        self.pack("p.zip", good, describe(good, "emmc"))
        subprocess.run(["mkfs.ext4", "-q", system], check=True, env={"PATH": "/usr/sbin:/sbin"})
        system = system.rename(self.place / "system_b")
        loop = subprocess.run(["losetup", "--find", "--show", system], capture_output=True, text=True, check=False)
        if loop.returncode != 0:
            self.skipTest(f"no loop devices: {loop.stderr.strip()}")
        device = loop.stdout.strip()
        self.addCleanup(subprocess.run, ["losetup", "--detach", device], check=True)
        (self.dir / "partitions" / "system_b").symlink_to(device)
        conf = self.dir / "flash.conf"
        conf.write_text("".join(row for row in conf.read_text().splitlines(True) if "/system_b" not in row))
        place = self.place / "mounted"
        place.mkdir()
        install = ["--", "tessera", "install", "/userdata/p.zip"]
        subprocess.run(["mount", device, place], check=True)
        try:
            before = system.read_bytes()
            seen, unseen = self.simulate("run", "--with", place, *install), self.simulate("run", *install)
            self.assertTrue(system.read_bytes() == before)
        finally:
            subprocess.run(["umount", place], check=True)
        self.assertEqual((seen.returncode, unseen.returncode), (1, 1), seen.stderr + unseen.stderr)
        self.assertIn(f"system_b: it is mounted on {place}", seen.stderr)
        self.assertIn("system_b: another program or driver uses it", unseen.stderr)
        result = self.simulate("run", "--", "sh", "-c", """hold() {
                python3 -c 'import os; os.open("/dev/block/platform/by-name/system_b", os.O_EXCL)' 2>&1 | tail -n 1; }
            TESSERA_FLASH_FAULT='raise pwrite 2 19' tessera install /userdata/p.zip > /dev/null & first=$!
            until grep -q '^State:.T' /proc/$first/status; do sleep 0.02; done
            hold; kill -CONT $first; wait $first; echo $?; hold""")
        self.assertRegex(result.stdout, "^OSError: .*busy.*\n0\n$", result.stderr)
        self.assertTrue(system.read_bytes().startswith(good["system"]))

    def test_an_interrupt_ends_between_two_chunks(self):
        good = {"boot": images(1)["boot"], "system": images(2, block=3 << 20)["block"]}

        def install(medium, *expected, fault=""):
            self.new(medium, 4 << 20)
            self.pack("p.zip", good, describe(good, medium))
            result = self.expect("install /userdata/p.zip --json", *expected, fault=fault)
            writes = [(device, int(place.split("+")[1])) for device, kind, place, *_ in self.operations()
                      if kind == "pwrite"]
            return result, writes

        for medium in ("emmc", "nand"):
            _, writes = install(medium, 0)
            images_begin = next(at for at, (device, _) in enumerate(writes, 1) if device.endswith(("10", "11")))
            for number in (images_begin, images_begin + 1, len(writes) // 2, len(writes) - 4):
                with self.subTest(medium=medium, number=number):
                    result, done = install(medium, 130, fault=f"raise pwrite {number} 2")
                    self.assertIn("slot a next, and slot b is unbootable", error_of(result)["state"])
                    further = sum(size for _, size in done) - sum(size for _, size in writes[:number])
                    self.assertLessEqual(further, 1 << 20)  # at most what was handed to the writer
                    self.assertEqual(self.board().slot_block().best(), 0)
                    self.expect("status", 0, "has not ended")
                    self.expect("install /userdata/p.zip", 0)
                    self.assertTrue(self.holds(good, 1) and self.board().slot_block().best() == 1)
        self.new("emmc", 4 << 20)
        self.pack("p.zip", good, describe(good, "emmc"))
        kept = self.simulate("run", "--", "sh", "-c", "trap '' HUP; exec tessera install /userdata/p.zip",
                             env={"TESSERA_FLASH_FAULT": "raise pwrite 5 1"})
        self.assertEqual(kept.returncode, 0, kept.stderr)  # as under nohup

    def test_every_line_is_json_and_the_percentage_is_correct(self):
        self.new("nand")
        good = images(1)
        self.pack("p.zip", good, describe(good, "nand"))
        self.pack("wrong.zip", good, describe(good, "nand", ""))
        cases = [  # package and further words, fault, status
            ("p.zip", "", 0), ("p.zip --force", "", 0), ("p.zip --force", "fail MEMERASE64 7", 4),
            ("p.zip --force", "give pread 20 0", 4), ("p.zip --dry-run", "", 0), ("wrong.zip", "", 3),
            ("absent.zip", "", 3), ("p.zip --colour", "", 2), ("p.zip -q", "", 0)]
        for words, fault, status in cases:
            with self.subTest(words=words, fault=fault):
                result = self.expect(f"install --progress json -v /userdata/{words}", status, fault=fault)
                lines = [json.loads(line) for line in result.stderr.splitlines()]
                self.assertEqual([len(line) for line in lines], [1] * len(lines))
                self.assertEqual("error" in [*lines[-1]], status != 0)
                steps = [line["progress"] for line in lines if "progress" in line]
                shares = [step["percent"] for step in steps]
                self.assertEqual(shares, sorted(shares))
                self.assertEqual([step["phase"] for step in steps if step["percent"] == 100],
                                 ["done"] * (status == 0 and "-q" not in words))

    def make_signed_packages(self):
        """In /userdata: authorities with their lists, and packages NAME.zip by several signers."""
        ca = Authorities(self.home)
        good = images(1)
        draft = describe(good, "emmc")
        for part in draft["partitions"]:
            (self.home / part["file"]).write_bytes(good[part["name"]])
            del part["md5"], part["sha256"], part["size"]
        (self.home / "draft.json").write_text(json.dumps(draft))
        make_clock(self.home / "clock.so")
        for name in ("ours", "theirs"):
            ca.root(name)
        ca.root("impostor", "ours")
        ca.issue("inter", "ours", further="basicConstraints=critical,CA:true")
        for name, issuer in (("signer", "ours"), ("other", "theirs"), ("deep", "inter")):
            ca.issue(name, issuer)
        ca.gather("chain.pem", "deep.pem", "inter.pem")
        for name, issuer, *revoked in (("signer.crl", "ours", "signer"), ("inter.crl", "ours", "inter"),
                                       ("deep.crl", "inter", "deep"), ("theirs.crl", "theirs", "signer"),
                                       ("empty.crl", "ours"), ("forged.crl", "impostor", "inter")):
            ca.revoke(name, issuer, *revoked)
        ca.revoke("delta.crl", "ours", "signer", extension=DELTA)
        ca.revoke("future.crl", "ours", dates="-crl_lastupdate 20900101000000Z -crldays 30")
        for name, pairs, clock in (("none", "", ""), ("signer", "signer", ""), ("other", "other", ""),
                                   ("both", "signer other", ""), ("deep", "deep", ""), ("early", "signer", "86400")):
            sign = " ".join(f"--sign /userdata/{pair}.key --cert /userdata/{pair.replace('deep', 'chain')}.pem"
                            for pair in pairs.split())
            self.at(clock, f"pack /userdata/draft.json /userdata -o /userdata/{name}.zip {sign}", 0)
        (self.home / "update.json").write_bytes(zipfile.ZipFile(self.home / "none.zip").read("update.json"))
        theirs = "-signer other.pem -inkey other.key"
        for name, options in (("two", theirs), ("nocerts", "-nocerts"), ("noattr", "-noattr")):
            ca.openssl(f"cms -sign -binary -in update.json -outform DER -out p7s -signer signer.pem -inkey signer.key"
                       f" {options}")
            self.pack(f"{name}.zip", good, (self.home / "update.json").read_text(),
                      [("update.json.p7s", (self.home / "p7s").read_bytes())])
        self.pack("changed.zip", good, json.dumps(describe(good, "emmc", "V9.0")),
                  [("update.json.p7s", (self.home / "p7s").read_bytes())])
        return ca

    def at(self, clock, line, status, message=""):
        """Runs the command while the board's clock shows `clock`. @return its result"""
        script = 'LD_PRELOAD=$LD_PRELOAD:/userdata/clock.so exec tessera "$@"'
        result = self.simulate("run", "--", "sh", "-c", script, "sh", *line.split(),
                               env={"TEST_CLOCK": clock} if clock else None)
        self.assertEqual((result.returncode, message in result.stdout + result.stderr), (status, True),
                         (line, message, result.stdout, result.stderr))
        return result

    def test_which_signers_are_trusted(self):
        self.new()
        ca = self.make_signed_packages()
        signing, day = "--trust-time signing", 86400
        cases = [  # package, what is trusted, options, the clock, words of the refusal
            ("signer", "ours.pem", "", "", ""), ("other", "ours.pem", "", "", "signer CN = other: no authority"),
            ("none", "ours.pem", "", "", "not signed"), ("changed", "ours.pem", "", "", "CN = signer: its signature"),
            ("signer", "ours.pem signer.crl", "", "", "CN = signer: certificate revoked"),
            ("signer", "ours.pem inter.crl", "", "", ""), ("signer", "ours.pem theirs.pem theirs.crl", "", "", ""),
            ("signer", "ours.pem forged.crl", "", "", "CN = ours in /userdata/trust is not signed by it"),
            ("signer", "ours.pem impostor.pem forged.crl", "", "", ""),
            ("deep", "ours.pem impostor.pem forged.crl", "", "", "certificate revoked: CN = inter"),
            ("signer", "ours.pem delta.crl", "", "", "only complete lists"),
            ("signer", "ours.pem future.crl", "", "", "before the start of the revocation list"),
            ("signer", "ours.pem empty.crl future.crl", "", "", ""),
            ("signer", "ours.pem empty.crl", "", f"+{40 * day}", "the revocation list of CN = ours is out of date"),
            ("deep", "ours.pem", "", "", ""), ("deep", "ours.pem inter.crl", "", "", "certificate revoked: CN = inter"),
            ("deep", "ours.pem deep.crl", "", "", "CN = deep: certificate revoked"),
            ("both", "ours.pem", "", "", ""), ("both", "theirs.pem", "", "", ""), ("two", "theirs.pem", "", "", ""),
            ("both", "ours.pem theirs.pem signer.crl", "", "", ""), ("both", "impostor.pem", "", "", "; signer"),
            ("both", "ours.pem signer.crl", "", "", "CN = signer: certificate revoked"),
            ("nocerts", "ours.pem", "", "", "lacks its certificate"),
            ("signer", "ours.pem", "", str(day), "hint: set the clock"), ("signer", "ours.pem", signing, str(day), ""),
            ("signer", "ours.pem empty.crl", signing, str(day), ""),
            ("signer", "ours.pem signer.crl", signing, str(day), "certificate revoked"),
            ("signer", "ours.pem", "", f"+{400 * day}", "after the end of its certificate"),
            ("signer", "ours.pem", signing, f"+{400 * day}", ""),
            ("signer", "ours.pem empty.crl", signing, f"+{400 * day}", "out of date"),
            ("early", "ours.pem", "", "", ""), ("early", "ours.pem", signing, "", "before the start"),
            ("noattr", "ours.pem", "", "", ""), ("noattr", "ours.pem", signing, "", "does not state when"),
        ]
        for package, trusted, options, clock, words in cases:
            with self.subTest(package=package, trusted=trusted, options=options, clock=clock):
                ca.gather("trust", *trusted.split())
                before = self.board().slot_block().pack()
                line = f"install /userdata/{package}.zip --trust /userdata/trust {options}"
                self.at(clock, line, 3 if words else 0, words or "slot b")
                self.assertTrue(not words or self.board().slot_block().pack() == before)
        whole = (self.home / "ours.pem").read_text() + (self.home / "signer.crl").read_text()
        (self.home / "torn").write_text(whole.replace("-----BEGIN X509", "----BEGIN X509"))
        os.mkfifo(self.home / "fifo")
        for name, words in (
            ("/no.pem", "cannot open /no.pem: No such file"), ("/userdata", "Is a directory"),
            ("/userdata/draft.json", "no certificate"), ("/userdata/ours.key", "PRIVATE KEY is neither"),
            ("/userdata/torn", "a PEM block is damaged"), ("/userdata/signer.zip", "binary data"),
            ("/userdata/fifo", "no certificate"),
        ):
            self.at("", f"install /userdata/signer.zip --trust {name}", 1, words)

        ca.issue("brief", "ours", days=60)
        for key, cert, clock, words in (("brief", "brief", "", "in /userdata/brief.pem expires at"),
                                        ("signer", "signer", f"+{400 * day}", " expired at "),
                                        ("signer", "signer", str(day), "is not valid before"),
                                        ("other", "signer", "", "/userdata/other.key is not the key")):
            pair = f"--sign /userdata/{key}.key --cert /userdata/{cert}.pem"
            self.at(clock, f"pack /userdata/draft.json /userdata -o /userdata/p.zip {pair}", int(key != cert), words)

        with open(self.home / "signer.zip", "r+b") as package:
            package.seek(-70_000, 2)
            package.write(b"?")
        for package, trusted, status, words in (
            ("both", "", 0, "not checked"), ("none", "", 0, "no problems found"), ("none", "ours", 3, "not signed"),
            ("both", "theirs", 0, "other, signed at 20"), ("other", "ours", 3, "no authority"),
            ("changed", "", 3, "does not match"), ("signer", "", 3, "system.img"),
        ):
            trust = ["--trust", f"{trusted}.pem"] if trusted else []
            result = subprocess.run([BUILD / "tool" / "tessera", "package", "info", f"{package}.zip", *trust],
                                    cwd=self.home, capture_output=True, text=True, check=False)
            self.assertEqual(result.returncode, status, result.stderr)
            self.assertIn(words, result.stdout + result.stderr)
            self.assertRegex(result.stdout, "^version +V")

    def test_boards_that_a_package_names(self):
        self.simulate("new", "--compatible", "a,b", "--compatible", "c,d")
        shown = json.loads(self.expect("board --json", 0).stdout)
        self.assertEqual(shown["compatible"], ["a,b", "c,d"])
        cases = [  # names of the board, boards in the description, option, words of the refusal
            ("a,b c,d", ["x", "c,d"], "", ""), ("a,b", ["a"], "", "is for a, but this board is a,b"),
            ("", ["x", "y"], "", "hint: name the board: --board NAME"), ("", ["x", "y"], "--board y", ""),
            ("a,b", ["a,b"], "--board y", "this board is y"), ("a,b", None, "", ""), ("", None, "", ""),
            ("x", ["x"] * 17, "", "1 to 16"), ("x", [], "", "1 to 16"), ("x", "x", "", "1 to 16"),
            ("x", ["x", 1], "", "without blanks"), ("x", ["x", "a b"], "", "without blanks"),
            ("x", ["x", "\u00e4"], "", "without blanks"), ("x", ["x", "y" * 128], "", "without blanks"),
            ("x", ["y" * 127, "x"], "", ""), ("x", ["x", ""], "", "without blanks"),
        ]
        good = images(1)
        for names, boards, option, words in cases:
            with self.subTest(names=names, boards=boards, option=option):
                (self.dir / "compatible").write_text("".join(f"{name}\0" for name in names.split()) + "unfinished")
                self.pack("p.zip", good, {**describe(good, "emmc"), **({} if boards is None else {"boards": boards})})
                for verb in ("verify", "install"):
                    run = self.expect_no_change if words else self.expect
                    result = run(f"{verb} /userdata/p.zip {option}", 3 if words else 0, words)
                    self.assertEqual("does not name its boards" in result.stderr, boards is None)
                self.assertTrue(words or self.holds(good, 1))

    def test_a_device_that_fails(self):
        good = images(1)
        for medium, rule in (("emmc", "fail pwrite 4"), ("nand", "fail MEMERASE64 4"), ("ubi", "fail pwrite 4"),
                             ("emmc", "lose pwrite 4"), ("nor", "lose pwrite 4"), ("nand", "lose pwrite 4")):
            with self.subTest(medium=medium, rule=rule):
                self.new(medium)
                self.pack("p.zip", good, describe(good, medium))
                self.expect("install /userdata/p.zip", 4, "slot a", fault=rule)
                self.assertEqual(self.board().slot_block().best(), 0)
                self.expect("install /userdata/p.zip", 0)

    def test_bad_input_of_every_verb(self):
        self.new()
        (self.home / "long").write_text("x" * 120 + "_V1.2.34\n")
        os.mkfifo(self.home / "fifo")
        with open(self.home / "large_uboot", "wb") as large:
            large.truncate((64 << 20) + 1)
        cases = [  # command line, status, word in the message
            ("nonsense", 2, "nonsense"), ("--colour", 2, "colour"), ("", 2, "command is required"),
            ("install", 2, "PACKAGE"), ("install /no.zip", 3, "/no.zip"), ("install /etc/passwd", 3, "zip"),
            ("install /no.zip --lock /no/lock", 1, "/no/lock"), ("install /no.zip --progress loud", 2, "loud"),
            ("verify /no.zip", 3, "/no.zip"), ("slots set-next a --lock /userdata", 1, "cannot use the lock file"),
            ("pack /no.json /tmp -o /tmp/p.zip", 1, "/no.json"), ("pack /etc/passwd /tmp -o /tmp/p.zip", 3, "passwd"),
            ("install /no.zip --board=", 2, "--board: must not be empty"),
            ("verify /no.zip --trust-time signing", 2, "--trust-time requires --trust"),
            ("pack a b -o -", 2, "standard output"),
            ("pack a b -o c --sign /no.key --cert d", 1, "cannot open /no.key: No such file"),
            ("pack a b -o c --sign /etc/passwd --cert d", 1, "/etc/passwd contains no private key"),
            ("pack a b -o c --sign d", 2, "cert"), ("package open", 2, "open"), ("package list /no.zip", 3, "/no.zip"),
            ("package unpack /etc/passwd /tmp/out", 3, "zip"), ("package has /etc/passwd a", 3, "zip"),
            ("rollback b", 2, "b"), ("slots set-next 9", 1, "9"), ("slots mark-good x", 1, "x"),
            ("status set colour 1", 2, "colour"), ("status set update red", 2, "update"),
            ("status set update 77", 2, "update"), ("status set next-slot q", 2, "next-slot"),
            ("digest misc --garbage -1", 2, "--garbage: must not be negative"),
            ("digest nowhere", 1, "nowhere"), ("digest /nowhere", 1, "/nowhere: No such file"),
            ("digest /etc", 1, "/etc is neither"), ("compare /userdata/fifo misc", 1, "fifo is neither"), ("digest misc --offset 99999999", 1, "misc"),
            ("digest misc --length x", 2, "length"), ("compare misc ubootenv", 1, "differ"),
            ("compare /dev/null /dev/zero", 4, "cannot determine the size of /dev/null"), ("version compare abc V1", 1, "abc"),
            ("version show /no", 1, "/no: No such file"), ("version show /userdata/long", 1, "is too long for a version file"),
            ("version show /userdata/fifo", 1, "fifo"), ("version show /etc/hostname", 1, "contains no version"), ("firmware /no", 2, "/no"), ("versions /no", 2, "/no"),
            ("versions /etc/passwd --kind uboot", 3, "passwd"), ("versions /userdata/fifo --kind vbmeta", 1, "fifo"), ("efuse burn --yes", 1, "no installed package"),
            ("flashcmd ../misc_write_cmd", 1, ".."), ("flashcmd no_such", 1, "no_such: No such file"),
            ("flashcmd misc_write_cmd --data /no", 1, "/no"), ("flashcmd a --offset 1", 2, "data"),
            ("flashcmd misc_write_cmd --data /dev/zero", 1, "/dev/zero is larger than 64.0 MiB"),
            ("versions /userdata/large_uboot", 1, "large_uboot is larger than 64.0 MiB"),
            ("pack /dev/zero /tmp -o /tmp/p.zip", 1, "/dev/zero is larger than 256.0 KiB"),
            ("digest misc --offset 18446744073709551616", 2, "too large"), ("digest misc --sha256=1", 2, "no value"),
            ("flashcmd a --data b --offset 4294967296", 2, "too large"), ("digest misc --offset", 2, "requires a value"),
            ("digest misc --length --sha256", 2, "requires a value"), ("digest misc --length 5 --length 6", 2, "more than once"),
            ("digest misc --garbage=5 --length 5", 2, "cannot be combined with"),
            ("install a -vz", 2, "unknown option -z"), ("install a --trust=", 2, "must not be empty"), ("pack a b", 2, "--output"),
            ("package list a b", 2, "unexpected argument: b"), ("digest misc --version", 2, "--version"),
        ]
        for line, status, word in cases:
            with self.subTest(line=line):
                result = self.expect_no_change(f"{line} --json", status)
                error = json.loads(result.stderr)["error"]
                self.assertEqual(error["code"], status)
                self.assertIn(word, error["message"])
        self.assertRegex(self.expect("slots set-next 9", 1).stderr, "^tessera: [^\n]+\n")
        ten = self.expect("digest misc --length 10", 0).stdout
        self.assertEqual(self.expect("digest -v --length=0xA -- misc", 0).stdout, ten)
        self.expect("digest -- --sha256", 1, "partition: --sha256")
        self.expect("slots set-next --colour --help", 0, "Usage: tessera slots set-next [OPTIONS] SLOT")

    def test_confirm_and_rollback_with_unknown_states(self):
        good, trial, spent = slots.Slot(14, 1, True), slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        cases = [  # the running slot, the other, states, reason against a rollback
            (good, trial, ["confirmed", "trial"], "on trial"),
            (spent, spent, ["unbootable", "unbootable"], "unbootable"),
            (good, slots.Slot(15, 3, True, corrupted=True), ["confirmed", "corrupted"], "corrupted"),
            (good, good, ["unknown", "unknown"], "unknown"),
            (trial, good, ["trial", "confirmed"], ""),
        ]
        self.new()
        self.pack("p.zip", images(1), describe(images(1), "emmc"))
        for running, other, states, reason in cases:
            with self.subTest(states=states):
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                if reason == "unknown":
                    self.damage_slot_block()
                    for line in ("install /userdata/p.zip", "slots mark-good b"):
                        self.expect_no_change(line, 1, "checksum")
                shown = json.loads(self.expect("slots --json", 0).stdout)["slots"]
                self.assertEqual([slot["state"] for slot in shown], states)
                run = self.expect_no_change if reason else self.expect
                run("rollback", 1 if reason else 0, reason)
                self.expect("confirm", 0)
                self.assertTrue(self.board().slot_block().slots[0].marked)
                self.assertFalse(reason == "unknown" and self.board().slot_block().slots[1].marked)
                self.expect_no_change("confirm", 0, "already")

    def test_confirm_with_an_unexpected_block_or_running_slot(self):
        count_at = slots.OFFSET + 9
        cases = [  # in place of slot a and of normal mode, byte of the number of slots, status, word of the message
            ("_a", "normal", 0, 0, ""), ("_b", "normal", 1, 0, ""),
            ("_c", "normal", 3, 1, "has the slots a and b only"),
            ("_a", "recovery", 2, 1, "recovery"), ("_a", "recovery", 3, 1, "recovery"),
        ]
        for suffix, mode, count, status, word in cases:
            with self.subTest(suffix=suffix, mode=mode, count=count):
                self.new()
                with open(self.board().backing(self.board().device("misc")), "r+b") as misc:
                    misc.seek(count_at)
                    misc.write(bytes([count]))
                cmdline = self.dir / "cmdline"
                text = cmdline.read_text().replace("mode=normal", f"mode={mode}")
                cmdline.write_text(text.replace("slot_suffix=_a", f"slot_suffix={suffix}"))
                if count < 2:
                    self.pack("p.zip", images(1), describe(images(1), "emmc"))
                    self.expect_no_change("install /userdata/p.zip", 1, "checksum")
                (self.expect_no_change if status else self.expect)("confirm", status, word)
                if status == 0:
                    running = "ab".index(suffix[1])
                    block = self.board().slot_block()
                    self.assertEqual((block.slots[running].marked, block.best()), (True, running))
                    self.assertFalse(block.slots[1 - running].marked)

    def test_an_update_needs_a_running_slot_and_another_one(self):
        self.new()
        self.pack("p.zip", images(1), describe(images(1), "emmc"))
        command_line = (self.dir / "cmdline").read_text()
        block = self.board().slot_block()
        cases = [("suffix=_a", 1, "has no slot b"), ("suffix=_c", 2, "has no slot c"), ("suffix=_c", 3, "has no slot d"),
                 ("", 2, "hint: tessera board --check")]
        for running, block.count, message in cases:
            with self.subTest(running=running, count=block.count):
                self.board().save_slot_block(block)
                (self.dir / "cmdline").write_text(command_line.replace("suffix=_a", running))
                self.expect_no_change("install /userdata/p.zip", 1, message)

    def test_a_slot_on_trial_and_one_that_was_given_up(self):
        trial, spent, good, first = (slots.Slot(15, 2, False), slots.Slot(15, 0, False), slots.Slot(14, 1, True),
                                     slots.Slot(15, 1, True))
        cases = [  # the running slot, the other, boots left to the running one on trial, is the other given up
            (trial, good, "2 boots", False), (slots.Slot(15, 1, False), good, "1 boot", False),
            (spent, good, "", False), (good, spent, None, True), (first, spent, None, False),
            (first, slots.Slot(14, 0, False), None, False), (good, trial, None, False)]
        self.new()
        for running, other, left, given_up in cases:
            with self.subTest(running=running, other=other):
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                for line in ("slots", "board --check"):
                    output = self.expect(line, 0).stdout
                    self.assertEqual("tessera confirm keeps it" in output, left is not None)
                    self.assertIn(f"slot a is on trial, with {left} left" if left else "", output)
                    self.assertEqual("slot a is running its last try" in output, left == "")
                self.assertEqual("slot b was given up or marked bad" in self.expect("status", 0).stdout, given_up)
                alone = running.bootable() and not (other.bootable() and other.marked)
                (self.expect_no_change if alone else self.expect)("slots mark-bad a", 1 if alone else 0)
                self.expect("slots mark-bad --yes a", 0)
        good = images(1)
        self.new()
        self.pack("p.zip", good, describe(good, "emmc"))
        self.expect("install /userdata/p.zip", 0)
        self.simulate("reboot", "--fail")
        self.assertEqual(json.loads(self.expect("status --json", 0).stdout)["given_up_slot"], 1)
        self.expect_no_change("slots mark-good b", 1, "it is unbootable")
        self.expect("slots mark-good --yes b", 0)

    def test_off_a_board_and_with_stand_ins(self):
        self.new()
        items = json.loads(self.expect("board --check --json", 0).stdout)["items"]
        self.assertEqual({item["item"] for item in items if not item["ok"]}, {"log library", "eFuse library"})
        self.assertEqual(self.expect("board --check", 0).stdout.count("\nstand-in "), 2)
        (self.dir / "cmdline").write_text("quiet\n")
        self.assertEqual(error_of(self.expect("board --json", 1))["hint"], "tessera board --check")

    def test_confirm_recreates_a_lost_block(self):
        def tear_the_page_of_the_block():
            with open(self.dir / "state" / "misc", "r+b") as state_of_misc:
                blocks = 9  # of 62 pages each; a byte for each, and one for each page
                self.assertEqual(state_of_misc.seek(0, 2), blocks * 63)
                state_of_misc.seek(blocks + slots.OFFSET // 2048)
                state_of_misc.write(b"\1")

        def forget_the_block():
            with open(self.board().backing(self.board().device("misc")), "r+b") as misc:
                misc.seek(slots.OFFSET + 4)
                misc.write(bytes(4))

        cases = [  # medium, what is lost; or a change that ends between the erase and the write
            ("emmc", forget_the_block, ""), ("nand", None, "raise pwrite 1 9"), ("nor", None, "fail pwrite 1"),
            ("nand", None, "lose pwrite 1"), ("ubi", None, "raise pwrite 1 9"), ("ubi", tear_the_page_of_the_block, "")]
        for medium, lose, fault in cases:
            with self.subTest(medium=medium, fault=fault):
                self.new(medium)
                good = images(1)
                self.pack("p.zip", good, describe(good, medium))
                self.expect("slots mark-good b", 137 if "raise" in fault else 4 if fault else 0,
                            "" if "raise" in fault or not fault else "hint: tessera confirm", fault=fault)
                if lose:
                    lose()
                self.expect("board --check", 1, "\nMISSING  slot block")
                for line in ("install /userdata/p.zip", "rollback", "slots set-next b"):
                    error = error_of(self.expect(f"{line} --json", 1))
                    self.assertEqual(error["hint"], "tessera confirm", line)
                self.assertFalse(self.holds(good, 1))
                self.expect("confirm", 0, "slot a is confirmed")
                block = self.board().slot_block()
                self.assertEqual((block.best(), [slot.marked for slot in block.slots]), (0, [True, False]))
                self.expect("install /userdata/p.zip", 0, "slot b boots next")
                self.assertTrue(self.holds(good, 1))

    def test_confirm_waits_for_a_command_that_writes_the_block(self):
        for medium in ("emmc", "nand"):  # where the block is erased meanwhile
            with self.subTest(medium=medium):
                self.new(medium)
                self.board().save_slot_block(slots.SlotBlock.of(slots.Slot(15, 1, False), slots.Slot(14, 1, False)))
                result = self.simulate("run", "--", "sh", "-c", """
                    TESSERA_FLASH_FAULT='raise pwrite 1 19' tessera slots mark-good b > /dev/null & first=$!
                    until grep -q '^State:.T' /proc/$first/status; do sleep 0.02; done
                    tessera confirm & second=$!
                    sleep 1; kill -CONT $first; wait $second""")
                self.assertIn("slot a is confirmed", result.stdout, result.stderr)
                self.assertIn("waiting for process", result.stderr)
                self.expect("slots mark-bad b", 0, fault="raise pwrite 1 15")  # not in the middle of the block
                self.assertEqual([slot.marked for slot in self.board().slot_block().slots], [True, False])

    def test_images_of_an_interrupted_package_do_not_count_as_installed(self):
        self.new()
        first, second = images(1), {"boot": images(1)["boot"]}
        self.pack("1.zip", first, describe(first, "emmc"))
        self.pack("2.zip", second, describe(second, "emmc"))
        self.expect("install /userdata/1.zip", 0)
        self.expect("status set owner tool", 0)  # as a cut between the last two writes of a record leaves it
        self.expect("install /userdata/1.zip", 0, "is already installed")
        self.assertEqual(json.loads(self.expect("status --json", 0).stdout)["status"]["owner"], "none")
        self.expect("install /userdata/1.zip --force", 137, fault="raise pwrite 5 9")  # in the middle of slot b
        self.expect_no_change("install /userdata/2.zip", 1, "no image for its partition system")
        for line in ("slots mark-good b", "slots set-next b"):
            self.expect_no_change(line, 1, "slot b is half written")
        for line in ("slots reset", "confirm"):
            self.damage_slot_block()
            self.expect(line, 0)
            self.assertEqual(self.board().slot_block().slots[1].tries, 0)  # not on trial half written
        self.expect("slots set-next --yes b", 0)
        self.expect("status", 0, "has not ended")
        self.expect("install /userdata/1.zip", 0, "slot b boots next")
        self.expect("status", 0, "no update is under way")
        self.expect("install /userdata/1.zip --force", 137, fault="raise pwrite 9 9")  # all is read back, b is next
        self.simulate("reboot")
        self.expect("confirm", 0)
        self.expect("install /userdata/2.zip", 0, "slot a boots next")

    def test_a_written_slot_that_does_not_come_up_is_given_up(self):
        good, contents = slots.Slot(15, 1, True), images(1)
        cases = [  # the running slot, the other, the boot mode, the slot that is written
            (good, slots.Slot(14, 1, True, corrupted=True), "normal", 1),
            (good, slots.Slot(14, 0, True), "normal", 1),
            (slots.Slot(15, 3, False), slots.Slot(14, 1, True), "recovery", 0),
            (slots.Slot(15, 0, False), slots.Slot(14, 0, False), "recovery", 1),
        ]
        for running, other, mode, written in cases:
            with self.subTest(other=other, mode=mode):
                self.new()
                self.pack("p.zip", contents, describe(contents, "emmc"))
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                cmdline = self.dir / "cmdline"
                cmdline.write_text(cmdline.read_text().replace("mode=normal", f"mode={mode}"))
                self.expect("install /userdata/p.zip", 0, f"slot {'ab'[written]} boots next")
                self.assertTrue(self.holds(contents, written))
                self.assertEqual(self.board().slot_block().best(), written)
                self.simulate("reboot", "--fail")
                boots = 1 - written if running.bootable() or other.bootable() else None
                self.assertEqual(self.board().slot_block().best(), boots)

    def test_an_image_with_lost_pages_is_written_again(self):
        self.new("nand")
        self.pack("p.zip", images(1), describe(images(1), "nand"))
        self.expect("install /userdata/p.zip", 0)
        with open(self.dir / "state" / "system_b", "r+b") as state_of_system:
            blocks = state_of_system.seek(0, 2) // 65  # a byte for each, and one for each of its 64 pages
            state_of_system.seek(blocks + 1)
            state_of_system.write(b"\1")
        self.expect("install /userdata/p.zip", 0, "128.0 KiB written, 233.3 KiB already installed")

    def test_a_full_file_system(self):
        self.new()
        image = {"uboot": images(1)["system"]}
        description = describe(image, "emmc", anti_rollback=True)
        self.pack("p.zip", image, description)
        (self.home / "uboot.img").write_bytes(image["uboot"])
        (self.home / "d.json").write_text(json.dumps(description))
        small = "bwrap --bind / / --dev-bind /dev /dev --size 65536 --tmpfs /mnt -- sh -c".split()
        for line in ("tessera pack /userdata/d.json /userdata -o /mnt/p.zip",
                     "tessera package unpack /userdata/p.zip /mnt/out",
                     "env TMPDIR=/mnt tessera verify /userdata/p.zip"):
            with self.subTest(line=line):
                script = f"{line}; echo $?; find /mnt -type f -o -name 'tess*'"
                result = self.simulate("run", "--", *small, script)
                self.assertEqual(result.stdout.split(), ["1"], result.stderr)
                self.assertRegex(result.stderr, "(?m)^tessera: .*(/mnt|[Nn]o space)")
        limited = "trap '' XFSZ; ulimit -f 8; tessera package unpack /userdata/p.zip /tmp/out"  # fails in the middle
        self.assertEqual(self.simulate("run", "--", "bash", "-c", limited).returncode, 4)

    def test_packages(self):
        self.new()
        (self.home / "text").write_bytes(b"x" * 400)
        subprocess.run(["zip", "-q", "-0", "-fz", "wide.zip", "text"], check=True, cwd=self.home)
        whole = (self.home / "wide.zip").read_bytes()
        (self.home / "flipped.zip").write_bytes(whole.replace(b"xxxx", b"xxyx", 1))
        with zipfile.ZipFile(self.home / "huge.zip", "w") as package:
            package.writestr("a", "")
            package.getinfo("a").file_size = 2**63 - 10  # into a zip64 field of the directory
        (self.home / "cut.zip").write_bytes((self.home / "huge.zip").read_bytes()[:-16])
        subprocess.run(["zip", "-q", "-0", "named.zip", "text"], check=True, cwd=self.home)
        named = (self.home / "named.zip").read_bytes().replace(b"text", b"\xff\xe2\x82(")
        (self.home / "named.zip").write_bytes(named)
        for line, status, message in (
            ("check-zip /userdata/wide.zip", 0, "all 1 entries are intact"),
            ("check /userdata/flipped.zip", 3, "text: checksum mismatch"),
            ("unpack /userdata/flipped.zip /tmp/u", 3, "error -105"),
            ("unpack /userdata/cut.zip /tmp/u", 3, "not a zip package"),
            ("list /userdata/named.zip --json", 0, '"name": "\ufffd\ufffd("'),
            ("list /userdata/huge.zip", 0, "needs 9007199254743039 KiB"),
            ("unpack /userdata/huge.zip /tmp/u", 1, "has"),
        ):
            self.expect(f"package {line}", status, message)

    def test_a_version_file_without_its_line_end(self):
        self.new()
        (self.home / "cr").write_text("b_V1.2.3\r\n")
        self.expect("version show /userdata/cr --json", 0, '"version": "V1.2.3"')
        self.expect("version compare V1.2_V3 V1.4_V1", 0, "V1.2_V3 is older than V1.4_V1")
        self.pack("p.zip", images(1), describe(images(1), "emmc", "V1.2.2"))
        self.expect("install /userdata/p.zip --version-file /userdata/cr", 3, "older")
        self.expect_no_change("install /userdata/p.zip --version-file /userdata/absent", 1, "installed version")
        self.pack("p.zip", images(1), describe(images(2), "emmc"))
        self.expect("install /userdata/p.zip --dry-run", 3, "digest")
        (self.dir / "velox" / "version").unlink()
        (self.dir / "velox" / "version").symlink_to("version")  # cannot be looked up
        self.expect_no_change("install /userdata/p.zip", 1, "installed version")

    def test_dry_run_and_verify_check_what_an_installation_checks(self):
        self.new("nand")
        contents = dict.fromkeys(("vbmeta", "uboot"), b"AVB0".ljust(112, b"\0") + struct.pack(">Q", 5))
        self.pack("p.zip", contents, describe(contents, "nand", anti_rollback=True))
        for line in ("install /userdata/p.zip --dry-run", "install /userdata/p.zip", "verify /userdata/p.zip"):
            result = self.expect(line, 3, "on eMMC only")
        self.assertIn("unknown", result.stdout)  # the versions, besides the refusal

    def test_fuses_are_burnt_only_if_no_system_needs_the_old_counters(self):
        firmware = {version: self.firmware(version) for version in (2, 3)}
        good, gone, untried = slots.Slot(15, 1, True), slots.Slot(14, 0, False), slots.Slot(15, 1, False)
        old = {"miniboot": 2}
        single = ("miniboot_a", "miniboot"), ("miniboot_b", "spare_b")
        cases = [  # further words, slots, versions in a, in b, which runs; what else is so, status, word in the error
            ("--yes", good, good, {}, {}, "", 0, ""), ("", good, good, {}, {}, "", 2, "cannot be undone"),
            ("--yes", good, untried, {}, {}, "", 1, "slot b is running and not confirmed"),
            ("--yes", good, gone, {}, {}, "", 1, "not confirmed"),
            ("--yes", good, good, {}, {}, "checksum", 1, "checksum"),
            ("--yes", good, good, {}, {}, "recovery", 1, "recovery"),
            ("--yes", good, good, {}, {}, "status set update burn", 1, "an update has not ended"),
            ("--yes", good, good, {}, old, "", 1, "miniboot_b has version 2, below 3"),
            ("--yes --give-up-other-slot --unchecked", good, good, {}, {"uboot": 0}, "", 1, "uboot_b has no version"),
            ("--yes", good, good, {"vbmeta": 2}, {}, "", 1, "slot a is bootable and would be lost: vbmeta_a"),
            ("--yes", gone, good, old, {}, "", 0, ""), ("--yes", good, good, {"miniboot": 0}, {}, "", 1, "miniboot_a"),
            ("--yes --give-up-other-slot", good, good, old, {}, "", 0, ""),
            ("--yes", good, good, {}, {}, [("miniboot_b", "spare_b")], 1, "slot b has no partition with miniboot"),
            ("--yes --unchecked", good, good, {}, {}, [("miniboot_b", "spare_b")], 0, ""),
            ("--yes --unchecked", good, good, {}, {}, [("miniboot_a", "spare_a"), ("miniboot_b", "spare_b")], 1, "slot a"),
            ("--yes", good, good, {}, {}, [("vbmeta_a", "spare_a")], 1, "it has no vbmeta firmware"),
            ("--yes", good, good, {}, {}, single, 0, ""),
            ("--yes --unchecked --give-up-other-slot", good, good, old, {}, single, 1, "miniboot has version 2"),
        ]
        self.new()
        self.pack("3.zip", firmware[3], describe(firmware[3], "emmc", anti_rollback=True) | RAISE_BOTH)
        self.expect("install /userdata/3.zip", 0)
        self.simulate("reboot")
        factory = shutil.copytree(self.dir, self.place / "factory")
        for words, a, b, in_a, in_b, further, status, word in cases:
            with self.subTest(words=words, in_a=in_a, in_b=in_b, further=further, word=word):
                shutil.rmtree(self.dir)
                shutil.copytree(factory, self.dir)
                self.board().save_slot_block(slots.SlotBlock.of(a, b))
                for slot, versions in enumerate((in_a, in_b)):
                    for name in firmware[3]:
                        version = versions.get(name, 3)
                        data = firmware[version][name] if version else bytes(4096)
                        self.board().write_logical(self.board().device(f"{name}_{'ab'[slot]}"), data)
                if further == "checksum":
                    self.damage_slot_block()
                elif further == "recovery":
                    cmdline = self.dir / "cmdline"
                    cmdline.write_text(cmdline.read_text().replace("mode=normal", "mode=recovery"))
                elif isinstance(further, str) and further:
                    self.expect(further, 0)
                for name, other in further if not isinstance(further, str) else ():
                    self.rename_partition(name, other)
                run = self.expect_no_change if status or "give" not in words else self.expect
                result = run(f"efuse burn {words} --json", status)
                self.assertEqual(self.board().fuses(), "sec 3, nosec 3" if status == 0 else "sec 0, nosec 0")
                if status:
                    self.assertIn(word, error_of(result)["message"])
                elif "give" in words:
                    self.assertEqual([slot.tries for slot in self.board().slot_block().slots], [0, 1])

    def test_only_a_completed_installation_stores_versions_for_burning(self):
        firmware, plain = self.firmware(3), images(1)
        self.new()
        self.pack("3.zip", firmware, describe(firmware, "emmc", "V2.0.1", anti_rollback=True) | RAISE_BOTH)
        self.pack("plain.zip", plain, describe(plain, "emmc", "V2.0.2"))

        def stored():
            return json.loads(self.expect("status --json", 0).stdout)["anti_rollback"].get("secure_version", 0)

        self.expect_no_change("verify /userdata/3.zip", 0, "passes")
        self.expect_no_change("install /userdata/3.zip --dry-run", 0)
        self.expect("install /userdata/3.zip", 4, fault="fail pwrite 7")  # in the middle of its images
        self.assertEqual(stored(), 0)
        self.expect("confirm", 0)
        self.expect("efuse burn --yes", 1, "no installed package")
        self.expect("install /userdata/3.zip", 0)
        kinds = [op[1] + op[2] for op in self.operations() if op[0] in ("mmcblk0p1", "mmcblk0p2") and op[1] == "pwrite"]
        self.assertLess(kinds.index("pwrite198784+16"), max(at for at, op in enumerate(kinds) if "2048+" in op))
        self.expect_no_change("efuse burn --yes --give-up-other-slot", 1, "miniboot_a")  # the running slot's, empty
        self.simulate("reboot")
        self.expect("confirm", 0)
        self.expect("status reset", 0)
        self.expect("efuse burn --yes --give-up-other-slot", 1, "no installed package")
        self.expect("slots set-next a", 0)  # so that the package goes to the slot that has it
        self.simulate("reboot")
        self.expect("install /userdata/3.zip", 0, "slot b boots next")
        self.assertEqual(stored(), 3)
        for line in ("status reset", "install /userdata/3.zip"):
            self.expect(line, 0)
        self.assertEqual(stored(), 3)  # of a package that is already installed
        self.expect("install /userdata/plain.zip", 0)
        self.assertEqual(stored(), 3)  # one without versions does not take them away

    def test_verify_off_the_board_names_what_it_could_not_compare(self):
        self.new()
        firmware = self.firmware(3)
        for medium, status in (("emmc", 0), ("nand", 3)):
            self.pack("3.zip", firmware, describe(firmware, medium, anti_rollback=True))
            result = subprocess.run([BUILD / "tool" / "tessera", "verify", "--json", self.home / "3.zip"],
                                  capture_output=True, text=True, check=False)
            self.assertEqual(result.returncode, status, result.stderr)
            self.assertIn("were not compared with anti-rollback counters", result.stderr)
            self.assertEqual(json.loads(result.stdout)["counters"], None)

    def test_a_flash_command_is_kept(self):
        self.new()
        record = struct.pack("<3LL", 0x46434D44, 0, 0, 4096).ljust(2272, b"\1")
        (self.dir / "velox" / "share" / "ota" / "misc_write_cmd").write_bytes(record)
        self.expect("flashcmd misc_write_cmd", 0, "misc_write_cmd written")
        with open(self.board().backing(self.board().device("flashcmd")), "r+b") as node:
            node.truncate(3072)
        self.expect("flashcmd misc_write_cmd", 4, "did not persist in flashcmd")


def tearDownModule():
    print(f"{BoardCase.refused} installations were refused, and none of them changed a device")


unittest.main(warnings="ignore")  # about two entries of a name
