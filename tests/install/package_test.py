# SPDX-License-Identifier: Apache-2.0
"""What an installation checks of a package: signers, boards, versions and damage. Other verbs that read packages."""

import json
import os
import pathlib
import shutil
import struct
import subprocess
import unittest
import zipfile

from authority import DELTA, Authorities, make_clock
from bench_board import BoardCase, describe, error_of, images, slots

BUILD = pathlib.Path(os.environ["TESSERA_BUILD"]).resolve()
RAISE_BOTH = {"sec_up_flag": 1, "nosec_up_flag": 1}


class PackageTest(BoardCase):
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


unittest.main(warnings="ignore")  # about two entries of a name
