"""What the programs say about themselves, and where their pages are."""

import os
import re
import subprocess
from typing import NamedTuple


class Row(NamedTuple):
    name: str
    syntax: str
    description: str


def rows_of_help(program):
    """Returns the lines of a program's help: actions, commands and options."""
    word = "help" if program.name in ("qortool", "qor-debug-user") else "--help"
    environment = {"PATH": os.defpath, "LC_ALL": "C"}
    done = subprocess.run([program, word], capture_output=True, text=True, env=environment, timeout=60)
    text = done.stdout + done.stderr
    found = re.findall(r"^  (\S.*?) {2,}(\S.*)$", text, re.M)
    return [Row(re.split(r"[ =\[]", syntax)[0], syntax, description) for syntax, description in found]


def installed(options, component, prefix):
    """Installs a component of the build and returns the prefix."""
    command = [options.cmake, "--install", options.build, "--component", component, "--prefix", prefix]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return prefix
