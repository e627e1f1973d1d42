#!/usr/bin/env python3
"""Functions of Windows whose texts have the encoding of the system's code page, which lacks most characters: no object
of the library, of its modules or of the programs may call one, or look it up by its name. The file narrow_calls beside
this one lists what is allowed, with its reason.

    narrow_calls_test.py --build FOLDER --nm PROGRAM [--partly]

--partly: objects that are not built yet are left out.
"""

import argparse
import json
import re
import shlex
import struct
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
TREE = HERE.parent.parent
PARTS = ("qorcore", "util", "examples")

# What ends in a capital A after a small letter or a digit has a wide twin. A name in capitals, such as ZSTD_..., is none.
ANSI = re.compile(r"[A-Za-z][A-Za-z0-9]*[a-z0-9]A")

# Functions that do not tell it by their names: those of sockets, files and the environment in the libraries of C and C++,
# and the C++ library's texts for the system's errors.
OF_SYSTEM = {
    "getaddrinfo", "freeaddrinfo", "getnameinfo", "gethostname", "gethostbyname", "gethostbyaddr", "getservbyname",
    "getservbyport", "getprotobyname", "inet_addr", "inet_ntoa", "inet_ntop", "inet_pton", "WinExec", "_lopen",
    "OpenFile", "LoadModule",
}
OF_LIBRARIES = {
    "fopen", "fopen64", "fopen_s", "freopen", "_fsopen", "open", "_open", "_sopen", "_sopen_s", "creat", "_creat",
    "remove", "rename", "unlink", "_unlink", "mkdir", "_mkdir", "rmdir", "_rmdir", "chdir", "_chdir", "getcwd",
    "_getcwd", "access", "_access", "chmod", "_chmod", "stat", "_stat", "_stat64", "_stati64", "_stat32", "_stat64i32",
    "_findfirst", "_findfirst64", "_fullpath", "tmpnam", "_tempnam", "opendir", "system", "_popen", "popen", "_spawnv",
    "_spawnl", "_spawnvp", "_execv", "_execvp", "dlopen", "getenv", "getenv_s", "_putenv", "putenv", "_putenv_s",
    "_ZNSt3_V215system_categoryEv",
}
OPENS_BY_NARROW_NAME = "_ZNSt13basic_filebufIcSt11char_traitsIcEE4openEPKc"
CALLED = re.compile(r"(?:__imp_)?(\w+)")


def is_narrow(name):
    return name in OF_SYSTEM or ANSI.fullmatch(name) is not None


def is_narrow_call(name):
    return is_narrow(name) or name in OF_LIBRARIES or name.startswith(OPENS_BY_NARROW_NAME)


def objects(build):
    """Returns {object: source} of what ships."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        source = Path(entry["file"])
        if not source.is_relative_to(TREE) or source.relative_to(TREE).parts[0] not in PARTS:
            continue
        words = shlex.split(entry["command"])
        found[Path(entry["directory"]) / words[words.index("-o") + 1]] = source.relative_to(TREE).as_posix()
    return found


def calls(nm, paths):
    """Yields (object, function) for each function that an object does not define itself."""
    for begin in range(0, len(paths), 200):
        command = [nm, "-A", "-P", "-u", *map(str, paths[begin:begin + 200])]
        for line in subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout.splitlines():
            path, _, rest = line.partition(": ")
            yield Path(path), CALLED.fullmatch(rest.split()[0])[1]


def looked_up(path):
    """Yields the names among the texts of an object: such a function is found by its name."""
    data = path.read_bytes()
    machine, count = struct.unpack_from("<HH", data)
    assert machine == 0x8664, f"{path}: not an object for x86-64"
    optional, = struct.unpack_from("<H", data, 16)
    for at in range(20 + optional, 20 + optional + 40 * count, 40):
        name, size, begin = data[at:at + 8], *struct.unpack_from("<II", data, at + 16)
        if begin != 0 and name.startswith((b".rdata", b".data")):
            for text in re.findall(rb"(?<![\x01-\xff])[A-Za-z_]\w+(?=\0)", b"\0" + data[begin:begin + size]):
                yield text.decode()


def allowed():
    """Returns {(function, source): reason}."""
    rows = {}
    for line in (HERE / "narrow_calls").read_text().splitlines():
        if line and not line.startswith("#"):
            function, source, reason = line.split(maxsplit=2)
            rows[function, source] = reason
    return rows


def main():
    parser = argparse.ArgumentParser(description="No function with texts in the system's code page.")
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--nm", required=True)
    parser.add_argument("--partly", action="store_true")
    options = parser.parse_args()
    sources = objects(options.build)
    wrong = [] if options.partly else [f"{source} is not built" for path, source in sources.items() if not path.exists()]
    paths = [path for path in sources if path.exists()]
    assert len(paths) > 100, "here are too few objects"
    called = {(function, sources[path]) for path, function in calls(options.nm, paths)}
    wide = sum(function.endswith("W") for function, _ in called)
    assert wide > 100, f"only {wide} calls of wide functions: the objects are not understood"
    named = {(name, sources[path]) for path in paths for name in looked_up(path)}
    assert ("GetAddrInfoW", "qorcore/src/net/winsock_windows.cpp") in named, "names of functions are not found"
    narrow = {each for each in called if is_narrow_call(each[0])} | {each for each in named if is_narrow(each[0])}
    rows = allowed()
    for each, reason in rows.items():
        print(*each, reason)
    wrong += [f"{source} uses {function}" for function, source in sorted(narrow - rows.keys())]
    if not options.partly:
        wrong += [f"{source} does not use {function} any more" for function, source in sorted(rows.keys() - narrow)]
    print("\n".join([*wrong, f"{len(paths)} objects"]))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
