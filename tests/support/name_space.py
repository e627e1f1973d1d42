"""Runs with replaced system files, which no other process sees."""

import shutil
import subprocess


def name_space():
    """Returns the words that start a program in a name space where it may mount, or None."""
    for command in (["unshare", "-m"], ["unshare", "-r", "-m"]):
        trial = [*command, "mount", "--bind", "/", "/"]
        if shutil.which("unshare") and subprocess.run(trial, capture_output=True).returncode == 0:
            return command
    return None
