#!/usr/bin/env python3
"""Runs inject_slots under the injector, in an empty folder: slots_test.py --program PROGRAM --injector LIBRARY"""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "service"))
from mocked_manager import running_manager  # noqa: E402  # in tests/service
from tool import linked  # noqa: E402  # in tests/support

parser = argparse.ArgumentParser()
parser.add_argument("--program", type=pathlib.Path, required=True)
parser.add_argument("--injector", type=pathlib.Path, required=True)
options = parser.parse_args()
with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as links, running_manager() as manager:
    environment = {"PATH": os.defpath, "LC_ALL": "C", "LD_PRELOAD": str(linked(options.injector, links)),
                   "DBUS_SYSTEM_BUS_ADDRESS": manager.bus.address}
    sys.exit(subprocess.run([options.program.resolve(), folder], env=environment).returncode)
