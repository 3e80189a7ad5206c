# SPDX-License-Identifier: Apache-2.0
"""The pages that show whole sessions: each command is run again, and what it prints is compared."""

import os
import pathlib
import re
import runpy
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
VARYING = [  # digests, times, numbers of device operations, and where the build is
    (r"\b[0-9a-f]{32,64}\b", "DIGEST"), (r"in [\d.]+ s \([\d.]+ [KM]iB/s\)", "in TIME"),
    (r"\b(write|operation) \d+\b", r"\1 N"), (rf"{BUILD}/demo/", "build/demo/"),
]


def stable(text):
    for pattern, word in VARYING:
        text = re.sub(pattern, word, text)
    return text


def blocks(page):
    """@return (language, text) of each session and each file that a page shows"""
    return re.findall(r"(?ms)^```(console|json)\n(.*?)\n```$", (TOP / "docs" / page).read_text())


class SessionsTest(unittest.TestCase):
    maxDiff = None

    def test_the_story_and_the_picture_show_the_demo(self):
        picture = runpy.run_path(str(TOP / "script" / "picture"))
        demo = subprocess.run([TOP / "script" / "demo"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False)
        self.assertEqual(demo.returncode, 0, demo.stdout)
        story = picture["chapters"](stable(demo.stdout))
        shown = [stable(block).splitlines() for _, block in blocks("story.md")]
        self.assertEqual(shown, story, "run script/picture")
        drawn = picture["draw"](picture["essence"](story))
        self.assertEqual(stable((TOP / "docs" / "demo.svg").read_text()), drawn, "run script/picture")
        self.assertLessEqual(drawn.count("<text "), 40)
        self.check_the_campaign_of_the_readme()

    def check_the_campaign_of_the_readme(self):
        """On the demo's board, with fewer cuts: the operations, the number of all cuts and their kinds are the same."""
        session = re.search(r"\$ (simulator/board cut .*)\n((?s:.*?))\n```", (TOP / "README.md").read_text())
        command, shown = session.groups()
        run = command.replace("build/demo", f"{BUILD}/demo").replace("--quiet", "--quiet --every 40")
        result = subprocess.run(["bash", "-c", run], cwd=TOP, stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)
        first, *rows = shown.splitlines()
        self.assertEqual(first, result.stdout.splitlines()[0])
        self.assertEqual([row[:32] for row in rows[:-1]], [row[:32] for row in result.stdout.splitlines()[1:-1]])
        total = re.search(r"(\d+) power cuts", first)[1]
        self.assertRegex(result.stdout, rf"passed: after each of \d+ of {total} power cuts")
        self.assertIn(f"passed: after each of {total} power cuts", rows[-1])

    def test_the_tutorial(self):
        place = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        (place / "build").mkdir()
        for name, target in {"build/release": BUILD, "simulator": TOP / "simulator", "script": TOP / "script"}.items():
            (place / name).symlink_to(target)
        commands = 0
        for language, block in blocks("tutorial.md"):
            if language == "json":
                (place / "build" / "tutorial" / "draft.json").write_text(block)
                continue
            for command, _, shown in (part.partition("\n") for part in re.split(r"^\$ ", block, flags=re.M)[1:]):
                commands += 1
                with self.subTest(command):
                    self.compare(command, shown, place)
        self.assertGreater(commands, 20)

    def compare(self, command, shown, place):
        configure = f"cmake --preset release -S {TOP} -B configured -DTESSERA_TESTS=OFF"
        run = command.replace("cmake --preset release", configure)
        run = run.replace("--build --preset release", f"--build {BUILD}")
        result = subprocess.run(["bash", "-c", run], cwd=place, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)
        if not command.startswith(("cmake", "openssl")):
            self.assertEqual(stable(result.stdout.rstrip("\n")), stable(shown.rstrip("\n")))


if __name__ == "__main__":
    unittest.main()
