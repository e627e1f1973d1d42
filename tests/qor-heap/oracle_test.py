#!/usr/bin/env python3
"""Compares the profiles of generated logs with a plain implementation.

    oracle_test.py --dump PROGRAM [--count N] [--seed S] [--keep FOLDER]
"""

import argparse
import gzip
import json
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile

import plain_profile
from plain_profile import Block, Place
from stacks_writer import StacksWriter

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "record"))
import stacks_file  # noqa: E402  # in tests/record

MODULES = [(b"/bin/app", b"\x01\x02\x03"), (b"/lib/libc.so.6", b"\xff\x00\x10"), (b"", b"vdso"), (b"/lib/x y.so", b"")]
FILES = [b"src/foo", b"a\\b.c", b"\xe6\xbc\xa2.cpp", b"%d%s.c"]
TYPES = [b"Widget", b"ns::Box<int,8>", b"char[12]", b"T\xfft"]
FOREIGN = [b"app", b"[0x7ff0]", b"lib(f+0x1)[0x7f00]", b"caf\xc3\xa9:[0x1]", b"lib(+0x12)[0x7f12]", b":[0x1]", b"a:(f+1)[0x9]"]
BLOCK_TYPES = [0, 0, 0, 1, 3]


class Recording:
    """A generated recording: its logs, and its profile by the plain implementation."""

    def __init__(self, seed, folder):
        rng = self.rng = random.Random(seed)
        self.kind = rng.choice(["mtrace", "stacks", "stacks", "stacks", "joined", "both", "memcheck"])
        self.mtrace, self.memcheck = [], []
        self.writer = StacksWriter(pid=7, parent=rng.choice([0, 5]), start=1000, path=b"/bin/app")
        self.modules = [self.writer.module(base, base, base + 4096, path, build_id)
                        for base, (path, build_id) in enumerate(MODULES, 1)]
        self.leaves_out = rng.random() < 0.3
        steps = rng.choice([0, 1, 3, 20, 100, 100, 300])
        self.last_record = rng.randrange(steps + 1) if rng.random() < 0.2 else None
        self.stacks = [self.random_stack() for _ in range(rng.choice([1, 3, 20]))]
        self.places = [(rng.choice(FILES), rng.randrange(-5, 500)) for _ in range(4)]
        self.size = rng.choice([lambda: rng.randrange(100), lambda: rng.randrange(1, 4), lambda: rng.choice([1, 1 << 33])])
        self.tendency = rng.choice([0.35, 0.5, 0.6, 0.9, 1.0])
        self.inherited_left = rng.choice([0, 0, 5]) if self.has_stacks() else 0
        self.live = []
        if self.inherited_left:
            self.writer.inherited(self.inherited_left)
        self.events = []
        for _ in range(steps):
            self.step()
        self.write(folder)
        self.reckon()

    def has_stacks(self):
        return self.kind in ("stacks", "both")

    def has_memcheck(self):
        return self.kind in ("joined", "both", "memcheck")

    def random_stack(self):
        frame = lambda: (self.rng.choice([0, *self.modules]), self.rng.choice([1, 2, 1 << 40]) * self.rng.randrange(5))  # noqa: E731
        return tuple(frame() for _ in range(self.rng.choice([0, 1, 2, 2, 6])))

    def step(self):
        rng = self.rng
        if rng.random() < self.tendency or not self.live:
            # Joined logs agree on their blocks, so an address is used again only after its release.
            address = 16 * rng.randrange(1, 60 if rng.random() < 0.5 else 1 << 30)
            if self.has_memcheck() and self.kind != "memcheck" and address in self.live:
                return
            self.allocate(address, self.size())
        else:
            index = rng.randrange(len(self.live)) if rng.random() < 0.6 else -1
            address = self.live.pop(index)
            if rng.random() < 0.1 and self.kind != "memcheck":
                self.release(b"<", address)
                self.allocate(address if rng.random() < 0.3 else 16 * rng.randrange(1 << 30, 1 << 31), self.size(), b">")
            else:
                self.release(b"-", address)
        if rng.random() < 0.05 and not (self.has_memcheck() and self.kind != "memcheck"):
            self.release(b"-", rng.choice([0, 8 + 16 * rng.randrange(50)]))
        if self.has_stacks() and rng.random() < 0.1:
            self.writer.time(10 * len(self.events))
        if self.has_stacks() and rng.random() < 0.05:
            self.writer.thread(rng.randrange(1000))
            self.writer.thread_name(rng.randrange(1000), b"a thread")
        if self.has_stacks() and rng.random() < 0.02:
            self.writer.loss(3, b"why not")

    def allocate(self, address, size, code=b"+"):
        rng = self.rng
        stack = rng.choice(self.stacks)
        place, type_name, bt = (b"", 0), b"", 0
        # The joined logs cannot tell whose block of equal size at one address it is, so the framework's have their own.
        from_framework = self.has_memcheck() and address % 32 == 0
        if self.kind != "memcheck":
            # A caller belongs to its stack: the innermost frame.
            caller = b"app:[0x%x]" % stack[0][1] if stack else FOREIGN[len(self.stacks) % len(FOREIGN)]
            if not self.has_stacks():
                caller = rng.choice([caller, FOREIGN[rng.randrange(len(FOREIGN))]])
            elif stack:
                caller = b"m%d:[0x%x]" % stack[0]
            self.mtrace.append(b"@ %s %s 0x%x 0x%x" % (caller, code, address, size))
            if self.has_stacks():
                self.writer.stack(stack)
        else:
            caller, from_framework, bt = b"", True, rng.choice(BLOCK_TYPES)
        if from_framework:
            place = rng.choice(self.places)
            self.memcheck.append(b"A %x %d %d %s %d" % (address, size, bt, *place))
        block_place = Place((), caller, b"", place[0] if from_framework else b"", place[1] if from_framework else 0, bt)
        types = [rng.choice(TYPES) for _ in range(rng.choice([0, 0, 1, 2]))] if from_framework else []
        self.events.append(("+", code, address, size, block_place, types if self.kind != "memcheck" else []))
        for each in types:
            self.memcheck.append(b"T %x %s" % (address, each))
            if self.kind == "memcheck":
                self.events.append(("T", address, each))
        if self.kind == "memcheck" and self.live and rng.random() < 0.2:
            other = rng.choice(self.live)
            self.memcheck.append(b"T %x %s" % (other, TYPES[0]))
            self.events.append(("T", other, TYPES[0]))
        self.live.append(address)
        self.framework = getattr(self, "framework", set())
        (self.framework.add if from_framework else self.framework.discard)(address)

    def release(self, code, address):
        caller = b"app:[0x77]"
        if self.kind != "memcheck":
            self.mtrace.append(b"@ %s %s 0x%x" % (caller, code, address))
        if self.has_memcheck() and (self.kind == "memcheck" or address in getattr(self, "framework", ())):
            self.memcheck.append(b"F %x 0" % address)
        self.events.append(("-", address, caller if self.kind != "memcheck" else b""))

    def write(self, folder):
        rng = self.rng
        stacks = bytes(self.writer.data)
        self.cut = rng.random() < 0.15
        if self.cut:
            stacks = stacks[:rng.randrange(8, len(stacks) + 1)]
        elif rng.random() < 0.1:
            stacks += bytes([rng.choice([0, 11, 15])])  # a newer format
        self.stacks_data = stacks
        self.paths = []
        for name, is_given, data in (("log.mtrace", self.kind != "memcheck", b"\n".join([b"= Start", *self.mtrace, b""])),
                                     ("log.stacks", self.has_stacks(), stacks),
                                     ("log.memcheck", self.has_memcheck(), b"\n".join([*self.memcheck, b""]))):
            path = folder / name
            self.paths.append(str(path) if is_given else "")
            if is_given:
                path.write_bytes(gzip.compress(data, 1) if rng.random() < 0.1 and not self.cut else data)

    def reckon(self):
        stacks = stacks_file.Stacks(self.stacks_data) if self.has_stacks() else None
        profile = self.profile = plain_profile.Profile(self.leaves_out, self.last_record)
        count, time = 0, 0
        first_callers = {}
        for event in self.events:
            if profile.is_over():
                break
            if event[0] == "T":
                profile.set_type(event[1], event[2])
            elif event[0] == "-":
                if event[1] != 0:
                    profile.release(event[1], event[2], time)
            else:
                _, _, address, size, place, types = event
                inherited = False
                frames = plain_profile.frames_of_caller(place.caller)
                if stacks and count < len(stacks.records):
                    node, time = stacks.records[count], stacks.times[count]
                    inherited = count in stacks.inherited
                    if node:
                        frames = tuple((each.module.path.encode("utf-8", "surrogateescape") if each.module else b"",
                                        each.module.build_id if each.module else b"", each.address)
                                       for each in stacks.frames(node))
                        place = place._replace(caller=first_callers.setdefault((node, inherited), place.caller))
                    elif inherited:
                        place = place._replace(caller=first_callers.setdefault((0, True), place.caller))
                        frames = plain_profile.frames_of_caller(place.caller)
                elif stacks and count == len(stacks.records):
                    time = stacks.last_time  # a reader that looks for one more stack comes by it
                count += 1
                if types:
                    place = place._replace(type_name=types[-1])
                profile.allocate(Block(address, size, place._replace(frames=frames), inherited), time)


def compare(recording, found):
    """Yields what differs."""
    expected = recording.profile
    unhex = lambda text: bytes.fromhex(text)  # noqa: E731
    places = {}
    for each in found["places"]:
        frames = tuple((unhex(path), unhex(build_id), address) for path, build_id, address in each["frames"])
        key = Place(frames, unhex(each["caller"]), unhex(each["type_name"]), unhex(each["file"]), each["line"], each["type"])
        if key in places:
            yield f"twice: {key}"
        places[key] = {name: each[name] for name in ("live", "at_peak", "allocated", "temporary", "growth")}
    wanted = expected.places()
    for key in places.keys() | wanted.keys():
        if places.get(key) != wanted.get(key):
            yield f"{key}:\n    found  {places.get(key)}\n    wanted {wanted.get(key)}"
    sums = lambda table: [sum(each[i] for each in table.values()) for i in range(2)]  # noqa: E731
    totals = {
        "live": sums(expected.live()),
        "allocated": sums(expected.allocated),
        "temporary": sums(expected.temporary),
        "inherited": expected.inherited,
        "peak": list(expected.peak),
        "records": len(expected.states),
        "timeline": expected.timeline(),
        "bad_frees": [[caller.hex(), address, at] for caller, address, at in expected.bad_frees],
        "bad_free_count": len(expected.bad_frees),
    }
    for name, value in totals.items():
        if found[name] != value:
            yield f"{name}:\n    found  {found[name]}\n    wanted {value}"
    if sums({i: each["at_peak"] for i, each in enumerate(found["places"])})[0] != found["peak"][2]:
        yield "the places at the peak do not add up to it"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dump", required=True)
    parser.add_argument("--runner", help="starts the program if it is for another system")
    parser.add_argument("--count", type=int, default=2000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--keep", type=pathlib.Path)
    options = parser.parse_args()
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        command = [options.runner, options.dump] if options.runner else [options.dump]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as program:
            for seed in range(options.seed, options.seed + options.count):
                place = pathlib.Path(folder, str(seed))
                place.mkdir()
                recording = Recording(seed, place)
                program.stdin.write("\t".join([*recording.paths,
                                               "" if recording.last_record is None else str(recording.last_record),
                                               str(int(recording.leaves_out))]) + "\n")
                program.stdin.flush()
                line = program.stdout.readline()
                if not line:
                    print(f"seed {seed} ({recording.kind}): the program has ended")
                    return 1
                differences = list(compare(recording, json.loads(line)))
                if differences:
                    failures += 1
                    print(f"seed {seed} ({recording.kind}, until {recording.last_record}, cut: {recording.cut}):")
                    print("\n".join("  " + each for each in differences[:4]))
                    if options.keep:
                        shutil.copytree(place, options.keep / str(seed), dirs_exist_ok=True)
                shutil.rmtree(place)
                if failures == 5:
                    break
            program.stdin.close()
    print(f"{options.count} recordings, {failures} differ")
    return 1 if failures or program.returncode else 0


if __name__ == "__main__":
    sys.exit(main())
