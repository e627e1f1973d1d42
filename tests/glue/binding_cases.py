"""The behaviour of every client when libqor is missing, damaged or another version, on any system.

A test case of its system defines these names: `library`, the path where libqor is searched for; `real`, the bytes of
the sound library; `good_start`, the number of bytes that a file needs to look like one; `suffix`, of library files;
check() and copy(); and the results LOST, NOT_ANYWHERE, NO_EXPORT, INCOMPLETE and NOT_A_WORD.
"""

import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from damaged_libraries import DamagedLibraries  # noqa: E402  # in tests/support


class WrongLibraries(DamagedLibraries):
    def check_damaged(self, image):
        self.library.write_bytes(image)
        self.check(self.LOST, self.NOT_ANYWHERE)

    def test_missing(self):
        self.check(self.LOST, self.NOT_ANYWHERE)

    def test_a_folder_of_that_name(self):
        self.library.mkdir()
        self.check(self.LOST, self.NOT_ANYWHERE)

    def test_without_the_export(self):
        self.copy("without_export" + self.suffix, self.library)
        self.check(self.LOST, self.NO_EXPORT)

    def test_an_export_that_is_no_function(self):
        self.copy("no_function" + self.suffix, self.library)
        self.check(self.LOST, self.NO_EXPORT)

    def test_an_incomplete_table(self):
        """Tables of an older library, which lack operations that the client was compiled for."""
        for name in ("short_table", "table_without_length", "table_with_a_gap"):
            with self.subTest(name):
                self.copy(name + self.suffix, self.library)
                self.check(self.LOST, self.INCOMPLETE)

    def test_a_null_table(self):
        self.copy("null_table" + self.suffix, self.library)
        self.check(self.LOST, self.NOT_A_WORD)
