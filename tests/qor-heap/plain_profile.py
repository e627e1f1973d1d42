"""A plain, slow reckoning of what a recording amounts to: every sum is made again from the whole state after every record.
It is written to be read, and shares nothing with the code that it is compared with."""

import collections
import re

MOST_PARTS = 16
MOST_MOMENTS = 4096
TIMELINE_PARTS = MOST_MOMENTS // 2 - 2

Place = collections.namedtuple("Place", "frames caller type_name file line type")
Block = collections.namedtuple("Block", "address size place inherited")


class Table:
    """Live blocks. The slots of a bucket are used from the first blank one, and the first slot with an address is the
    one that a release means."""

    def __init__(self):
        self.buckets = collections.defaultdict(list)

    def add(self, block):
        slots = self.buckets[(block.address >> 10) & 0xFFFFF]
        for index, each in enumerate(slots):
            if each is None:
                slots[index] = block
                return
        slots.append(block)

    def find(self, address):
        slots = self.buckets[(address >> 10) & 0xFFFFF]
        for index, each in enumerate(slots):
            if each is not None and each.address == address:
                return slots, index
        return slots, None

    def blocks(self):
        return [each for slots in self.buckets.values() for each in slots if each is not None]


def frames_of_caller(caller):
    """A stack of one frame, made of the text of a caller; empty if it names no place in a file."""
    match = re.fullmatch(rb"(.+):(\(.*\))?\[(?:0x)?([0-9a-f]{1,16})\]", caller, re.S)
    if not match:
        match = re.fullmatch(rb"(.+)(\(\+)(?:0x)?([0-9a-f]{1,16})\)\[[^\[]*\]", caller, re.S)
    return ((match[1], b"", int(match[3], 16)),) if match else ()


class Profile:
    def __init__(self, leaves_out_inherited=False, last_record=None):
        self.table = Table()
        self.leaves_out = leaves_out_inherited
        self.last_record = last_record
        self.states = []  # after each record: (time, bytes, blocks, {place: bytes})
        self.allocated = collections.defaultdict(lambda: [0, 0])
        self.temporary = collections.defaultdict(lambda: [0, 0])
        self.inherited = [0, 0]
        self.seen = set()
        self.bad_frees = []
        self.recent = None
        self.at_peak = {}
        self.peak = (0, 0, 0, 0)
        self.moved = collections.defaultdict(list)  # records before the move: the state of the places after it

    def is_over(self):
        return self.last_record is not None and len(self.states) >= self.last_record

    def end_record(self, time):
        live = self.live()
        total = [sum(each[0] for each in live.values()), sum(each[1] for each in live.values())]
        self.states.append((time, total[0], total[1], {place: each[0] for place, each in live.items()}))
        if total[0] > self.peak[2]:
            self.peak = (time, len(self.states), *total)
            self.at_peak = live

    def live(self):
        live = collections.defaultdict(lambda: [0, 0])
        for block in self.table.blocks():
            if not (self.leaves_out and block.inherited):
                live[block.place, block.inherited][0] += block.size
                live[block.place, block.inherited][1] += 1
        return dict(live)

    def allocate(self, block, time):
        self.table.add(block)
        if self.leaves_out and block.inherited:
            return
        key = (block.place, block.inherited)
        self.seen.add(key)
        if block.inherited:
            self.inherited[0] += block.size
            self.inherited[1] += 1
        else:
            self.allocated[key][0] += block.size
            self.allocated[key][1] += 1
        self.recent = block.address
        self.end_record(time)

    def release(self, address, caller, time):
        slots, index = self.table.find(address)
        if index is None:
            self.bad_frees.append((caller, address, len(self.states) + 1))
        else:
            block, slots[index] = slots[index], None
            if self.leaves_out and block.inherited:
                return
            if address == self.recent and not block.inherited:
                self.temporary[block.place, False][0] += block.size
                self.temporary[block.place, False][1] += 1
        self.recent = None
        self.end_record(time)

    def set_type(self, address, type_name):
        slots, index = self.table.find(address)
        if index is None:
            return
        old = slots[index]
        slots[index] = new = old._replace(place=old.place._replace(type_name=type_name))
        if new.place == old.place:
            return
        self.allocated[old.place, False][0] -= old.size
        self.allocated[old.place, False][1] -= 1
        self.allocated[new.place, False][0] += old.size
        self.allocated[new.place, False][1] += 1
        self.seen.add((new.place, False))
        bytes_now = {place: each[0] for place, each in self.live().items()}
        self.moved[len(self.states)].append(bytes_now)

    def timeline(self):
        count = len(self.states)
        length = 1
        while count > TIMELINE_PARTS * length:
            length *= 2
        moments = set()
        for begin in range(0, count, length):
            part = range(begin, min(begin + length, count))
            for best in (min, max):
                index = best(part, key=lambda i: self.states[i][1])
                moments.add(index)
        if count:
            moments.add(count - 1)
        return [[self.states[i][0], i + 1, self.states[i][1], self.states[i][2]] for i in sorted(moments)]

    def growth(self, key):
        """0: none, 1: once, 2: growing."""
        count = len(self.states)
        length = 1
        while count > MOST_PARTS * length:
            length *= 2
        least = []
        for begin in range(0, max(count, 1), length):
            states = []
            for i in range(begin, min(begin + length, count) + 1):
                if i > 0:
                    states.append(self.states[i - 1][3].get(key, 0))
                else:
                    states.append(0)
                # A move is part of the part that the record before it is in.
                if i > begin or i == 0:
                    states += [each.get(key, 0) for each in self.moved.get(i, [])]
                elif self.moved.get(i):
                    states[-1] = self.moved[i][-1].get(key, 0)
            least.append(min(states))
        now = self.live().get(key, [0, 0])[0]
        if now == 0:
            return 0
        rises = [i for i in range(1, len(least)) if least[i] > least[i - 1]]
        falls = [i for i in range(1, len(least)) if least[i] < least[i - 1]]
        late = len(least) - max(len(least) // 4, 1)
        if len(rises) >= 3 and len(rises) >= 3 * len(falls) and rises[-1] >= late and least[-1] == max(least):
            return 2
        steps = [0] + least + [now]
        ups = sum(a < b for a, b in zip(steps, steps[1:]))
        downs = sum(a > b for a, b in zip(steps, steps[1:]))
        return int(ups == 1 and downs == 0)

    def places(self):
        """Inherited blocks and others of the same place are one place."""
        live = self.live()
        result = {}
        for key in self.seen:
            place = key[0]
            if not key[1] and self.allocated[key][1] == 0 and self.at_peak.get(key, [0, 0])[1] == 0:
                continue
            to = result.setdefault(place, {"live": [0, 0], "at_peak": [0, 0], "allocated": [0, 0], "temporary": [0, 0],
                                           "growth": 0})
            for name, table in (("live", live), ("at_peak", self.at_peak), ("allocated", self.allocated),
                                ("temporary", self.temporary)):
                for i in range(2):
                    to[name][i] += table.get(key, [0, 0])[i]
            to["growth"] = max(to["growth"], self.growth(key))
        return result
