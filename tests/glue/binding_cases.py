"""What every client does with a libqor that is missing, damaged or another one, whatever the system.

A test case of its system has these names: `library`, where libqor is looked for; `real`, the bytes of the sound one;
`good_start`, how many of them it takes to pass for one; `suffix`, of libraries; check() and copy(); and LOST,
NOT_ANYWHERE, NO_EXPORT and NOT_A_WORD, what comes of it.
"""

import random


class WrongLibraries:
    def check_damaged(self, image):
        self.library.write_bytes(image)
        self.check(self.LOST, self.NOT_ANYWHERE)

    def test_missing(self):
        self.check(self.LOST, self.NOT_ANYWHERE)

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

    def test_a_folder_of_that_name(self):
        self.library.mkdir()
        self.check(self.LOST, self.NOT_ANYWHERE)

    def test_without_the_export(self):
        self.copy("without_export" + self.suffix, self.library)
        self.check(self.LOST, self.NO_EXPORT)

    def test_a_null_table(self):
        self.copy("null_table" + self.suffix, self.library)
        self.check(self.LOST, self.NOT_A_WORD)
