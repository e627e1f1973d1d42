#!/usr/bin/env python3
"""Tests of golden.py itself: a runner that accepted a wrong byte would hide every other fault."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

RUNNER = Path(__file__).resolve().parent / "golden.py"

# Prints its words, its input and a file, on both streams and with odd bytes; --quiet suppresses the greeting.
TOOL = r"""#!/bin/sh
if [ "$1" = --quiet ]; then shift; else echo Hello 2>/dev/null; fi
case $1 in
    bytes)
        printf '20\r40\r\ntab\tblank \n\377 \303\251 \\ $HOME $TMP\n== no section\n$GREETING\n'
        printf '%s/x %s\nno end' "$PWD" "$0"
        ;;
    env) env | grep -v -e ^PWD= -e ^_= -e ^SHLVL= -e ^OLDPWD= -e SAN_OPTIONS= | sort ;;
    cat) shift; cat -- "$@" ;;
    words) shift; printf '[%s]\n' "$@" ;;
    fail) echo oops >&2; exit 3 ;;
    write) echo x 2>/dev/null || { echo lost >&2; exit 1; } ;;
    slain) kill -9 $$ ;;
esac
"""

GOOD = r"""# Every kind of byte.
args: bytes
exit: 0
== stdout
$GREETING
20\r40\r
tab\tblank\x20
\xff é \\ $HOME \x24TMP
\x3d= no section
\x24GREETING
$TMP/x $TOOL_DIR/tool
no end\
"""


HI = "args: hi\nexit: 0\n"


class GoldenTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(os.path.realpath(folder.name))
        self.tool = self.folder / "tool"
        self.tool.write_text(TOOL)
        self.tool.chmod(0o755)
        (self.folder / "cases" / "g").mkdir(parents=True)
        (self.folder / "cases" / "names").write_text("# what the tool says first\nGREETING Hello\n")

    def path(self, name):
        return self.folder / "cases" / "g" / (name + ".case")

    def golden(self, *words, **cases):
        for name, text in cases.items():
            self.path(name).write_text(text, encoding="utf-8")
        command = [sys.executable, RUNNER, "--tool", self.tool, "--cases", self.folder / "cases", *words]
        done = subprocess.run(command, capture_output=True, check=False)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def assert_passes(self, text):
        self.assertEqual(self.golden(one=text), (0, "1 cases passed\n", ""))

    def assert_fails(self, text, *reasons):
        code, out, _ = self.golden(one=text)
        self.assertEqual(code, 1, out)
        self.assertTrue(out.endswith("0 cases passed, 1 failed\n"), out)
        for reason in reasons:
            self.assertIn(reason, out)

    def test_right_bytes_pass(self):
        self.assert_passes(GOOD)

    def test_every_wrong_byte_is_found(self):
        head, lines = GOOD.split("$GREETING\n")
        for i, line in enumerate(lines.splitlines()):
            wrong = lines.splitlines()
            wrong[i] = line.replace("\\\\", "/") if "\\\\" in line else line[1:]
            with self.subTest(line=line):
                text = head + "$GREETING\n" + "\n".join(wrong) + "\n"
                self.assert_fails(text, "--- g/one: stdout", "\n-", "\n+")

    def test_missing_and_unexpected_line_ends_are_found(self):
        self.assert_fails(GOOD.replace("no end\\\n", "no end\n"), "-no end\n+no end\\\n")
        self.assert_fails(GOOD.replace("40\\r\n", "40\n"), "-20\\r40\n+20\\r40\\r\n")
        self.assert_fails(GOOD.replace("40\\r\n", "40\\r\\\n"))
        self.assert_fails(HI + "== stdout\nHello\\\n== quiet stdout\n", "-Hello\\\n+$GREETING\n")

    def test_missing_and_unexpected_output_is_found(self):
        self.assert_fails("args: fail\nexit: 3\n== stdout\n$GREETING\n", "--- g/one: stderr", "+oops")
        self.assert_fails(HI + "== stdout\n$GREETING\n== stderr\noops\n", "--- g/one: stderr", "-oops")
        self.assert_fails(HI + "== stdout\nHallo\n== quiet stdout\n", "-Hallo\n+$GREETING\n")

    def test_wrong_exit_code_is_found(self):
        fail = "args: fail\nexit: {}\n== stdout\n$GREETING\n== stderr\noops\n"
        self.assert_passes(fail.format(3))
        self.assert_fails(fail.format(0), "--- g/one: exit", "-0\n+3\n")
        self.assert_fails(fail.format("3\nquiet-exit: 0"), "--- g/one with --quiet: exit")
        self.assert_passes("args: slain\nexit: -9\n== stdout\n$GREETING\n")

    def test_quiet_run_is_compared_too(self):
        self.assert_fails(HI + "== stdout\nHello\n", "--- g/one with --quiet: stdout", "\n-Hello\n")
        self.assert_passes(HI + "== stdout\nHello\n== quiet stdout\n")
        self.assert_passes(HI + "quiet: none\n== stdout\nHello\n")

    def test_input_words_and_environment_reach_the_tool(self):
        self.assert_passes(
            "args: cat - 'a b/c' $TMP/d\nexit: 0\n== stdin\nin\\\n"
            "== file a b/c\n\\x00\\xfe\n\\*8..12/2 {i} {i:03x}\n== file d\n== dir e\n"
            "== stdout\n$GREETING\nin\\x00\\xfe\n8 008\n10 00a\n12 00c\n"
        )
        self.assert_passes(
            "args: words '' 'a b' $TMP '\\xff\\\\' --quiet\nexit: 0\n== stdout\n$GREETING\n"
            "[]\n[a b]\n[$TMP]\n[\\xff\\\\]\n[--quiet]\n"
        )
        os.environ["GOLDEN_LEAK"] = "1"
        self.addCleanup(os.environ.pop, "GOLDEN_LEAK")
        self.assert_passes(
            f"args: env\nenv: LANGUAGE=de\nenv: X=a=b\nexit: 0\n== stdout\n$GREETING\n"
            f"LANGUAGE=de\nLC_ALL=C\nPATH={os.defpath}\nX=a=b\n"
        )

    def test_both_streams_in_one_place(self):
        self.assert_passes("args: fail\nexit: 3\nstderr: stdout\n== stdout\n$GREETING\noops\n")
        self.assert_fails("args: fail\nexit: 3\nstderr: stdout\n== stdout\noops\n$GREETING\n", "+$GREETING")

    def test_output_that_cannot_be_written(self):
        self.assert_passes("args: write\nexit: 1\nstdout: full\n== stderr\nlost\n")
        self.assert_fails(HI + "stdout: shut\n== stdout\n$GREETING\n", "-$GREETING")

    def test_no_case_is_a_failure(self):
        self.assertEqual(self.golden()[:2], (1, "0 cases passed\n"))
        self.assertEqual(self.golden("nosuch", one=GOOD)[0], 2)
        self.assertEqual(self.golden("g/two", one=GOOD)[0], 2)

    def test_chosen_cases(self):
        other = "args: fail\nexit: 0\n"
        self.assertEqual(self.golden("g/one", one=GOOD, two=other)[:2], (0, "1 cases passed\n"))
        self.assertEqual(self.golden("g")[0], 1)
        self.assertEqual(self.golden("--list"), (0, "g/one\ng/two\n", ""))

    def test_broken_case_files_are_failures(self):
        for text in (
            "exit: 0\n",
            "args: hi\n",
            HI + "exit: 0\n",
            HI + "quiet: own\n",
            HI + "stdout: lost\n",
            HI + "hello\n",
            HI + "== output\n",
            HI + "== stdout\n== stdout\n",
            HI + "== stdout\n\\q\n",
            HI + "== stdout\nHello",
            "args: 'hi\nexit: 0\n",
        ):
            with self.subTest(text=text):
                self.assert_fails(text, "--- g/one: ")

    def test_update_writes_what_was_printed_and_nothing_else(self):
        comment = GOOD.split("exit:")[0]
        for start in (comment + "exit: 7\n", GOOD.replace("20", "30").replace("exit: 0", "exit: 1"), GOOD):
            with self.subTest(start=start):
                self.assertEqual(self.golden("--update", one=start)[0], 0)
                self.assertEqual(self.path("one").read_text(encoding="utf-8"), GOOD)
        quiet = "args: hi\nquiet-exit: 0\nexit: 0\n== stdin\nx\n== stdout\nHello\n== quiet stdout\n"
        self.assertEqual(self.golden("--update", one=quiet), (0, "1 cases passed\n", ""))
        self.assertEqual(self.path("one").read_text(), quiet)


if __name__ == "__main__":
    unittest.main()
