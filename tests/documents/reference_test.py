#!/usr/bin/env python3
"""Makes the reference of the headers, without a warning, and looks into its pages.

    reference_test.py --cmake CMAKE --build FOLDER
"""

import argparse
import html
import re
import subprocess
import sys
import tempfile
import unittest
import urllib.parse
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True
sys.path.append(str(TREE / "qorcore/reference"))
import families as reference  # noqa: E402

options = None


class Reference(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        made = subprocess.run([options.cmake, "--build", options.build, "--target", "doxygen"], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if made.returncode != 0 or "warning" in made.stdout:
            raise AssertionError(made.stdout)
        cls.html = options.build / "reference/html"
        cls.families = reference.read_families()

    def page(self, name):
        return (self.html / name).read_text()

    def test_every_family_has_a_page_with_its_examples(self):
        first = self.page("index.html")
        self.assertGreater(len(self.families), 20)
        for family in self.families:
            with self.subTest(family=family.name):
                name = f"group__family__{family.name}.html"
                self.assertIn(f'href="{name}"', first)
                text = re.sub("<.*?>", "", self.page(name))
                for path in family.examples:
                    example, source, _ = reference.read_example(path)
                    self.assertIn(f"Example: {example}", text)
                    # The code is there as a whole: its last line is.
                    last = [line for line in source.splitlines() if line.strip()][-2]
                    self.assertIn(last.strip(), html.unescape(text))

    def test_operations_name_the_examples_that_use_them(self):
        self.assertIn('href="texts_8cpp-example.html', self.page("classqorString.html"))

    def found_by(self, words):
        """Returns the links that the search shows in a browser."""
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            page = f"{(self.html / 'index.html').resolve().as_uri()}?find={urllib.parse.quote(words)}"
            command = ["chromium", "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={folder}"]
            shown = subprocess.run([*command, "--dump-dom", page], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   text=True, check=True, timeout=300).stdout
        return re.search('<ul id="found".*?</ul>', shown, re.S).group()

    def test_search(self):
        found = self.found_by("openobj")
        self.assertIn('href="group__family__stores.html#', found)
        self.assertIn(">qorOpenObjectStore</a>", found)
        self.assertIn(">qorStoreWalk</a>", self.found_by("walk store"))
        self.assertIn("Nothing has this name.", self.found_by("no such thing"))

    def test_every_name_leads_to_a_page(self):
        names = re.findall(r'^\["(?:[^"\\]|\\.)*", "([^"]*)"', self.page("names.js"), re.M)
        self.assertGreater(len(names), 1500)
        ids = {}
        for link in names:
            page, _, place = link.partition("#")
            if page not in ids:
                ids[page] = set(re.findall(r'\bid="([^"]+)"', self.page(page)))
            if place:
                self.assertIn(place, ids[page], page)

    def test_no_page_tells_where_it_was_made(self):
        for path in self.html.rglob("*"):
            if path.is_file():
                content = path.read_bytes() + path.name.encode()
                for place in (TREE, options.build.resolve()):
                    self.assertNotIn(bytes(place), content, path)
                self.assertIsNone(re.search(rb"\bdir_[0-9a-f]{32}", content), path)

    def test_folders_may_have_blanks(self):
        with tempfile.TemporaryDirectory(prefix="qor.") as folder:
            tree, made = Path(folder, "a tree"), Path(folder, "the pages")
            tree.symlink_to(TREE)
            made.mkdir()
            settings = (options.build / "qorcore/reference/Doxyfile").read_text().replace(str(TREE), str(tree))
            settings += f'OUTPUT_DIRECTORY = "{made}"\n'
            done = subprocess.run(["doxygen", "-"], input=settings, text=True, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT)
            self.assertEqual((done.stdout, done.returncode), ("", 0))
            subprocess.run([sys.executable, tree / "qorcore/reference/names.py", made / "html"], check=True)
            self.assertEqual({path.name for path in (made / "html").iterdir()},
                             {path.name for path in self.html.iterdir()})

    def test_links_to_values_are_right(self):
        """A parameter with the name of a value of a scoped enumeration is no link; a value is one."""
        self.assertRegex(self.page("classqorString.html"), r"\(const char \*text, ")
        whole = "".join(path.read_text() for path in self.html.glob("*.html"))
        names = re.findall(r'#(?:gg)?a[0-9a-f]{32}a[0-9a-f]{32}">(\w[\w:]*)</a>', whole)
        self.assertIn("qorConfigKind::text", names)
        self.assertEqual({name for name in names if name.islower() and not name.startswith("qor")}, set())

    def test_headings_of_groups_are_sentences(self):
        self.assertIn("Searching: returns the position, or -1.", self.page("classqorString.html"))
        pages = [path for path in self.html.glob("*.html") if not path.stem.endswith("_source")]
        self.assertEqual([path.name for path in pages if "-&mdash;" in path.read_text()], [])

    def test_names_keep_their_capitals(self):
        self.assertIn("Files in TOML, with layers", self.page("group__family__configuration.html"))

    def test_light_and_dark(self):
        self.assertIn('href="style.css"', self.page("index.html"))
        self.assertIn("prefers-color-scheme: dark", self.page("style.css"))


class Families(unittest.TestCase):
    def test_what_is_wrong_is_found(self):
        whole = reference.read_families()
        reference.check(whole)
        for wrong, message in ((whole[1:], "is in no family"), ([*whole, whole[0]], "is in two families"),
                               ([*whole, whole[0]._replace(headers=["qor/none.h"])], "qor/none.h is not there"),
                               ([whole[0]._replace(examples=[]), *whole[1:]], "has no example")):
            with self.assertRaises(SystemExit) as ended:
                reference.check(wrong)
            self.assertIn(message, str(ended.exception))


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--build", type=Path, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
