#!/usr/bin/env python3
"""Checks the machine code of the forwarders and the exports of libqor.

    forwarder_test.py --objdump PROGRAM --object FORWARDERS --expected SLOTS --library LIBQOR

A bound call costs one load of the table's address, one test and one indirect jump through its slot. The arguments stay
in place, so no other instruction may come between, least of all a call that allocates. The code that runs when the
table is not bound yet does not count. On Windows the compiler reserves stack space for that rare case in front, because
exception handling there requires it.
"""

import argparse
import re
import subprocess
import sys
import unittest

options = None

# Arguments of one or two bytes are extended before they are passed on, because the compiler does not rely on the caller
# for that. They stay in the same register.
EXTENSION = re.compile(
    r"^mov[sz][bw]l\s+%(?:([ds])il?,%e\1i|([cd])[lx],%e\2x|(r[89])[bw],%\3d)\n", re.MULTILINE
)

# The path of a bound call as the disassembler prints it. The table's address is in a register that holds no argument.
PATTERN = re.compile(r"""
    (?:endbr64\n)?
    mov\s+0x0\(%rip\),%(rax|r10|r11)\n
    test\s+%\1,%\1\n
    je\s+[0-9a-f]+\s<(?:[^>]*)>\n
    (?:notrack\s)?jmp\s+\*(?:0x(?P<offset>[0-9a-f]+))?\(%\1\)\n
""", re.VERBOSE)


# There the fifth argument is on the stack, and the compiler loads it and stores it again.
WINDOWS_FIFTH = re.compile(
    r"^(?:push|pop)\s+%rbx\n|^mov(?:zbl)?\s+0x[0-9a-f]+\(%rsp\),%[re]bx\n|^mov\s+%(?:[re]bx|bl),0x[0-9a-f]+\(%rsp\)\n",
    re.MULTILINE)

# On Windows the slot is loaded before the stack pointer is restored.
WINDOWS_PATTERN = re.compile(r"""
    sub\s+\$(?P<room>0x[0-9a-f]+),%rsp\n
    mov\s+0x0\(%rip\),%(rax|r10|r11)\n
    test\s+%\2,%\2\n
    je\s+[0-9a-f]+\s<(?:[^>]*)>\n
    mov\s+(?:0x(?P<offset>[0-9a-f]+))?\(%\2\),%(rax|r10|r11)\n
    add\s+\$(?P=room),%rsp\n
    rex.W\sjmp\s\*%\4\n
""", re.VERBOSE)


def is_for_windows():
    return options.library.endswith(".dll")


def functions():
    """Yields (slot number, instructions) for each function of the object."""
    text = subprocess.check_output([options.objdump, "-d", "--no-show-raw-insn", options.object], text=True)
    for number, body in re.findall(r"^[0-9a-f]+ <forward_(\d+)>:\n((?:[^\n]+\n)+)", text, re.MULTILINE):
        lines = [line.split("\t", 1)[1] for line in body.splitlines() if "\t" in line]
        yield int(number), "".join(re.sub(r"\s*#.*", "", line).strip() + "\n" for line in lines)


class Forwarders(unittest.TestCase):
    def test_each_is_a_load_a_test_and_a_jump_through_its_slot(self):
        seen = []
        for number, instructions in functions():
            with self.subTest(slot=number):
                kept = EXTENSION.sub("", instructions)
                if is_for_windows():
                    match = WINDOWS_PATTERN.match(WINDOWS_FIFTH.sub("", kept))
                else:
                    match = PATTERN.match(kept)
                self.assertTrue(match, instructions)
                self.assertEqual(int(match["offset"] or "0", 16), number * 8)
            seen.append(number)
        with open(options.expected, encoding="utf-8") as listing:
            written = [int(line.split()[0]) for line in listing if line.split()[1] == "slot"]
        self.assertEqual(sorted(seen), written)
        self.assertGreater(len(seen), 100)

    def test_libqor_exports_one_symbol(self):
        if is_for_windows():
            listing = subprocess.check_output([options.objdump, "-p", options.library], text=True)
            names = re.search(r"\[Ordinal/Name Pointer\] Table\n((?:\s+\[.*\n)*)", listing)[1]
            symbols = re.findall(r"\] (\S+)$", names, re.MULTILINE)
        else:
            listing = subprocess.check_output(["nm", "-D", "--defined-only", "--format=posix", options.library],
                                              text=True)
            symbols = [line.split()[0] for line in listing.splitlines()]
        self.assertEqual(symbols, ["glue_binding_point"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("objdump", "object", "expected", "library"):
        parser.add_argument(f"--{name}", required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
