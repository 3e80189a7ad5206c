"""`tessera install` and what surrounds it, end to end on the simulated board."""

import json
import subprocess

import bench_board
from bench_board import MUTATIONS, BoardCase, describe, images, write_package


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
        cases = [  # description, contents, options, words in the error
            (None, good, [], "update.json"),
            ("{", good, [], "update.json"),
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
        for number, (description, contents, options, words) in enumerate(cases):
            with self.subTest(number=number, words=words):
                write_package(self.packages / "p.zip", description, contents)
                result, operations = self.install("p.zip", "--json", *options)
                self.assertIn(result.returncode, (1, 3), result.stderr)
                self.assertIn(words, json.loads(result.stderr.splitlines()[-1] if result.stderr.count("\n") == 1
                                                else result.stderr)["error"]["message"])
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

    def test_one_update_at_a_time(self):
        self.new("emmc")
        good = images(1)
        write_package(self.packages / "p.zip", describe(good, "emmc"), good)
        result = self.run_on_board("sh", "-c", "exec 9>/tmp/tessera.lock; flock 9; "
                                   f"tessera install {self.packages}/p.zip 9>&-; echo $?")
        self.assertEqual(result.stdout.split()[-1], "1")
        self.assertIn("another", result.stderr)

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
        for medium, rule in (("emmc", "fail pwrite 4"), ("nand", "fail MEMERASE64 4"), ("ubi", "fail pwrite 4")):
            with self.subTest(medium=medium):
                self.setUp()
                self.new(medium)
                write_package(self.packages / "p.zip", describe(good, medium), good)
                result = self.tessera("install", f"{self.packages}/p.zip", env={"TESSERA_FLASH_FAULT": rule})
                self.assertEqual(result.returncode, 4, result.stderr)
                self.assertEqual(self.board().slot_block().best(), 0)
                self.assertIn("slot a", result.stderr)
                self.assertEqual(self.tessera("install", f"{self.packages}/p.zip").returncode, 0)

    def test_bad_input(self):
        self.new("emmc")
        cases = [  # words, status
            (["nonsense"], 2), (["slots", "set-next"], 2), (["slots", "set-next", "9"], 1), (["install"], 2),
            (["install", "/no/such.zip"], (1, 3)), (["install", "/etc/passwd"], (1, 3)), (["--colour"], 2),
            (["rollback"], 1), (["pack"], 2), (["slots", "mark-good", "x"], 1),
        ]
        for words, wanted in cases:
            with self.subTest(words=words):
                result, operations = self.journal(*words)
                self.assertIn(result.returncode, wanted if isinstance(wanted, tuple) else (wanted,))
                self.assertTrue(result.stderr.startswith("tessera: "), result.stderr)
                self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])


bench_board.main()
