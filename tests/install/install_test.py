# SPDX-License-Identifier: Apache-2.0
"""`tessera install`, and what all verbs share, end to end on the simulated board."""

import json
import os
import struct
import subprocess
import unittest
import zipfile

from bench_board import MEDIA, BoardCase, describe, error_of, images, slots


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

    def test_off_a_board_and_with_stand_ins(self):
        self.new()
        items = json.loads(self.expect("board --check --json", 0).stdout)["items"]
        self.assertEqual({item["item"] for item in items if not item["ok"]}, {"log library", "eFuse library"})
        self.assertEqual(self.expect("board --check", 0).stdout.count("\nstand-in "), 2)
        (self.dir / "cmdline").write_text("quiet\n")
        self.assertEqual(error_of(self.expect("board --json", 1))["hint"], "tessera board --check")

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

    def test_a_flash_command_is_kept(self):
        self.new()
        record = struct.pack("<3LL", 0x46434D44, 0, 0, 4096).ljust(2272, b"\1")
        (self.dir / "velox" / "share" / "ota" / "misc_write_cmd").write_bytes(record)
        self.expect("flashcmd misc_write_cmd", 0, "misc_write_cmd written")
        with open(self.board().backing(self.board().device("flashcmd")), "r+b") as node:
            node.truncate(3072)
        self.expect("flashcmd misc_write_cmd", 4, "did not persist in flashcmd")


unittest.main(warnings="ignore")  # about two entries of a name
