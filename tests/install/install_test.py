"""`tessera install` and what surrounds it, end to end on the simulated board."""

import json
import struct
import subprocess
import zipfile

import bench_board
from bench_board import BoardCase, describe, images, slots, write_package


class InstallTest(BoardCase):
    def test_a_good_update_and_its_way_back(self):
        for medium in bench_board.MEDIA:
            with self.subTest(medium=medium):
                self.setUp()
                self.new(medium)
                first, second = images(1), images(2)
                one, two = self.pack("1.zip", first, medium), self.pack("2.zip", second, medium, "V3.0.0")
                self.expect(["install", one], 0)
                self.assertTrue(self.holds(first, 1))
                again, operations = self.journal("install", one)
                self.assertEqual(again.returncode, 0, again.stderr)
                images_written = [op for op in operations if op[1] in ("pwrite", "MEMERASE64", "UBI_IOCEBER")
                                  and not op[0].endswith(("0p1", "0p2", "mtd0", "mtd1", "ubi0_0", "ubi0_1"))]
                self.assertEqual(images_written, [])
                self.expect("rollback", 1)  # slot b is only on trial
                self.expect(["install", one], 0)
                self.simulate("reboot")
                self.assertEqual(self.board().running_slot(), 1)
                for line in ("confirm", "confirm", "rollback"):
                    self.expect(line, 0)
                self.assertEqual(self.board().slot_block().best(), 0)
                for line in ("slots set-next b", f"install {two}"):
                    self.expect(line, 0)
                self.assertTrue(self.holds(first, 1) and self.holds(second, 0))
                self.simulate("reboot", "--fail")  # slot a spends its one try: back to the confirmed one
                self.assertEqual(self.board().running_slot(), 1)

    def test_what_is_refused_before_anything_is_written(self):
        self.new("emmc")
        good = images(1)

        def changed(field, value, part=0):
            description = describe(good, "emmc")
            target = description if part is None else description["partitions"][part]
            target[field] = value
            return description

        twice = describe(good, "emmc")
        twice["partitions"][1]["name"] = "boot"
        cases = [  # description, contents, further entries, words in the error
            (None, good, [], "update.json"),
            ("{", good, [], "update.json"),
            ('{"version": 1e999}', good, [], "update.json holds a number that is too large"),
            ("[]", good, [], "object"),
            (changed("version", None, None), good, [], "version"),
            (changed("partitions", [], None), good, [], "partitions"),
            (changed("name", "nowhere"), good, [], "nowhere"),
            (changed("name", "misc"), good, [], "misc"),
            (changed("name", "../boot"), good, [], "name"),
            (changed("name", "boot_b"), good, [], "suffix"),
            (changed("medium", "nand"), good, [], "nand"),
            (changed("medium", "tape"), good, [], "medium"),
            (changed("type", "abc"), good, [], "type"),
            (changed("method", "diff"), good, [], "method"),
            (changed("md5", "12"), good, [], "md5"),
            (changed("size", -1), good, [], "size"),
            (changed("size", 70_001), good, [], "boot.img"),
            (changed("file", "absent.img"), good, [], "absent.img"),
            (changed("colour", "red"), good, [], "colour"),
            (twice, good, [], "boot"),
            (describe(good, "emmc", "V0.9"), good, [], "older"),
        ]
        big = {"boot": bytes(5 << 20)}
        cases.append((describe(big, "emmc"), big, [], "boot"))
        hidden = zipfile.ZipInfo("boot.img")
        hidden.filename = "boot.img\0.txt"  # the name up to its null character is that of the image behind it
        cases += [(describe(good, "emmc"), good, [(hidden, b"x")], "null"),
                  (describe(good, "emmc"), good, [("other", b"x"), ("other", b"y")], "other")]
        for number, (description, contents, extra, words) in enumerate(cases):
            with self.subTest(number=number, words=words):
                write_package(self.packages / "p.zip", description, contents, extra)
                result = self.changes_nothing("install", f"{self.packages}/p.zip", "--json")
                self.assertIn(result.returncode, (1, 3), result.stderr)
                error = json.loads(result.stderr.splitlines()[-1])["error"]
                self.assertIn(words, error["message"])
                self.assertIn("nothing was written", error["state"])
        words = ["install", self.pack("old.zip", good, "emmc", "V0.9"), "--allow-downgrade"]
        result, operations = self.journal(*words, "--dry-run")
        self.assertEqual((result.returncode, [op for op in operations if op[1] == "pwrite"]), (0, []))
        self.expect(words, 0)

    def test_a_damaged_package_is_never_installed_as_good(self):
        self.new("emmc")
        good = images(3, boot=3000, system=9000)
        self.pack("good.zip", good, "emmc")
        whole = (self.packages / "good.zip").read_bytes()
        for at in range(0, len(whole), len(whole) // 24):
            with self.subTest(at=at):
                damaged = bytearray(whole)
                damaged[at] ^= 0x41
                (self.packages / "bad.zip").write_bytes(damaged)
                result = self.tessera("install", f"{self.packages}/bad.zip", "--force")
                if self.board().slot_block().best() == 1:
                    self.assertTrue(result.returncode == 0 and self.holds(good, 1), result.stderr)
                    self.expect("slots set-next a", 0)
                else:
                    self.assertNotEqual(result.returncode, 0)

    def test_two_installs_at_once(self):
        self.new("emmc")
        good = images(1)
        install = f"tessera install -q {self.pack('p.zip', good, 'emmc')}"
        result = self.run_on_board("sh", "-c", f"""TESSERA_FLASH_FAULT='raise pwrite 5 19' {install} & first=$!
            until grep -q '^State:.T' /proc/$first/status; do sleep 0.02; done
            {install}; echo second $?
            kill -CONT $first; wait $first; echo first $?""")
        self.assertEqual(result.stdout.split()[:2], ["second", "1"])
        self.assertEqual(result.stdout.split()[-2:], ["first", "0"])
        self.assertRegex(result.stderr, "another update is running: process [0-9]+ .*install")
        self.assertTrue(self.holds(good, 1))

    def test_an_interrupt_ends_between_two_chunks(self):
        good = {"boot": images(1)["boot"], "system": images(2, block=1 << 20)["block"] * 21}
        for medium in ("emmc", "nand"):
            self.setUp()
            self.new(medium, "24M")
            package = self.pack("p.zip", good, medium)
            self.keep_copy()
            _, operations = self.journal("install", package)
            writes = [op for op in operations if op[1] == "pwrite"]
            images_begin = next(at for at, op in enumerate(writes, 1) if op[0].endswith(("10", "11")))
            for number in (images_begin, images_begin + 1, len(writes) // 2, len(writes) - 4):
                with self.subTest(medium=medium, number=number):
                    self.back_to_copy()
                    result, operations = self.journal("install", package, "--json",
                                                      env={"TESSERA_FLASH_FAULT": f"raise pwrite {number} 2"})
                    self.assertEqual(result.returncode, 130, result.stderr)
                    error = json.loads(result.stderr.splitlines()[-1])["error"]
                    self.assertIn("slot a next, and slot b is unbootable", error["state"])
                    further = sum(int(op[2].split("+")[1]) for op in operations if op[1] == "pwrite") - \
                        sum(int(op[2].split("+")[1]) for op in writes[:number])
                    self.assertLessEqual(further, 10 << 20)  # no more than what was in hand
                    self.assertEqual(self.board().slot_block().best(), 0)
                    self.expect("status", 0, "has not ended")
                    self.expect(["install", package], 0)
                    self.assertTrue(self.holds(good, 1) and self.board().slot_block().best() == 1)

    def test_every_line_is_json_and_the_share_tells_the_truth(self):
        self.new("nand")
        good, words = images(1), ["--progress", "json", "-v"]
        self.pack("p.zip", good, "nand"), self.pack("wrong.zip", good, "nand", "")
        cases = [  # package, further words, fault, status
            ("p.zip", [], "", 0), ("p.zip", ["--force"], "", 0), ("p.zip", ["--force"], "fail MEMERASE64 7", 4),
            ("p.zip", ["--force"], "give pread 20 0", 4), ("p.zip", ["--dry-run"], "", 0), ("wrong.zip", [], "", 3),
            ("absent.zip", [], "", 3), ("p.zip", ["--colour"], "", 2), ("p.zip", ["-q"], "", 0)]
        for package, further, fault, status in cases:
            with self.subTest(package=package, further=further, fault=fault):
                result = self.tessera("install", f"{self.packages}/{package}", *words, *further,
                                      env={"TESSERA_FLASH_FAULT": fault} if fault else {})
                self.assertEqual(result.returncode, status, result.stderr)
                lines = [json.loads(line) for line in result.stderr.splitlines()]
                self.assertEqual([len(line) for line in lines], [1] * len(lines))
                self.assertEqual("error" in [*lines[-1]], status != 0)
                steps = [line["progress"] for line in lines if "progress" in line]
                shares = [step["percent"] for step in steps]
                self.assertEqual(shares, sorted(shares))
                self.assertEqual([step["phase"] for step in steps if step["percent"] == 100],
                                 ["done"] * (status == 0 and "-q" not in further))

    def test_signatures(self):
        self.new("emmc")
        here = self.packages

        def openssl(*words):
            subprocess.run(["openssl", *words], check=True, capture_output=True, cwd=here)

        for ca in ("ours", "theirs"):
            openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{ca}.key", "-out", f"{ca}.pem",
                    "-subj", f"/CN={ca}", "-days", "30")
        for signer, ca, days in (("good", "ours", "30"), ("wrong", "theirs", "30"), ("expired", "ours", "-1")):
            openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{signer}.key", "-out", "r.csr", "-subj",
                    f"/CN={signer}")
            openssl("x509", "-req", "-in", "r.csr", "-CA", f"{ca}.pem", "-CAkey", f"{ca}.key", "-CAcreateserial",
                    "-out", f"{signer}.crt", "-days", days)
        contents = images(1)
        for name, data in contents.items():
            (here / f"{name}.img").write_bytes(data)
        draft = describe(contents, "emmc")
        for part in draft["partitions"]:
            for field in ("md5", "sha256", "size"):
                del part[field]
        (here / "draft.json").write_text(json.dumps(draft))
        for signer in ("good", "wrong", "expired", None):
            words = ["--sign", f"{here}/{signer}.key", "--cert", f"{here}/{signer}.crt"] if signer else []
            self.expect(["pack", f"{here}/draft.json", str(here), "-o", "/userdata/p.zip", *words], 0)
            with self.subTest(signer=signer):
                run = self.tessera if signer == "good" else self.changes_nothing
                result = run("install", "/userdata/p.zip", "--trust", f"{here}/ours.pem")
                self.assertEqual(result.returncode, 0 if signer == "good" else 3, result.stderr)

    def test_a_device_that_fails(self):
        good = images(1)
        rules = (("emmc", "fail pwrite 4"), ("nand", "fail MEMERASE64 4"), ("ubi", "fail pwrite 4"),
                 ("emmc", "lose pwrite 4"), ("nor", "lose pwrite 4"), ("nand", "lose pwrite 4"))
        for medium, rule in rules:
            with self.subTest(medium=medium, rule=rule):
                self.setUp()
                self.new(medium)
                package = self.pack("p.zip", good, medium)
                result = self.tessera("install", package, env={"TESSERA_FLASH_FAULT": rule})
                self.assertEqual(result.returncode, 4, result.stderr)
                self.assertEqual(self.board().slot_block().best(), 0)
                self.assertIn("slot a", result.stderr)
                self.expect(["install", package], 0)

    def test_bad_input_of_every_verb(self):
        self.new("emmc")
        long = self.packages / "long"
        long.write_text("x" * 120 + "_V1.2.34\n")
        cases = [  # command line, status, word in the message
            ("nonsense", 2, "nonsense"), ("--colour", 2, "colour"), ("", 2, "subcommand"),
            ("install", 2, "PACKAGE"), ("install /no.zip", 3, "/no.zip"), ("install /etc/passwd", 3, "zip"),
            ("install /no.zip --lock /no/lock", 1, "/no/lock"), ("install /no.zip --progress loud", 2, "loud"),
            ("verify /no.zip", 3, "/no.zip"), ("verify /etc/passwd", 3, "zip"), ("verify", 2, "PACKAGE"),
            ("pack /no.json /tmp -o /tmp/p.zip", 1, "/no.json"), ("pack /etc/passwd /tmp -o /tmp/p.zip", 3, "passwd"),
            ("pack a b -o c --sign d", 2, "cert"), ("package", 2, "subcommand"), ("package open", 2, "open"),
            ("package list /no.zip", 3, "/no.zip"), ("package unpack /etc/passwd /tmp/out", 3, "zip"),
            ("package has /etc/passwd a", 3, "zip"), ("package check /etc/passwd", 3, "zip"),
            ("confirm now", 2, "now"), ("rollback", 1, "slot b"), ("rollback b", 2, "b"),
            ("slots set-next 9", 1, "9"), ("slots mark-good x", 1, "x"), ("slots mark-bad", 2, "SLOT"),
            ("status set colour 1", 2, "colour"), ("status set update red", 2, "update"),
            ("status set update 77", 2, "update"), ("status set next-slot q", 2, "next-slot"),
            ("board misc", 2, "misc"), ("partitions misc", 2, "misc"), ("digest nowhere", 1, "nowhere"),
            ("digest misc --offset 99999999", 1, "misc"), ("digest misc --length x", 2, "length"),
            ("compare misc nowhere", 1, "nowhere"), ("compare misc ubootenv", 1, "differ"),
            ("version compare V1", 2, "V2"), ("version compare abc V1", 1, "abc"), ("version show /no", 1, "/no"),
            ("versions /no", 2, "/no"), ("versions /etc/passwd --kind uboot", 3, "passwd"),
            ("versions /etc/passwd --kind toast", 2, "toast"), ("efuse burn --yes", 1, "record"),
            ("flashcmd ../misc_write_cmd", 1, ".."), ("flashcmd no_such", 1, "no_such"),
            ("flashcmd misc_write_cmd --data /no", 1, "/no"), ("flashcmd a --offset 1", 2, "data"),
            ("compare /dev/null /dev/zero", 4, "tells no size"), (f"version show {long}", 1, "long"),
            ("verify /none.zip --lock /userdata", 1, "cannot use the lock file"),
        ]
        for line, status, word in cases:
            with self.subTest(line=line):
                result = self.changes_nothing(*line.split(), "--json")
                error = json.loads(result.stderr)["error"]
                self.assertEqual((result.returncode, error["code"]), (status, status), result.stderr)
                self.assertIn(word, error["message"])
        for line in ("install", "install /no.zip", "slots set-next 9"):
            self.assertRegex(self.tessera(*line.split()).stderr, "^tessera: [^\n]+\n")

    def test_confirm_and_rollback_and_what_is_unknown(self):
        good, trial, spent = slots.Slot(14, 1, True), slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        cases = [  # the running slot, the other, is the block sealed, states, reason against a rollback
            (good, trial, True, ["confirmed", "trial"], "on trial"),
            (spent, spent, True, ["unbootable", "unbootable"], "unbootable"),
            (good, slots.Slot(15, 3, True, corrupted=True), True, ["confirmed", "corrupted"], "corrupted"),
            (good, good, False, ["unknown", "unknown"], "unknown"),
            (trial, good, True, ["trial", "confirmed"], ""),
        ]
        self.new("emmc")
        package = self.pack("p.zip", images(1), "emmc")
        for running, other, sealed, states, reason in cases:
            with self.subTest(states=states):
                block = self.board().slot_block()
                for slot, fields in zip(block.slots, (running, other)):
                    vars(slot).update(vars(fields))
                self.board().save_slot_block(block)
                if not sealed:
                    with open(self.dir / "partitions" / "misc", "r+b") as misc:
                        misc.seek(slots.OFFSET + slots.SIZE - 1)
                        misc.write(b"!")
                    self.assertIn("checksum", self.tessera("install", package).stderr)
                shown = json.loads(self.tessera("slots", "--json").stdout)["slots"]
                self.assertEqual([slot["state"] for slot in shown[:2]], states)
                result = (self.changes_nothing if reason else self.tessera)("rollback")
                self.assertEqual(result.returncode, 1 if reason else 0, result.stderr)
                self.assertIn(reason, result.stderr)
                self.expect("confirm", 0)
                self.assertTrue(self.board().slot_block().slots[0].marked)
                self.assertIn("already", self.changes_nothing("confirm").stdout)

    def test_a_full_file_system(self):
        self.new("emmc")
        contents = images(1)
        for name, data in contents.items():
            (self.packages / f"{name}.img").write_bytes(data)
        description = describe(contents, "emmc")
        (self.packages / "d.json").write_text(json.dumps(description))
        for part in description["partitions"]:
            part["anti_rollback"] = True
        description["partitions"][0]["name"] = "uboot"
        write_package(self.packages / "p.zip", description, contents)
        here = self.packages
        small = ["bwrap", "--bind", "/", "/", "--dev-bind", "/dev", "/dev", "--size", "65536", "--tmpfs", "/run", "--"]
        cases = [  # command line, status
            (f"tessera pack {here}/d.json {here} -o /run/p.zip", 1),
            (f"tessera package unpack {here}/p.zip /run/out", 1),
            (f"env TMPDIR=/run tessera verify {here}/p.zip", 1),
        ]
        for line, status in cases:
            with self.subTest(line=line):
                result = self.run_on_board(*small, "sh", "-c", f"{line}; echo $?; find /run -type f -o -name 'tess*'")
                self.assertEqual(result.stdout.split(), [str(status)], result.stderr)
                self.assertRegex(result.stderr, "^tessera: .*(/run|[Nn]o space)")

    def test_packages(self):
        self.new("emmc")
        here = self.packages
        (here / "text").write_bytes(b"x" * 400)
        subprocess.run(["zip", "-q", "-0", "-fz", "wide.zip", "text"], check=True, cwd=here)
        whole = (here / "wide.zip").read_bytes()
        (here / "flipped.zip").write_bytes(whole.replace(b"xxxx", b"xxyx", 1))
        with zipfile.ZipFile(here / "two.zip", "w") as package:
            for name in "ab":
                package.writestr(name, name)
        (here / "cut.zip").write_bytes((here / "two.zip").read_bytes()[:-16])
        with zipfile.ZipFile(here / "huge.zip", "w") as package:
            package.writestr("a", "")
        huge = (here / "huge.zip").read_bytes()
        at = huge.index(b"PK\1\2")  # the size of its one entry moves into a zip64 field
        entry = bytearray(huge[at:at + 47])
        entry[24:28], entry[30:32] = b"\xff" * 4, struct.pack("<H", 12)
        entry += struct.pack("<HHQ", 1, 8, 2**63 - 10)
        end = struct.pack("<4s4H2LH", b"PK\5\6", 0, 0, 1, 1, len(entry), at, 0)
        (here / "huge.zip").write_bytes(huge[:at] + entry + end)
        for words, status, told in (
            (["check", "wide.zip"], 0, "all 1 entries are whole"), (["check", "flipped.zip"], 1, "wrong checksum"),
            (["unpack", "flipped.zip", "/tmp/u"], 3, "error -105"), (["unpack", "cut.zip", "/tmp/u"], 3, "no entries"),
            (["list", "huge.zip"], 0, "needs 9007199254743039 KiB"), (["unpack", "huge.zip", "/tmp/u"], 1, "has"),
        ):
            self.expect(["package", words[0], f"{here}/{words[1]}", *words[2:]], status, told)

    def test_a_version_file_without_its_line_end(self):
        self.new("emmc")
        (self.packages / "cr").write_text("b_V1.2.3\r\n")
        self.expect(f"version show {self.packages}/cr --json", 0, '"version": "V1.2.3"')
        self.expect("version compare V1.2_V3 V1.4_V1", 0, "V1.2_V3 is older than V1.4_V1")
        package = self.pack("p.zip", images(1), "emmc", "V1.2.2")
        self.expect(f"install {package} --version-file {self.packages}/cr", 3, "older")

    def test_the_dry_run_and_verify_judge_as_the_installation_does(self):
        self.new("nand")
        contents = dict.fromkeys(("vbmeta", "uboot"), b"AVB0".ljust(112, b"\0") + struct.pack(">Q", 5))
        description = describe(contents, "nand")
        for part in description["partitions"]:
            part["anti_rollback"] = True
        path = write_package(self.packages / "p.zip", description, contents)
        for line in (f"install {path} --dry-run", f"install {path}", f"verify {path}"):
            told = self.expect(line, 3, "on eMMC only")
        self.assertIn("unknown", told.stdout)  # the versions, beside the refusal

    def test_a_flash_command_is_kept(self):
        self.new("emmc")
        record = struct.pack("<3LL", 0x46434D44, 0, 0, 4096).ljust(2272, b"\1")
        (self.dir / "velox" / "share" / "ota" / "misc_write_cmd").write_bytes(record)
        self.expect("flashcmd misc_write_cmd", 0, "is written")
        with open(self.board().backing(self.board().device("flashcmd")), "r+b") as node:
            node.truncate(3072)
        self.expect("flashcmd misc_write_cmd", 4, "did not keep the command")


bench_board.main()
