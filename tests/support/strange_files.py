"""The kinds of objects that anybody may put in place of a file that a program opens by itself. The program must not
hang on any of them."""

import contextlib
import os
import shutil
import socket

# The pipe with text has a writer that keeps it open, so reading it never ends.
KINDS = ("pipe", "pipe with text", "folder", "device", "socket", "link to itself", "link to nothing")

# The system's error texts for some of them.
REASONS = {"folder": "Is a directory", "link to itself": "Too many levels of symbolic links"}


@contextlib.contextmanager
def strange_file(kind, path, text=b"text\n"):
    """Puts one of these kinds at the path; an existing file is restored afterwards."""
    kept = path.with_name(path.name + ".kept")
    if path.exists():
        path.rename(kept)
    with contextlib.ExitStack() as stack:
        if kind in ("pipe", "pipe with text"):
            os.mkfifo(path)
        if kind == "pipe with text":
            end = os.open(path, os.O_RDWR | os.O_NONBLOCK)
            stack.callback(os.close, end)
            os.write(end, text[:4096])
        elif kind == "folder":
            path.mkdir()
        elif kind == "device":
            path.symlink_to("/dev/zero")
        elif kind == "socket":
            listener = stack.enter_context(socket.socket(socket.AF_UNIX))
            # The system accepts only short paths here.
            folder = os.open(path.parent, os.O_PATH | os.O_DIRECTORY)
            stack.callback(os.close, folder)
            listener.bind(f"/proc/self/fd/{folder}/{path.name}")
        elif kind == "link to itself":
            path.symlink_to(path.name)
        elif kind == "link to nothing":
            path.symlink_to("there-is-no-such-file")
        try:
            yield
        finally:
            if kind == "folder":
                shutil.rmtree(path)
            else:
                path.unlink()
            if kept.exists():
                kept.rename(path)
