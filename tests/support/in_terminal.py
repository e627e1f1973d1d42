#!/usr/bin/env python3
"""Runs a program on a terminal of its own, because some things, such as Ctrl-C, exist only there.

    in_terminal.py PROGRAM WORDS...

Its standard input is the terminal; its output goes to the same places as ours. The exit code is the program's.
"""

import os
import pty
import sys
import threading


def drain(terminal):
    """Reads what the terminal shows, such as typed characters; otherwise it would stop the program at some time."""
    try:
        while os.read(terminal, 65536):
            pass
    except OSError:  # the other side is closed
        pass


def main():
    out, err = os.dup(1), os.dup(2)
    child, terminal = pty.fork()
    if child == 0:
        os.dup2(out, 1)
        os.dup2(err, 2)
        os.execvp(sys.argv[1], sys.argv[1:])
    threading.Thread(target=drain, args=(terminal,), daemon=True).start()
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


if __name__ == "__main__":
    sys.exit(main())
