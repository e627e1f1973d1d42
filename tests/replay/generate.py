#!/usr/bin/env python3
"""Makes seeded pairs of heap logs, valid and broken, for comparing two replays of them.

    generate.py SEED MTRACE MEMCHECK      writes the pair of one seed

A pair is made in three steps: a scenario decides what the program does (events), a writer spells every event as a line
of each log, sometimes oddly, and a spoiler damages some of the lines. One seed gives the same pair on every machine.
"""

import random
import sys

GIB = 1 << 30
SPAN = 1 << 10

CALLERS = [
    b"prog:[0x45a4]",
    b"/usr/bin/prog:(main+0x1c)[0x401136]",
    b"/lib/libm.so.6:(_ZN4core3fmt5writeE+0x2f)[0x7f00aa31]",
    b"[0x7ffff7a1]",
    b"caf\xc3\xa9:[0x1]",
    b"bad\xff\xfe:[0x2]",
    b"%s%n:[0x3]",
]
FILES = [b"src/foo", b"src/bar.cpp", b"util/qortool/main", b"a\\b.c", b"\xe6\xbc\xa2.cpp", b"%d%s.c", b"x\xc0y.c"]
TYPES = [b"Widget", b"ns::Box<int,8>", b"char[12]", b"T\xfft", b"%x", b"[", b"]"]
BLANKS = [b" ", b"  ", b"\t", b" \t ", b"\v", b"\f", b"\r", b" \r\v\f\t "]


class Events:
    """The events of both logs: (verb, address, size, block type); each log may miss some of them."""

    def __init__(self, rng):
        self.rng = rng
        self.mtrace = []
        self.memcheck = []

    def alloc(self, address, size, bt=0, where="both"):
        if where != "memcheck":
            self.mtrace.append((self.rng.choice(b"++++>"), address, size))
        if where != "mtrace":
            self.memcheck.append((ord("A"), address, size, bt))

    def free(self, address, bt=0, where="both"):
        if where != "memcheck":
            self.mtrace.append((self.rng.choice(b"----<"), address, 0))
        if where != "mtrace":
            self.memcheck.append((ord("F"), address, 0, bt))

    def type(self, address):
        self.memcheck.append((ord("T"), address, 0, 0))


# Scenarios. Each takes the events, the random source and the number of steps wanted.


def a_real_run(events, rng, steps):
    """Small blocks from a growing heap; freed ones are reused first, and most are released in time."""
    top = 0x55550000 + 16 * rng.randrange(4096)
    live, spare = [], []
    for _ in range(steps):
        if live and rng.random() < 0.45:
            address = live.pop(rng.randrange(len(live)))
            events.free(address)
            spare.append(address)
        else:
            size = rng.choice([8, 16, 24, 40, 100, 1000, 70000])
            if spare and rng.random() < 0.7:
                address = spare.pop()
            else:
                address = top
                top += (size + 31) & ~15
            events.alloc(address, size)
            if rng.random() < 0.3:
                events.type(address)
            live.append(address)


def few_addresses(events, rng, steps):
    """The same addresses repeatedly: double allocations, double frees, misplaced type records."""
    addresses = [rng.choice([0x1F3A0, 0x10000, 0x400]) + 8 * i for i in range(rng.randint(1, 12))]
    for _ in range(steps):
        address = rng.choice(addresses)
        where = rng.choice(["both", "both", "mtrace", "memcheck"])
        step = rng.random()
        if step < 0.45:
            events.alloc(address, rng.randrange(1, 200), where=where)
        elif step < 0.85:
            events.free(address, where=where)
        else:
            events.type(address)


def a_crowded_bucket(events, rng, steps):
    """More live slots in one bucket than a block holds, with gaps, also from addresses far apart."""
    base = SPAN * rng.randrange(1, 1 << 20)
    room = rng.choice([1, 2, 4])
    live = []
    for _ in range(max(steps, 1030 + rng.randrange(1200))):
        if live and rng.random() < 0.15:
            events.free(live.pop(rng.randrange(len(live))), where="both")
        else:
            address = base + rng.randrange(SPAN) + GIB * rng.randrange(room)
            events.alloc(address, rng.randrange(1, 64))
            live.append(address)


def far_addresses(events, rng, steps):
    """Addresses that differ only above bit 29, up to the last bit of 64."""
    low = rng.randrange(1, GIB)
    addresses = [low + GIB * k for k in (0, 1, 2, 3, 1 << 20, (1 << 34) - 1)]
    for _ in range(steps):
        address = rng.choice(addresses)
        if rng.random() < 0.6:
            events.alloc(address, rng.choice([1, 0xFFFFFFFF, 0x100000000, 0x100000010]))
            if rng.random() < 0.3:
                events.type(address)
        else:
            events.free(address)


def around_zero(events, rng, steps):
    """Address 0 and its neighbours in bucket 0, and huge blocks that need a slot there too."""
    addresses = [0, 0, 0, 8, 0x10, 0x3F8, GIB, GIB + 8]
    for _ in range(steps):
        address = rng.choice(addresses)
        bt = rng.choice([0, 0, 1, 3])
        where = rng.choice(["both", "mtrace", "memcheck"])
        step = rng.random()
        if step < 0.5:
            events.alloc(address, rng.randrange(0, 99), bt, where)
        elif step < 0.85:
            events.free(address, bt, where)
        else:
            events.type(address)


def huge_blocks(events, rng, steps):
    """Block type 3, also written as 259, mostly in the memcheck log only."""
    base = 0x700000000000
    addresses = [base + 0x100 * i for i in range(rng.randint(2, 40))]
    for _ in range(steps):
        address = rng.choice(addresses)
        bt = rng.choice([0, 1, 2, 3, 3, 3, 259, 515, 256, 255])
        where = rng.choice(["memcheck", "memcheck", "mtrace", "both"])
        step = rng.random()
        if step < 0.5:
            events.alloc(address, rng.randrange(1, 1 << 24), bt, where)
        elif step < 0.85:
            events.free(address, bt, where)
        else:
            events.type(address)


def logs_that_never_meet(events, rng, steps):
    """Enough unmatched memcheck records to fill the look-ahead list, then some that would match."""
    for i in range(rng.choice([1022, 1023, 1024, 1025, 1500])):
        address = 0x900000 + 16 * i
        step = rng.random()
        if step < 0.7:
            events.alloc(address, 16, where="memcheck")
        elif step < 0.9:
            events.type(address)
        else:
            events.free(address, rng.choice([0, 3]), where="memcheck")
    for _ in range(steps):
        address = rng.choice([0x900000 + 16 * rng.randrange(1500), 0x100000 + 16 * rng.randrange(300)])
        if rng.random() < 0.7:
            events.alloc(address, rng.randrange(1, 500))
            if rng.random() < 0.3:
                events.type(address)
        else:
            events.free(address)


def a_late_log(events, rng, steps):
    """The memcheck log in another order than the mtrace log, as several threads would write it."""
    a_real_run(events, rng, steps)
    reach = rng.choice([2, 10, 100, 3000])
    keyed = [(i + rng.randrange(reach), record) for i, record in enumerate(events.memcheck)]
    events.memcheck = [record for _, record in sorted(keyed, key=lambda pair: pair[0])]


def nothing(events, rng, steps):
    """Empty logs; after the spoiler, almost empty ones."""


SCENARIOS = [
    a_real_run,
    few_addresses,
    a_crowded_bucket,
    far_addresses,
    around_zero,
    huge_blocks,
    logs_that_never_meet,
    a_late_log,
    nothing,
]


# Spelling.


class Writer:
    def __init__(self, rng):
        self.rng = rng
        self.oddity = rng.choice([0, 0, 0.02, 0.2])
        self.plain_blanks = rng.random() < 0.6

    def odd(self):
        return self.rng.random() < self.oddity

    def blank(self):
        return b" " if self.plain_blanks else self.rng.choice(BLANKS)

    def hexadecimal(self, value):
        if self.odd():
            return self.rng.choice([b"%x", b"%X", b"0X%x", b"+%x", b"000%x", b"0x%xz", b"%x.5", b"0x%x\0f"]) % value
        return self.rng.choice([b"0x%x", b"%x"]) % value if self.oddity else b"0x%x" % value

    def number(self, value):
        if self.odd():
            return self.rng.choice(
                [b"0%o" % value, b"-%d" % value, b"+%d" % value, b"%dk" % value, b"0x%xg" % value]
                + [b"08", b"0x", b"-0x1", b"-", b"x", b"0", b"99999999999999999999", b"-99999999999999999999"]
                + [b"18446744073709551615", b"18446744073709551616", b"9223372036854775808", b"-9223372036854775809"]
                + [b"4294967295", b"4294967296", b"2147483648", b"-2147483649", b"1\0" + b"2", b"\0", b"0X1F", b"1e3"]
            )
        return self.rng.choice([b"0x%x", b"%d"]) % value

    def mtrace_line(self, record):
        verb, address, size = record
        code = bytes([verb])
        if self.odd():
            code = self.rng.choice([code + b"x", b"x", b"=", b"!", b"\0", b"\xe9", b"x" + code, b"%s", b"a\0b"])
        words = [self.rng.choice(CALLERS), code, self.hexadecimal(address)]
        if verb in b"+>" or self.odd():
            words.append(self.number(size))
        if self.odd():
            words.append(b"more")
        line = b"@" + (b"" if self.odd() else self.blank())
        return line + self.blank().join(words)

    def memcheck_line(self, record):
        verb, address, size, bt = record
        words = [self.hexadecimal(address)]
        if verb == ord("A"):
            words += [self.number(size), self.number(bt) if self.odd() else b"%d" % bt]
            if not self.odd():
                words.append(self.rng.choice(FILES))
                if not self.odd():
                    words.append(self.number(self.rng.randrange(1, 4000)))
        elif verb == ord("F"):
            if bt or self.rng.random() < 0.5:
                words.append(b"%d" % bt)
        elif not self.odd():
            words.append(self.rng.choice(TYPES))
        if self.odd():
            words.append(b"more")
        return bytes([verb]) + (b"" if self.odd() else self.blank()) + self.blank().join(words)


# Damage.


def junk_line(rng):
    kind = rng.randrange(12)
    if kind == 0:
        return b""
    if kind == 1:
        return rng.choice([b" ", b"\t\t", b"\v\f", b"\0"])
    if kind == 2:
        return b"# a comment" + rng.choice([b"", b" A 1 2 3", b"\xff"])
    if kind == 3:
        return rng.choice([b"= Start", b"= End", b"+ 0x10 0x20", b"garbage"])
    if kind == 4:
        return b"@ " + b" ".join([b"p:[1]", b"+", b"0x7f00"][: rng.randrange(4)])
    if kind == 5:
        return rng.choice(b"AFTE".decode()).encode() + b" 1f3a0 7 8 9"[: rng.choice([0, 1, 6, 8, 10, 12])]
    if kind == 6:
        return bytes([rng.choice(b"Zaftezx@\0\xff1-")]) + rng.choice([b"", b" ", b" 1", b" 1 2", b"1"])
    if kind == 7:
        return bytes(rng.randrange(256) for _ in range(rng.randrange(40))).replace(b"\n", b"")
    if kind == 8:
        return b"@ p:[1] x 0x7f00 " + rng.choice([b"0x10", b"0", b"", b"0x100000000"])
    if kind == 9:
        return b"@" + b"\0".join(rng.choice([b" ", b"p", b"+ ", b"0x10 "]) for _ in range(rng.randrange(9)))
    if kind == 10:
        return rng.choice([b"T 1f3a0", b"E 1", b"E", b"F", b"F1f3a0", b"F1f3a0 259", b"A 1f3a0 16 259", b"A 1f3a0 16"])
    return b"@ " + b"".join(rng.choice([b"@", b" ", b"+", b"-", b"0", b"f", b"\t"]) for _ in range(rng.randrange(30)))


def spoil(line, rng):
    kind = rng.randrange(9)
    at = rng.randrange(len(line) + 1)
    if kind == 0:
        return line[:at]
    if kind == 1:
        return line[at:]
    if kind == 2:
        return rng.choice(BLANKS) + line + rng.choice(BLANKS)
    if kind == 3:
        return line[:at] + bytes([rng.randrange(256)]).replace(b"\n", b"\0") + line[at:]
    if kind == 4:
        return line[:at] + b"\0" + line[at:]
    if kind == 5:
        return line.lower()
    if kind == 6:
        return line + rng.choice([b"\xff", b" \xc3", b"zz", b" 1 2 3"])
    if kind == 7:
        return line[:at] + rng.choice(BLANKS) + line[at:]
    return b"".join(line.split())


def assemble(lines, rng, damage):
    """Returns the file's bytes: lines, some of them damaged, with one kind of line ends or both."""
    result = []
    for line in lines:
        if rng.random() < damage:
            line = spoil(line, rng)
        if rng.random() < damage:
            result.append(junk_line(rng))
        result.append(line)
    if damage:
        result += [junk_line(rng) for _ in range(rng.randrange(4))]
    if rng.random() < 0.02:
        at = rng.randrange(len(result) + 1)
        long_word = b"w" * rng.choice([4095, 4096, 65536, 300000])
        result.insert(at, rng.choice([b"@ %s + 0x7700 9", b"%s", b"A 7700 9 0 %s 3", b"T 7700 %s"]) % long_word)
    ends = rng.choice([[b"\n"], [b"\n"], [b"\n"], [b"\r\n"], [b"\n", b"\r\n"], [b"\n", b"\r\r\n"]])
    data = b"".join(line + rng.choice(ends) for line in result)
    if rng.random() < 0.2:
        data = data[: len(data) - rng.choice([1, 1, 2, 5])]
    return data


def generate(seed):
    """Returns the pair of one seed: the bytes of the mtrace log and of the memcheck log."""
    rng = random.Random(seed)
    steps = rng.choice([0, 1, 2, 19, 20, 21, 40, 99, 100, 101, 200, 300, 500, 1000, 2000])
    events = Events(rng)
    # Most pairs mix several scenarios, because most mistakes occur where they meet.
    for _ in range(rng.choice([1, 1, 2, 3])):
        rng.choice(SCENARIOS)(events, rng, steps)
    writer = Writer(rng)
    damage = rng.choice([0, 0, 0.01, 0.05, 0.3, 1])
    mtrace = [writer.mtrace_line(record) for record in events.mtrace]
    if rng.random() < 0.5:
        mtrace = [b"= Start"] + mtrace + [b"= End"]
    memcheck = [writer.memcheck_line(record) for record in events.memcheck]
    return assemble(mtrace, rng, damage), assemble(memcheck, rng, damage)


def main(words):
    if len(words) != 3:
        sys.exit("usage: generate.py SEED MTRACE MEMCHECK")
    for path, data in zip(words[1:], generate(int(words[0]))):
        with open(path, "wb") as stream:
            stream.write(data)


if __name__ == "__main__":
    main(sys.argv[1:])
