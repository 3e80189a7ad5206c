"""The example of the README, compiled as a user would and run on the simulated board."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import zipfile

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
SANITIZE = [f"-fsanitize={names}" for names in [os.environ.get("SANITIZE")] if names]


class ReadmeTest(unittest.TestCase):
    def test_the_example_updates_a_board(self):
        source = re.search(r"```c\n(.*?)```", (TOP / "README.md").read_text(), re.DOTALL)[1]
        image = bytes(range(256)) * 1000
        with tempfile.TemporaryDirectory() as place:
            os.chdir(place)
            with zipfile.ZipFile("update.zip", "w", zipfile.ZIP_DEFLATED) as package:
                package.writestr("system.img", image)
            headers = [f"-I{TOP / part}" for part in ("include", "src/inc", "src/common")]
            libraries = [f"-L{BUILD / 'src'}", "-ltessera"]
            libraries += [f"-Wl,-rpath-link,{BUILD / 'platform' / part}" for part in ("liblog", "efuse")]
            flags = ["-std=gnu11", "-Wall", "-Wextra", "-Werror", *SANITIZE]
            subprocess.run(
                ["gcc", *flags, *headers, "-x", "c", "-", "-o", "example", *libraries], input=source, text=True, check=True
            )
            board = [TOP / "simulator" / "board"]
            subprocess.run([*board, "new", "board"], check=True)
            subprocess.run([*board, "run", "board", "--", "./example"], check=True, stdout=subprocess.DEVNULL)
            self.assertEqual(pathlib.Path("board/partitions/system_b").read_bytes()[: len(image)], image)
            boot = subprocess.run([*board, "reboot", "board"], check=True, capture_output=True, text=True).stdout
            self.assertRegex(boot, "^slot b boots")


if __name__ == "__main__":
    unittest.main()
