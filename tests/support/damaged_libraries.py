"""Files that have a library's name but are not libraries, for every test that loads libraries."""

import random


class DamagedLibraries:
    """A test case has the sound library in `real`, and in `good_start` the number of bytes that a file needs to look
    like one. Its check_damaged(image) checks the result for another image in its place."""

    def test_empty(self):
        self.check_damaged(b"")

    def test_random_bytes(self):
        self.check_damaged(random.Random(1).randbytes(50000))

    def test_random_bytes_behind_a_good_start(self):
        self.check_damaged(self.real[:self.good_start] + random.Random(2).randbytes(50000))

    def test_zeros(self):
        self.check_damaged(bytes(len(self.real)))

    def test_text(self):
        self.check_damaged(b"#!/bin/sh\necho this is not a library\n")
