"""What every client does with a libqor that is missing, damaged or another one, whatever the system.

A test case of its system has these names: `library`, where libqor is looked for; `real`, the bytes of the sound one;
`good_start`, how many of them it takes to pass for one; `suffix`, of libraries; check() and copy(); and LOST,
NOT_ANYWHERE, NO_EXPORT, INCOMPLETE and NOT_A_WORD, what comes of it.
"""

import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "support"))
from damaged_libraries import DamagedLibraries  # noqa: E402  # beside this folder


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
        """Of an older library, which lacks what the client was compiled for."""
        for name in ("short_table", "table_without_length", "table_with_a_gap"):
            with self.subTest(name):
                self.copy(name + self.suffix, self.library)
                self.check(self.LOST, self.INCOMPLETE)

    def test_a_null_table(self):
        self.copy("null_table" + self.suffix, self.library)
        self.check(self.LOST, self.NOT_A_WORD)
