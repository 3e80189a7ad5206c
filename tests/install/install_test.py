"""`tessera install` and what surrounds it, end to end on the simulated board."""

import json
import subprocess
import zipfile

import bench_board
from bench_board import MUTATIONS, BoardCase, describe, images, slots, write_package


class InstallTest(BoardCase):
    def install(self, package, *words):
        return self.journal("install", f"{self.packages}/{package}", *words)

    def test_a_good_update_and_its_way_back(self):
        for medium in bench_board.MEDIA:
            with self.subTest(medium=medium):
                self.setUp()
                self.new(medium)
                first, second = images(1), images(2)
                write_package(self.packages / "1.zip", describe(first, medium), first)
                write_package(self.packages / "2.zip", describe(second, medium, "V3.0.0"), second)
                result, _ = self.install("1.zip")
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertTrue(self.holds(first, 1))
                again, operations = self.install("1.zip")
                self.assertEqual(again.returncode, 0, again.stderr)
                images_written = [op for op in operations if op[1] in ("pwrite", "MEMERASE64", "UBI_IOCEBER")
                                  and not op[0].endswith(("0p1", "0p2", "mtd0", "mtd1", "ubi0_0", "ubi0_1"))]
                self.assertEqual(images_written, [])
                self.assertEqual(self.tessera("rollback").returncode, 1)  # slot b is only on trial
                self.assertEqual(self.install("1.zip")[0].returncode, 0)
                self.simulate("reboot")
                self.assertEqual(self.board().running_slot(), 1)
                for _ in range(2):
                    self.assertEqual(self.tessera("confirm").returncode, 0)
                self.assertEqual(self.tessera("rollback").returncode, 0)
                self.assertEqual(self.board().slot_block().best(), 0)
                self.assertEqual(self.tessera("slots", "set-next", "b").returncode, 0)
                result, _ = self.install("2.zip")
                self.assertEqual(result.returncode, 0, result.stderr)
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
                result, operations = self.install("p.zip", "--json")
                self.assertIn(result.returncode, (1, 3), result.stderr)
                error = json.loads(result.stderr.splitlines()[-1])["error"]
                self.assertIn(words, error["message"])
                self.assertIn("nothing was written", error["state"])
                self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])
        write_package(self.packages / "old.zip", describe(good, "emmc", "V0.9"), good)
        result, operations = self.install("old.zip", "--allow-downgrade", "--dry-run")
        self.assertEqual((result.returncode, [op for op in operations if op[1] == "pwrite"]), (0, []))
        self.assertEqual(self.install("old.zip", "--allow-downgrade")[0].returncode, 0)

    def test_a_damaged_package_is_never_installed_as_good(self):
        self.new("emmc")
        good = images(3, boot=3000, system=9000)
        path = write_package(self.packages / "good.zip", describe(good, "emmc"), good)
        whole = path.read_bytes()
        for at in range(0, len(whole), len(whole) // 24):
            with self.subTest(at=at):
                damaged = bytearray(whole)
                damaged[at] ^= 0x41
                (self.packages / "bad.zip").write_bytes(damaged)
                result, _ = self.install("bad.zip", "--force")
                if self.board().slot_block().best() == 1:
                    self.assertTrue(result.returncode == 0 and self.holds(good, 1), result.stderr)
                    self.assertEqual(self.tessera("slots", "set-next", "a").returncode, 0)
                else:
                    self.assertNotEqual(result.returncode, 0)

    def test_two_installs_at_once(self):
        self.new("emmc")
        good = images(1)
        write_package(self.packages / "p.zip", describe(good, "emmc"), good)
        install = f"tessera install -q {self.packages}/p.zip"
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
            write_package(self.packages / "p.zip", describe(good, medium), good)
            self.keep_copy()
            _, operations = self.install("p.zip")
            writes = [op for op in operations if op[1] == "pwrite"]
            images_begin = next(at for at, op in enumerate(writes, 1) if op[0].endswith(("10", "11")))
            for number in (images_begin, images_begin + 1, len(writes) // 2, len(writes) - 4):
                with self.subTest(medium=medium, number=number):
                    self.back_to_copy()
                    result, operations = self.journal("install", f"{self.packages}/p.zip", "--json",
                                                      env={"TESSERA_FLASH_FAULT": f"raise pwrite {number} 2"})
                    self.assertEqual(result.returncode, 130, result.stderr)
                    error = json.loads(result.stderr.splitlines()[-1])["error"]
                    self.assertIn("slot a next, and slot b is unbootable", error["state"])
                    further = sum(int(op[2].split("+")[1]) for op in operations if op[1] == "pwrite") - \
                        sum(int(op[2].split("+")[1]) for op in writes[:number])
                    self.assertLessEqual(further, 10 << 20)  # no more than what was in hand
                    self.assertEqual(self.board().slot_block().best(), 0)
                    self.assertIn("has not ended", self.tessera("status").stdout)
                    self.assertEqual(self.install("p.zip")[0].returncode, 0)
                    self.assertTrue(self.holds(good, 1) and self.board().slot_block().best() == 1)

    def test_every_line_is_json_and_the_share_tells_the_truth(self):
        self.new("nand")
        good, words = images(1), ["--progress", "json", "-v"]
        write_package(self.packages / "p.zip", describe(good, "nand"), good)
        write_package(self.packages / "wrong.zip", describe(good, "nand", ""), good)
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
            self.run_on_board("mkdir", "-p", "/userdata/out")
            result = self.tessera("pack", f"{here}/draft.json", str(here), "-o", "/userdata/out/p.zip", *words)
            self.assertEqual(result.returncode, 0, result.stderr)
            result, operations = self.journal("install", "/userdata/out/p.zip", "--trust", f"{here}/ours.pem")
            with self.subTest(signer=signer):
                self.assertEqual(result.returncode, 0 if signer == "good" else 3, result.stderr)
                if signer != "good":
                    self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])

    def test_a_device_that_fails(self):
        good = images(1)
        rules = (("emmc", "fail pwrite 4"), ("nand", "fail MEMERASE64 4"), ("ubi", "fail pwrite 4"),
                 ("emmc", "lose pwrite 4"), ("nor", "lose pwrite 4"), ("nand", "lose pwrite 4"))
        for medium, rule in rules:
            with self.subTest(medium=medium, rule=rule):
                self.setUp()
                self.new(medium)
                write_package(self.packages / "p.zip", describe(good, medium), good)
                result = self.tessera("install", f"{self.packages}/p.zip", env={"TESSERA_FLASH_FAULT": rule})
                self.assertEqual(result.returncode, 4, result.stderr)
                self.assertEqual(self.board().slot_block().best(), 0)
                self.assertIn("slot a", result.stderr)
                self.assertEqual(self.tessera("install", f"{self.packages}/p.zip").returncode, 0)

    def test_bad_input_of_every_verb(self):
        self.new("emmc")
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
        ]
        for line, status, word in cases:
            with self.subTest(line=line):
                result, operations = self.journal(*line.split(), "--json")
                self.assertEqual(result.returncode, status, result.stderr)
                error = json.loads(result.stderr)["error"]
                self.assertEqual(error["code"], status)
                self.assertIn(word, error["message"])
                self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])
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
        contents = images(1)
        write_package(self.packages / "p.zip", describe(contents, "emmc"), contents)
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
                    self.assertIn("checksum", self.install("p.zip")[0].stderr)
                shown = json.loads(self.tessera("slots", "--json").stdout)["slots"]
                self.assertEqual([slot["state"] for slot in shown[:2]], states)
                result, operations = self.journal("rollback")
                self.assertEqual(result.returncode, 1 if reason else 0, result.stderr)
                self.assertIn(reason, result.stderr)
                if reason:
                    self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])
                self.assertEqual(self.tessera("confirm").returncode, 0)
                self.assertTrue(self.board().slot_block().slots[0].marked)
                again, operations = self.journal("confirm")
                self.assertIn("already", again.stdout)
                self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])

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


bench_board.main()
