"""What the tests of the packages for Linux share: the packages, made once, and the place of their parts."""

import argparse
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "packages"), str(SOURCE / "tests/support")]

# Under ./test all, the packages are compiled as they ship, and tried in more systems.
WHOLE = bool(os.environ.get("QOR_TEST_WHOLE"))
TIME = 1700000000

options = None


def pack(kind, *words, **environment):
    """Runs a script that makes packages."""
    variables = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
    variables |= {"SOURCE_DATE_EPOCH": str(TIME)} | environment
    return subprocess.run([sys.executable, SOURCE / "packages" / kind / "pack.py", *map(str, words)], env=variables,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          stdin=subprocess.DEVNULL, timeout=3600)


def pack_tar(out, build=None, **environment):
    return pack("tar", "--build", build or options.build, "--version", options.version, "--cmake", options.cmake,
                "--out", out, **environment)


def pack_debian(work, out, **environment):
    """Without compiling: the packages get the files of this build."""
    return pack("debian", "--build", options.build, "--work", work, "--out", out, **environment)


def tar():
    path, = options.packages.glob(f"qor-{options.version}-linux-*.tar.gz")
    return path


def debian(name=None):
    """Returns the paths of the packages for Debian by their names, or that of one of them."""
    found = {path.name.split("_")[0]: path for path in sorted(options.packages.glob("*.deb"))}
    return found[name] if name else found


def field(package, name):
    return subprocess.check_output(["dpkg-deb", "--field", package, name], text=True).strip()


class InFolder(unittest.TestCase):
    """Tests with a folder of their own."""
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name).resolve()


def main():
    """Runs the tests of the calling script. The exit code is 77 if the system does not permit any of them."""
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--packages", type=Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--ninja", required=True)
    parser.add_argument("--compiler", required=True)
    options = parser.parse_args()
    options.build, options.packages = options.build.resolve(), options.packages.resolve()
    tests = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    result = unittest.TextTestRunner(verbosity=2).run(tests)
    if not result.wasSuccessful():
        return 1
    return 77 if len(result.skipped) >= max(result.testsRun, 1) else 0
