#!/usr/bin/env python3
"""A plain replay of heap logs. It writes the expected output of `qortool --quiet mtrace` and `qortool --quiet
memcheck`.

    replay.py mtrace LOG [MEMCHECK]
    replay.py memcheck LOG

It must disagree with qortool if one of the two is wrong, so it shares no code with qortool. It is written to be read,
not to be fast: lists are searched from the front. All texts are bytes, because logs contain arbitrary bytes of the
recorded program's paths and names.
"""

import re
import sys

LONGEST_LINE = 256 << 20
BLOCK_SLOTS = 1024
BUCKET_MASK = 0xFFFFF
LOOK_AHEAD_LIMIT = 1024
HUGE = 3

# The beginnings of lines of each log.
MTRACE_FORM = (b"@", b"= ")
MEMCHECK_FORM = (b"A", b"F", b"T", b"E", b"#")

ULLONG_MAX = 2**64 - 1
LONG_MAX = 2**63 - 1
LONG_MIN = -(2**63)


# Numbers as the C library of 64-bit Linux reads them.


def scan_number(token, base):
    """Returns the sign and the unlimited magnitude at the front of a token; (False, 0) if there is no number."""
    text = text_of(token)
    negative = text[:1] == b"-"
    if text[:1] in (b"-", b"+"):
        text = text[1:]
    # A prefix counts only if a digit follows: "0x" alone is the number 0 followed by junk.
    if base in (0, 16) and text[:2].lower() == b"0x" and digit_value(text[2:3]) < 16:
        text = text[2:]
        base = 16
    elif base == 0:
        base = 8 if text[:1] == b"0" else 10
    value = 0
    while digit_value(text[:1]) < base:
        value = value * base + digit_value(text[:1])
        text = text[1:]
    return negative, value


def digit_value(byte):
    position = b"0123456789abcdef".find(byte.lower())
    return position if byte and position >= 0 else 99


def unsigned_number(token, base):
    """strtoul and strtoull: a minus sign wraps, and a number that is too large saturates whatever its sign."""
    negative, value = scan_number(token, base)
    if value > ULLONG_MAX:
        return ULLONG_MAX
    return -value & ULLONG_MAX if negative else value


def signed_number(token, base):
    """strtol: saturates at both ends."""
    negative, value = scan_number(token, base)
    return max(LONG_MIN, min(LONG_MAX, -value if negative else value))


def uint32(value):
    return value & 0xFFFFFFFF


def uint8(value):
    return value & 0xFF


def int32(value):
    value &= 0xFFFFFFFF
    return value - 2**32 if value >= 2**31 else value


def text_of(data):
    """Returns the text as the C library sees it: up to the first NUL."""
    return data.split(b"\0", 1)[0]


# The records of the two logs.


class MtraceLine:
    def __init__(self, address, size, is_alloc, caller):
        self.address = address
        self.size = size
        self.is_alloc = is_alloc
        self.caller = caller


class MemcheckLine:
    def __init__(self, code, address):
        self.code = code
        self.address = address
        self.size = 0
        self.bt = 0
        self.file = b""
        self.line = 0
        self.type_name = b""


class LineReader:
    """Reads lines without their ends; the last line may lack one. strip() removes carriage returns. A line that is too
    long yields its beginning, which is not a record. A compressed log must be decompressed before."""

    def __init__(self, path, form):
        self.path = path
        with open(path, "rb") as stream:
            data = stream.read()
        self.beginning = data[:1024]
        self.lines = data.split(b"\n")
        if self.lines[-1] == b"":
            self.lines.pop()
        self.next = 0
        self.form = form
        self.has_form = False

    def read(self):
        """Returns the next line, without white space at both ends, and whether it is complete; None at the end."""
        if self.next == len(self.lines):
            return None, True
        line = self.lines[self.next]
        self.next += 1
        text = line[:LONGEST_LINE].strip()
        self.has_form = self.has_form or text.startswith(self.form)
        return text, len(line) <= LONGEST_LINE

    def is_foreign(self):
        """Returns whether the file has lines but none with the form of such a log. A file that is not text never has
        the form."""
        return self.next > 0 and not (self.has_form and not self.beginning.startswith(tuple(SIGNATURES)))


# Signatures of files that are not a log of the wanted kind.

SIGNATURES = {
    b"\x7fELF": "an ELF file: a program, a library or a core dump",
    b"\x1f\x8b": "a file compressed with gzip, which must be decompressed first",
    b"\x28\xb5\x2f\xfd": "a file compressed with zstd, which must be decompressed first",
    b"\xfd7zXZ\0": "a file compressed with xz, which must be decompressed first",
    b"BZh": "a file compressed with bzip2, which must be decompressed first",
    b"\xff\xfe": "UTF-16 text, which must be converted to UTF-8 first",
    b"\xfe\xff": "UTF-16 text, which must be converted to UTF-8 first",
}
MEMCHECK_LINE = re.compile(rb"([AF]\s+(0x)?[0-9a-f]+\s+[0-9]|T\s+(0x)?[0-9a-f]+\s+\S)")


def looks_like(beginning, is_first_of_two):
    for signature, name in SIGNATURES.items():
        if beginning.startswith(signature):
            return name
    if not beginning.strip(b" \t\n\v\f\r\0") and b"\0" in beginning:
        return "nothing but zero bytes"
    if re.search(rb"[\x00-\x08\x0e-\x1a\x1c-\x1f\x7f]", beginning):
        return "binary data"
    if not beginning.strip():
        return "nothing but blank lines"
    if re.match(rb"\s*<(!doctype )?html", beginning, re.I):
        return "an HTML page"
    for line in beginning.split(b"\n"):
        line = line.strip()
        words = line[1:].split()
        if line.startswith(b"= Start") or line[:1] == b"@" and len(words) >= 3 and words[1][:1] in b"+-<>":
            return "an mtrace log, which 'qortool mtrace' reads as its first file"
        if MEMCHECK_LINE.match(line) and is_first_of_two:
            return "a memcheck log: swap the two files"
        if MEMCHECK_LINE.match(line):
            return "a memcheck log, which 'qortool memcheck' reads, or 'qortool mtrace' as its second file"
    return "some other text"


# The allocation table.


class Block:
    """1024 slots. A slot with address 0 is blank; its old fields stay until it is written again."""

    def __init__(self):
        self.addresses = [0] * BLOCK_SLOTS
        self.fields = {}


class Slot:
    """One slot of one block, identified by its place, so that every holder sees changes to it."""

    def __init__(self, block, index):
        self.block = block
        self.index = index

    @property
    def address(self):
        return self.block.addresses[self.index]

    @address.setter
    def address(self, address):
        self.block.addresses[self.index] = address

    @property
    def fields(self):
        return self.block.fields[self.index]

    def fill(self, address, size, type, caller, type_name, file, line):
        self.address = address
        self.block.fields[self.index] = {
            "size": size,
            "type": type,
            "caller": caller,
            "type_name": type_name,
            "file": file,
            "line": line,
        }


class Table:
    def __init__(self):
        self.buckets = {}

    @staticmethod
    def bucket_of(address):
        return (address >> 10) & BUCKET_MASK

    def find_blank(self, address):
        chain = self.buckets.setdefault(self.bucket_of(address), [])
        for block in chain:
            if 0 in block.addresses:
                return Slot(block, block.addresses.index(0))
        chain.append(Block())
        return Slot(chain[-1], 0)

    def find_entry(self, address):
        """Returns the first slot that holds the address, or None. Every blank slot holds address 0."""
        for block in self.buckets.get(self.bucket_of(address), []):
            if address in block.addresses:
                return Slot(block, block.addresses.index(address))
        return None

    def release(self, address):
        slot = self.find_entry(address)
        if slot is None:
            return False
        slot.address = 0
        return True

    def live_slots(self):
        for bucket in sorted(self.buckets):
            for block in self.buckets[bucket]:
                for index in range(BLOCK_SLOTS):
                    if block.addresses[index] != 0:
                        yield Slot(block, index)


class Replay:
    """One run of one action. `out` and `err` collect its output."""

    def __init__(self):
        self.out = bytearray()
        self.err = bytearray()
        self.mtrace_file = None
        self.memcheck_file = None
        self.table = Table()
        self.look_ahead = []

    # The readers.

    def read_mtrace(self):
        while True:
            line, is_whole = self.mtrace_file.read()
            if line is None:
                return None
            if line[:1] != b"@":
                continue
            tokens = line[1:].split()
            if len(tokens) < 3 or not is_whole:
                self.err += b"WARNING Invalid line in mtrace() file\n"
                continue
            size = uint32(unsigned_number(tokens[3], 0)) if len(tokens) > 3 else 0
            code = tokens[1][:1]
            if code in (b"+", b">"):
                is_alloc = True
            elif code in (b"-", b"<"):
                is_alloc = False
            else:
                self.err += b"WARNING Bad code token [%s]\n" % text_of(tokens[1])
                is_alloc = size != 0
            return MtraceLine(unsigned_number(tokens[2], 16), size, is_alloc, tokens[0])

    def read_memcheck_line(self):
        while True:
            line, is_whole = self.memcheck_file.read()
            if line is None:
                return None
            if line == b"" or line[:1] == b"#":
                continue
            code = line[:1]
            tokens = line[1:].split()
            # An allocation needs address, size and block type, and a type record needs its name. The others need only
            # an address; a letter alone is never a record.
            needed = {b"A": 3, b"T": 2}.get(code, 1)
            if len(tokens) < needed:
                self.err += b"WARNING Invalid line in memcheck() file\n"
                continue
            if code == b"E":
                continue
            if not is_whole:
                self.err += b"WARNING Invalid line in memcheck() file\n"
                continue
            if code not in (b"A", b"F", b"T"):
                self.err += b"WARNING Invalid memcheck line code %c\n" % code
                continue
            record = MemcheckLine(code, unsigned_number(tokens[0], 16))
            if code == b"A":
                record.size = uint32(unsigned_number(tokens[1], 0))
                record.bt = uint8(unsigned_number(tokens[2], 0))
                if len(tokens) > 3:
                    record.file = tokens[3]
                if len(tokens) > 4:
                    record.line = int32(signed_number(tokens[4], 0))
            elif code == b"F":
                if len(tokens) > 1:
                    record.bt = uint8(unsigned_number(tokens[1], 0))
            else:
                record.type_name = tokens[1]
            return record

    # The join of the two logs.

    def mtrace_read_memcheck_for(self, address):
        if self.memcheck_file is None:
            return None
        for index in range(len(self.look_ahead)):
            if self.look_ahead[index].address == address:
                return self.look_ahead.pop(index)
        if len(self.look_ahead) >= LOOK_AHEAD_LIMIT:
            return None
        while True:
            record = self.read_memcheck_line()
            if record is None:
                return None
            if record.address == address:
                return record
            if record.bt == HUGE:
                self.mtrace_handle_huge_entry(record)
            elif record.code != b"F":
                self.look_ahead.append(record)
            if len(self.look_ahead) > LOOK_AHEAD_LIMIT - 1:
                return None

    def mtrace_add_memcheck_data(self, slot):
        while True:
            record = self.mtrace_read_memcheck_for(slot.address)
            if record is None:
                return
            if record.code == b"A":
                slot.fields["file"] = record.file
                slot.fields["line"] = record.line
            elif record.code == b"T":
                slot.fields["type_name"] = record.type_name

    def mtrace_handle_huge_entry(self, record):
        if record.code == b"A":
            slot = self.table.find_blank(record.address)
            slot.fill(record.address, record.size, record.bt, b"", record.type_name, record.file, record.line)
        elif record.code == b"F":
            if not self.table.release(record.address):
                self.report_memcheck_bad_free(record.address)

    # The reports.

    def report_mtrace_bad_free(self, address):
        self.out += b"BAD FREE at 0x%x (not allocated)\n" % address

    def report_memcheck_bad_free(self, address):
        self.out += b"BAD FREE at 0x%x (not allocated) - file=[] line=0\n" % address

    def report_leaks(self):
        self.err += b"Scanning data...\n"
        count = 0
        total = 0
        for slot in self.table.live_slots():
            fields = slot.fields
            self.out += b"LEAK at 0x%x size %d type %d caller [%s] type_name [%s] file [%s] line %d\n" % (
                slot.address,
                fields["size"],
                fields["type"],
                text_of(fields["caller"]),
                text_of(fields["type_name"]),
                text_of(fields["file"]),
                fields["line"],
            )
            count += 1
            total += fields["size"]
        if count != 0:
            self.out += b"Leaked %d objects totalling %d bytes\n" % (count, total)
        else:
            self.out += b"No leaks found\n"

    def report_foreign_log(self, reader, kind, is_first_of_two=False):
        if reader is not None and reader.is_foreign():
            self.err += (
                f"'{reader.path}' is not {'an' if kind == 'mtrace' else 'a'} {kind} log."
                f" It looks like {looks_like(reader.beginning, is_first_of_two)}.\n"
            ).encode()

    # The actions.

    def mtrace(self, log, memcheck_log=None):
        self.mtrace_file = LineReader(log, MTRACE_FORM)
        if memcheck_log is not None:
            self.memcheck_file = LineReader(memcheck_log, MEMCHECK_FORM)
        self.err += b"Processing mtrace file...\n"
        number = 0
        while True:
            record = self.read_mtrace()
            if record is None:
                break
            number += 1
            if number % 20 == 0:
                self.err += b"%d\r" % number
            if record.is_alloc:
                slot = self.table.find_blank(record.address)
                slot.fill(record.address, record.size, 0, record.caller, b"", b"", 0)
                self.mtrace_add_memcheck_data(slot)
            elif not self.table.release(record.address):
                self.report_mtrace_bad_free(record.address)
        self.err += b"\n"
        if self.look_ahead:
            self.err += b"WARNING %d entries left in memcheck table\n" % len(self.look_ahead)
            for record in self.look_ahead:
                self.err += b">> %c mem=0x%x size=%d bt=%d file=[%s] line=%d type=[%s]\n" % (
                    record.code,
                    record.address,
                    record.size,
                    record.bt,
                    text_of(record.file),
                    record.line,
                    text_of(record.type_name),
                )
        self.report_leaks()
        self.report_foreign_log(self.mtrace_file, "mtrace", memcheck_log is not None)
        self.report_foreign_log(self.memcheck_file, "memcheck")
        self.out += b"Done\n"

    def memcheck(self, log):
        self.memcheck_file = LineReader(log, MEMCHECK_FORM)
        self.err += b"Processing memcheck file...\n"
        number = 0
        while True:
            record = self.read_memcheck_line()
            if record is None:
                break
            number += 1
            if number % 100 == 0:
                self.err += b"%d\r" % number
            if record.code == b"F":
                if not self.table.release(record.address):
                    self.report_memcheck_bad_free(record.address)
            elif record.code == b"T":
                # A blank slot is not live, so a type record for address 0 never finds its block.
                slot = self.table.find_entry(record.address) if record.address != 0 else None
                if slot is not None:
                    slot.fields["type_name"] = record.type_name
                else:
                    self.err += b"Unexpected: type record not matched to memory\n"
            else:
                slot = self.table.find_blank(record.address)
                slot.fill(record.address, record.size, record.bt, b"", b"", record.file, record.line)
        self.err += b"\n"
        self.report_leaks()
        self.report_foreign_log(self.memcheck_file, "memcheck")
        self.out += b"Done\n"


def replay(action, *logs):
    """Returns standard output and standard error of one run, as bytes."""
    run = Replay()
    {"mtrace": run.mtrace, "memcheck": run.memcheck}[action](*logs)
    return bytes(run.out), bytes(run.err)


def main(words):
    if not (words[:1] == ["mtrace"] and len(words) in (2, 3) or words[:1] == ["memcheck"] and len(words) == 2):
        sys.exit("usage: replay.py mtrace LOG [MEMCHECK] | replay.py memcheck LOG")
    out, err = replay(*words)
    sys.stdout.buffer.write(out)
    sys.stderr.buffer.write(err)


if __name__ == "__main__":
    main(sys.argv[1:])
