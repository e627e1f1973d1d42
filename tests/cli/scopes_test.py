#!/usr/bin/env python3
"""Checks the trace scopes that each action opens.

usage: scopes_test.py --tool PATH [--runner PROGRAM]
"""

import argparse
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from tool import Tool, add_options  # noqa: E402  # in tests/support

# Words that end the action at once, and the scopes in the order in which they are opened.
ACTIONS = {
    "help": ("", ["func_help"]),
    "sysinfo": ("word", ["func_sysinfo"]),
    "netlist": ("word", ["func_netlist"]),
    "pwcrypt": ("", ["func_pwcrypt"]),
    # This action has no scope.
    "ttyinfo": ("", []),
    "list-serial": ("word", ["func_list_serial"]),
    "md5sum": ("", ["func_md5sum"]),
    "lookup": ("", ["func_lookup"]),
    "userinfo": ("", ["func_userinfo"]),
    "timer-check": ("word", ["func_timer_check"]),
    "simd-test": ("word", ["func_simd_test"]),
    "dow": ("", ["func_dow"]),
    "debug-control": ("", ["func_debug_control", "Execute"]),
    "mtrace": ("log.missing", ["func_mtrace", "Execute_MTRACE"]),
    "memcheck": ("", ["func_memcheck", "Execute_MEMCHECK"]),
    "tztest": ("", ["func_tztest"]),
    "path-list": ("", ["func_pathlist"]),
    "logon": ("", ["func_logon"]),
}


class Scopes(unittest.TestCase):
    def traced(self, *words):
        """Returns the lines of a run, without time and process."""
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "trace"
            subprocess.run([*tool.command, "--qor-debug=system.util.qortool,qortool.*", f"--qor-debug-file={file}", *words],
                           cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, env=tool.environment(), timeout=120)
            return [line.split(" ", 2)[2] for line in file.read_text().splitlines()]

    def test_every_action(self):
        for action, (words, scopes) in ACTIONS.items():
            with self.subTest(action):
                lines = self.traced(action, *words.split())
                entered = [line.split(" >>ENTER>> ")[1] for line in lines if ">>ENTER>>" in line]
                self.assertEqual(entered, [name + "()" for name in ["Main", *scopes]])
                # Each scope is left again, in reverse order.
                left = [line.split(" <<LEAVE<< ")[1] for line in lines if "<<LEAVE<<" in line]
                self.assertEqual(left, entered[::-1])

    def test_there_is_no_other_action(self):
        with tempfile.TemporaryDirectory() as folder:
            help_text = subprocess.run([*tool.command, "help"], cwd=folder, capture_output=True, text=True,
                                       env=tool.environment(), timeout=120).stderr
        listed = [line.split()[0] for line in help_text.split("\n\n")[2].splitlines() if line.startswith("  ") and line[2] != " "]
        self.assertEqual(listed, list(ACTIONS))

    def test_the_code_of_each_scope(self):
        lines = self.traced("mtrace", "log.missing")
        self.assertEqual([line for line in lines if ">>ENTER>>" in line],
                         ["system.util.qortool >>ENTER>> Main()", "system.util.qortool >>ENTER>> func_mtrace()",
                          "qortool.mtrace >>ENTER>> Execute_MTRACE()"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_options(parser)
    options, rest = parser.parse_known_args()
    tool = Tool(options.tool, options.runner)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
