"""What the tests of the packages for Windows share: the packages, made once, and the place of their parts."""

import argparse
import os
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
PACK = SOURCE / "packages/windows/pack.py"

sys.path.append("/usr/lib/python3/dist-packages")  # a Python of its own may lack what Debian's has
sys.path += [str(SOURCE / "packages"), str(SOURCE / "packages/windows")]

options = None


def pack(out, **environment):
    """Makes the packages in the folder `out`."""
    variables = {name: value for name, value in os.environ.items() if name not in ("QOR_SIGN", "SOURCE_DATE_EPOCH")}
    variables |= {"SOURCE_DATE_EPOCH": "1700000000"} | environment
    words = [sys.executable, PACK, "--build", options.build, "--version", options.version, "--cmake", options.cmake,
             "--out", out]
    return subprocess.run(words, env=variables, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=300)


def package(kind):
    """Returns the path of a package: ".zip", "-debug.zip" or "-setup.exe"."""
    return options.packages / f"qor-{options.version}-windows-x86_64{kind}"


def unpack(kind, folder):
    """Unpacks a zip, and returns the path of its only folder."""
    with zipfile.ZipFile(package(kind)) as archive:
        archive.extractall(folder)
    return Path(folder) / f"qor-{options.version}"


class Unpacked(unittest.TestCase):
    """Tests that look at the files of the zip."""
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        cls.addClassCleanup(folder.cleanup)
        cls.root = unpack(".zip", folder.name)

    def ours(self):
        """The programs and libraries that are ours."""
        paths = [*self.root.glob("bin/*.exe"), *self.root.glob("bin/*.dll"), *self.root.glob("bin/qor/*.dll")]
        return sorted(path for path in paths if path.name not in ("zlib1.dll", "libzstd.dll"))


def main(*arguments):
    """Runs the tests of the calling script. ARGUMENTS are the names of further options."""
    global options
    parser = argparse.ArgumentParser()
    for name in ("build", "packages", "version", "cmake", *arguments):
        parser.add_argument(f"--{name}", required=True)
    options = parser.parse_args()
    options.build, options.packages = Path(options.build).resolve(), Path(options.packages).resolve()
    tests = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    return 0 if unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful() else 1
