#!/usr/bin/env python3
"""The page of a heap profile in real browsers.

    page_test.py --maker MAKE_OUTPUTS --browser chromium|firefox

The numbers that are expected are those of tests/qor-heap/support/made_profiles.cpp, added up here.
"""

import argparse
import http.server
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

import browser as browsers

options = None

ROW = 19  # pixels of a row of the flame graph

FAINT = {"light": (0xe3, 0xe5, 0xe8), "dark": (0x2a, 0x2f, 0x38)}
FOUND = {"light": (0xff, 0x7a, 0xb8), "dark": (0xc0, 0x2d, 0x78)}


def kib(value):
    """Returns bytes as the page shows them."""
    if value < 1024:
        return f"{value:,} B"
    power = 1 if value < 1024 ** 2 else 2 if value < 1024 ** 3 else 3
    value /= 1024 ** power
    shown = f"{value:,.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"
    if "." in shown:
        shown = shown.rstrip("0").rstrip(".")
    return f"{shown} {'KMG'[power - 1]}iB"


class PageCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.browser = browsers.open_browser(options.browser)
        cls.addClassCleanup(cls.browser.__exit__)

    def make(self, kind, *words, language="C"):
        folder = self.folder / "-".join([kind, language, *words])
        if not folder.exists():
            folder.mkdir()
            environment = dict(os.environ, LC_ALL=language, QOR_LANGUAGE="" if language == "C" else language)
            subprocess.run([options.maker, kind, folder, *words], check=True, env=environment)
        return folder / "page.html"

    def open(self, page, state="ready"):
        self.browser.open(page.as_uri() if isinstance(page, pathlib.Path) else page)
        found = self.browser.wait_for("return document.documentElement.dataset.state")
        self.assertEqual(found, state, self.browser.messages() if found != state else "")

    def check_console(self, allowed=()):
        messages = [each for each in self.browser.messages() if not any(part in each for part in allowed)]
        self.assertEqual(messages, [])

    def rows(self):
        """Returns the rows of the table that are in sight."""
        return self.browser.run(
            "return [...document.querySelectorAll('#places tbody tr[data-row]')]"
            ".map(row => [...row.cells].map(cell => cell.textContent))")

    def headings(self):
        return self.browser.run("return [...document.querySelectorAll('#places th')].map(cell => cell.textContent)")

    def column(self, name):
        index = self.headings().index(name)
        return [row[index] for row in self.rows()]

    def choose(self, name, value):
        self.browser.click(f"input[name={name}][value='{value}']")

    def pick(self, selector, value):
        self.browser.run("const s = document.querySelector(arguments[0]); s.value = arguments[1];"
                         "s.dispatchEvent(new Event('change', {bubbles: true}))", selector, value)

    def search(self, text):
        self.browser.click("#search")
        self.browser.press("Escape", *text)
        self.assertTrue(self.browser.wait_for("return document.querySelector('#found').dataset.text === arguments[0]", text))

    def width(self):
        return self.browser.run("return document.querySelector('#flame').clientWidth")

    def box(self, share, row):
        """Returns what the page says of the box at a place of the flame graph: a share of its width, and a row."""
        self.browser.point("#flame", self.width() * share, row * ROW + ROW // 2)
        return self.browser.text("#box")

    def colour(self, share, row):
        # A copy, because reading from the canvas itself would slow it down.
        return tuple(self.browser.run("""
            const canvas = document.querySelector("#flame"), ratio = window.devicePixelRatio;
            const copy = document.createElement("canvas").getContext("2d", {willReadFrequently: true});
            copy.drawImage(canvas, -Math.floor(arguments[0] * canvas.width), -Math.floor((arguments[1] + 0.85) * ratio));
            return [...copy.getImageData(0, 0, 1, 1).data].slice(0, 3)""", share, row * ROW + 1))


class Shop(PageCase):
    """A small profile, whose numbers are known one by one."""

    def setUp(self):
        self.open(self.make("shop"))

    def test_sums(self):
        cards = self.browser.run("return [...document.querySelectorAll('.card')].map(card => [...card.children].map(e => e.textContent))")
        self.assertEqual(cards, [["Live at the end", kib(10024), "15 blocks"], ["At peak", kib(15024), "47 blocks"],
                                 ["Allocated", kib(25124), "101 blocks"], ["Temporary", kib(5600), "9 blocks"]])
        self.assertEqual(self.browser.run("return document.title"), "Heap of shop")
        about = self.browser.text(".about")
        for part in "/opt/shop/bin/shop", "/home/ann/shop.mtrace", "process 4711", "2026-09-21 14:13:20 UTC":
            self.assertIn(part, about)
        self.assertIn("not allocated: 2", self.browser.text("#notes"))

    def test_table(self):
        self.assertEqual(self.headings(), ["Live", "Peak", "Allocated", "Temporary", "Function", "Source line", "Type", "Module"])
        self.assertEqual(self.rows()[:3], [
            [kib(6000), kib(6000), kib(6000), "0 B", "growsstore_put", "store.c:31", "shop.item", "libstore.so"],
            [kib(3000), kib(3000), kib(8000), kib(5000), "libstore.so+0x900", "", "", "libstore.so"],
            [kib(1000), kib(4000), kib(9000), "500 B", "copy_text", "text.cpp:5", "", "shop"]])
        self.assertEqual(len(self.rows()), 6)
        titles = self.browser.run("return [...document.querySelector('#places tbody tr[data-row]').cells].map(cell => cell.title)")
        self.assertEqual(titles[0], "6,000 bytes (59.9 %)")
        self.assertEqual(titles[5:8], ["/src/store/store.c:31", "shop.item", "/usr/lib/libstore.so"])

    def test_blocks(self):
        self.choose("unit", 1)
        self.assertEqual(self.column("Live"), ["10", "3", "1", "1", "0", "0"])
        self.assertEqual(self.box(0.3, 1), "main, shop · /src/shop/main.cpp:12, 14 (93.3 %)".replace("shop ·", "/opt/shop/bin/shop ·"))

    def test_sort(self):
        self.browser.click("#places th button[data-key=function]")
        names = self.column("Function")
        self.assertEqual(names, ["/opt/shop/bin/shop:[0x4242]", "0x7f00", "copy_text", "libstore.so+0x900", "growsstore_put", "store_put"])
        sorted_by = "return [...document.querySelectorAll('th[aria-sort]')].map(th => [th.textContent, th.ariaSort])"
        self.assertEqual(self.browser.run(sorted_by), [["Function", "ascending"]])
        self.browser.click("#places th button[data-key=function]")
        self.assertEqual([name.replace("grows", "") for name in self.column("Function")],
                         [name.replace("grows", "") for name in reversed(names)])
        self.assertEqual(self.browser.run(sorted_by), [["Function", "descending"]])
        self.browser.click("#places th button[data-key=temporary]")
        self.assertEqual(self.column("Temporary"), [kib(5000), "500 B", "100 B", "0 B", "0 B", "0 B"])
        self.browser.click("#places th button[data-key=source]")
        self.assertEqual(self.column("Source line")[-3:], ["store.c:31", "store.c:31", "text.cpp:5"])

    def test_groups(self):
        self.pick("#grouping", "line")
        self.assertEqual(self.rows()[0][:5], [kib(6000), kib(8000), kib(8000), "0 B", "growsstore_put"])
        self.pick("#grouping", "type")
        self.assertEqual([row[0] for row in self.rows()], [kib(6000), kib(4024)])
        self.pick("#grouping", "module")
        self.assertEqual(self.rows(), [[kib(9000), kib(11000), kib(16000), kib(5000), "growslibstore.so"],
                                       ["1,000 B", kib(4000), kib(9000), "500 B", "shop"],
                                       ["24 B", "24 B", "124 B", "100 B", ""]])
        self.pick("#grouping", "function")
        self.assertEqual(len(self.rows()), 5)

    def test_growing(self):
        self.browser.click("#growing")
        self.assertEqual([row[4] for row in self.rows()], ["growsstore_put"])

    def test_flame_graph(self):
        self.assertEqual(self.box(0.5, 0), f"everything, {kib(10024)} (100 %)")
        self.assertEqual(self.box(0.5, 1), f"main, /opt/shop/bin/shop · /src/shop/main.cpp:12, {kib(10000)} (99.8 %)")
        self.assertEqual(self.box(0.85, 3), f"store_put, /usr/lib/libstore.so · /src/store/store.c:31, {kib(9000)} (89.8 %)")
        self.assertEqual(self.box(0.29, 4), f"libstore.so+0x900, /usr/lib/libstore.so, {kib(3000)} (29.9 %)")
        self.assertEqual(self.box(0.31, 4), "")
        # The inlined function stands below the one that it is inlined in.
        self.assertIn("parse(char const*), ", self.box(0.95, 3))
        self.assertIn("copy_text, ", self.box(0.95, 4))
        self.choose("measure", 1)
        self.assertEqual(self.box(0.5, 0), f"everything, {kib(15024)} (100 %)")
        self.assertEqual(self.box(0.7, 3), f"store_put, /usr/lib/libstore.so · /src/store/store.c:31, {kib(11000)} (73.2 %)")
        self.choose("measure", 2)
        self.assertEqual(self.box(0.5, 0), f"everything, {kib(25124)} (100 %)")
        self.choose("measure", 3)
        self.assertIn(f"{kib(5000)} (89.3 %)", self.box(0.5, 4))

    def test_zoom(self):
        self.browser.click("#flame", self.width() * 0.95, 3 * ROW + 5)
        path = "return [...document.querySelectorAll('#path button')].map(button => button.textContent)"
        self.assertEqual(self.browser.run(path), ["everything", "main", "serve(request const&)", "parse(char const*)"])
        self.assertIn("copy_text, ", self.box(0.02, 4))
        self.assertIn("copy_text, ", self.box(0.98, 4))
        self.browser.click("#path li:nth-child(2) button")
        self.assertIn("store_put, ", self.box(0.02, 3))
        self.browser.click("#path li:nth-child(1) button")
        self.assertEqual(self.browser.run(path), ["everything"])

    def test_keyboard(self):
        self.browser.focus("#flame")
        self.browser.press("Down")
        self.assertIn("everything", self.browser.text("#box"))
        said = []
        for key in "Down", "Down", "Down", "Right", "Down", "Up", "Left":
            self.browser.press(key)
            said.append(self.browser.text("#box").split(",")[0])
        self.assertEqual(said, ["main", "serve(request const&)", "store_put", "parse(char const*)", "copy_text",
                                "parse(char const*)", "store_put"])
        self.browser.press("Enter")
        self.assertEqual(self.browser.run("return document.querySelectorAll('#path button').length"), 4)
        self.browser.press("Backspace")
        self.assertEqual(self.browser.run("return document.querySelectorAll('#path button').length"), 3)
        self.browser.press("Escape")
        self.assertTrue(self.browser.run("return document.querySelector('#path').parentElement.hidden"))
        self.browser.press("/")
        self.assertEqual(self.browser.run("return document.activeElement.id"), "search")
        self.browser.focus("#places")
        self.browser.press("Down", "Down", "Down")
        stack = "return [...document.querySelectorAll('#stack li')].map(item => [...item.children].map(e => e.textContent))"
        self.assertEqual(self.browser.run(stack), [
            ["copy_text", "/src/shop/text.cpp:5 · /opt/shop/bin/shop"], ["parse(char const*)", "/src/shop/parse.cpp:88 · /opt/shop/bin/shop"],
            ["serve(request const&)", "/src/shop/serve.cpp:40 · /opt/shop/bin/shop"], ["main", "/src/shop/main.cpp:12 · /opt/shop/bin/shop"]])
        self.browser.press("Enter")
        self.assertEqual(self.browser.run("return document.querySelectorAll('#path button').length"), 5)
        self.browser.press("End")
        self.assertEqual(self.browser.run("return document.querySelector('tr[aria-selected=true]').dataset.row"), "5")
        self.assertEqual(self.browser.run("return document.querySelector('#places').getAttribute('aria-activedescendant')"), "selected-row")

    def test_the_tab_key_reaches_all_controls(self):
        self.browser.focus("#theme")
        reached = []
        for _ in range(16):
            self.browser.press("Tab")
            reached.append(self.browser.run("const e = document.activeElement; return e.id || e.name || e.dataset.key || e.tagName"))
        wanted = ["timeline", "measure", "unit", "growing", "search", "flame", "grouping", "places", "live", "function"]
        self.assertEqual([each for each in reached if each in wanted], wanted, reached)

    def test_timeline(self):
        self.assertEqual(self.browser.text("#peak-label"), f"Peak {kib(15024)} at 2.5 s")
        self.browser.focus("#timeline")
        self.browser.press("p")
        self.assertEqual(self.browser.text("#moment"), f"2.5 s: {kib(15024)} live in 47 blocks")
        self.browser.press("Left")
        self.assertEqual(self.browser.text("#moment"), f"1 s: {kib(8000)} live in 20 blocks")
        self.browser.press("End")
        self.assertEqual(self.browser.text("#moment"), f"4 s: {kib(10024)} live in 15 blocks")
        # The peak is drawn where its time and its bytes are.
        circle, line, box = self.browser.run(
            "const c = document.querySelector('#timeline circle'); const s = document.querySelector('#timeline');"
            "return [[+c.getAttribute('cx'), +c.getAttribute('cy')], document.querySelector('path.line').getAttribute('d'), s.viewBox.baseVal.width]")
        self.assertAlmostEqual(circle[0], 76 + (box - 76 - 14) * 2.5 / 4, delta=1)
        self.assertAlmostEqual(circle[1], min(float(y) for y in re.findall(r"V([\d.]+)", line)), delta=0.5)
        table = self.browser.run("return [...document.querySelectorAll('#moments tbody tr')].map(row => [...row.cells].map(cell => cell.textContent))")
        self.assertEqual(table, [["0 s", "24 B", "1"], ["1 s", kib(8000), "20"], ["2.5 s", kib(15024), "47"], ["4 s", kib(10024), "15"]])

    def test_search(self):
        self.search("copy")
        self.assertEqual(self.browser.text("#found"), f"Found: {kib(1000)} (10 %), places: 1")
        self.assertEqual(self.column("Function"), ["copy_text"])
        self.assertEqual(self.colour(0.95, 4), FOUND["light"])
        self.assertEqual(self.colour(0.2, 4), FAINT["light"])
        self.search("SHOP.item")
        self.assertEqual(self.column("Type"), ["shop.item"])
        self.search("store.c")
        self.assertEqual(self.browser.text("#found"), f"Found: {kib(9000)} (89.8 %), places: 3")
        self.search("nothing has this name")
        self.assertEqual(self.rows(), [])
        self.search("")
        self.assertEqual(len(self.rows()), 6)

    def test_dark_and_light(self):
        paper = "return getComputedStyle(document.body).backgroundColor"
        light, box = self.browser.run(paper), self.colour(0.3, 3)
        self.browser.prefer_dark(True)
        try:
            self.assertTrue(self.browser.wait_for("return matchMedia('(prefers-color-scheme: dark)').matches"))
            self.browser.wait_for_drawing()
            self.assertNotEqual(self.browser.run(paper), light)
            self.assertNotEqual(self.colour(0.3, 3), box)
            self.pick("#theme", "light")
            self.assertEqual((self.browser.run(paper), self.colour(0.3, 3)), (light, box))
        finally:
            self.browser.prefer_dark(False)
        self.pick("#theme", "dark")
        self.assertNotEqual(self.browser.run(paper), light)
        self.search("copy")
        self.assertEqual(self.colour(0.95, 4), FOUND["dark"])
        self.search("")
        # Text and its ground are far enough apart to be read, in both.
        for theme in "light", "dark":
            self.pick("#theme", theme)
            for selector in "body", ".about", ".card dt", ".hint", "#places th", "#places td.source", ".badge":
                with self.subTest(theme=theme, selector=selector):
                    self.assertGreaterEqual(self.contrast(selector), 4.5)

    def contrast(self, selector):
        """Returns the contrast ratio of WCAG."""
        colours = self.browser.run("""
            const element = document.querySelector(arguments[0]);
            let ground = element;
            while (ground && /, 0\\)|transparent/.test(getComputedStyle(ground).backgroundColor)) ground = ground.parentElement;
            return [getComputedStyle(element).color, getComputedStyle(ground).backgroundColor]""", selector)
        lights = []
        for colour in colours:
            parts = [int(part) / 255 for part in re.findall(r"\d+", colour)[:3]]
            parts = [part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
            lights.append(0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2])
        return (max(lights) + 0.05) / (min(lights) + 0.05)

    def test_no_message_and_no_request(self):
        page = self.make("shop-compared")
        self.open(page)
        self.search("store")
        self.browser.click("#flame", self.width() * 0.3, 3 * ROW + 5)
        self.pick("#theme", "dark")
        self.check_console()
        self.assertEqual(self.browser.requests(), [page.as_uri()])

    def test_nothing_but_the_page_is_asked_of_a_server(self):
        asked = []
        folder = self.make("shop").parent

        class Server(http.server.SimpleHTTPRequestHandler):
            def __init__(self, *words, **more):
                super().__init__(*words, directory=folder, **more)

            def log_message(self, *words):
                asked.append(self.path)

        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Server) as server:
            threading.Thread(target=server.serve_forever).start()
            try:
                self.open(f"http://127.0.0.1:{server.server_port}/page.html")
                self.browser.click("#flame", 20, 3 * ROW + 5)
                self.check_console()
            finally:
                server.shutdown()
        self.assertEqual(asked, ["/page.html"])

    def test_the_policy_lets_no_other_script_run(self):
        text = self.make("shop").read_text()
        changed = self.folder / "changed.html"
        changed.write_text(text.replace("<main>", "<script>document.title = 'run'</script><main>"
                                        "<img src='data:,' onerror=\"document.title = 'run'\"><p style='color: red' id='red'>"))
        self.open(changed)
        self.assertEqual(self.browser.run("return document.title"), "Heap of shop")
        self.assertNotEqual(self.browser.run("return getComputedStyle(document.querySelector('#red')).color"), "rgb(255, 0, 0)")
        self.assertTrue(any("Content" in each and "olicy" in each for each in self.browser.messages()))

    def test_damaged_data(self):
        text = self.make("shop").read_text()
        begin = text.index('id="data">') + 80
        for name, damaged in ("cut", text[:begin] + text[text.index("</script>", begin):]), ("changed", text[:begin] + "AAAA" + text[begin + 4:]):
            with self.subTest(name):
                page = self.folder / "damaged.html"
                page.write_text(damaged)
                self.open(page, "failed")
                self.assertIn("cannot be read", self.browser.run("return document.querySelector('#failure').innerText"))

    def test_languages(self):
        self.open(self.make("shop", language="de"))
        self.assertEqual(self.browser.run("return document.documentElement.lang"), "de")
        self.assertEqual(self.headings()[4:6], ["Funktion", "Quellzeile"])
        self.assertEqual(self.column("Lebend")[0], "5,86 KiB")
        self.open(self.make("shop", language="fr"))
        self.assertEqual(self.browser.text("h1"), "Tas de shop")
        self.check_console()

    def test_an_anonymous_page_names_no_folder(self):
        self.open(self.make("shop", "anonymous"))
        everything = self.browser.run("return document.documentElement.outerHTML + JSON.stringify(page.recording.head)")
        for part in "/opt/", "/home", "ann/", "/src/", "/usr/":
            self.assertFalse(part in everything, part)
        self.assertIn("shop:[0x4242]", everything)

    def test_a_screen_reader(self):
        if options.browser != "chromium":
            self.skipTest("WebDriver has no accessibility tree")
        labels = self.browser.labels()
        for wanted in (("grid", "Places"), ("table", "Live memory over the run"), ("searchbox", "Search"),
                       ("radio", "Live at the end"), ("heading", "Flame graph"), ("columnheader", "Source line"),
                       ("gridcell", "store.c:31"), ("application", "Flame graph"), ("combobox", "Theme")):
            self.assertIn(wanted, labels)
        self.assertEqual([role for role, name in labels if role in ("button", "checkbox", "combobox") and not name], [])


class Comparison(PageCase):
    def setUp(self):
        self.open(self.make("shop-compared"))

    def test_table(self):
        self.assertEqual(self.headings()[:5], ["Before", "Now", "Change", "Function", "Source line"])
        self.assertEqual([row[:4] for row in self.rows()], [
            [kib(2000), kib(6000), "+" + kib(4000), "growsstore_put"], ["0 B", kib(3000), "+" + kib(3000), "libstore.so+0x900"],
            ["0 B", "24 B", "+24 B", "/opt/shop/bin/shop:[0x4242]"], ["0 B", "0 B", "0 B", "store_put"],
            ["0 B", "0 B", "0 B", "0x7f00"], [kib(1500), "1,000 B", "−500 B", "copy_text"], ["700 B", "0 B", "−700 B", "old_index(int)"]])
        self.choose("measure", 2)
        self.assertEqual(self.rows()[0][:4], ["0 B", kib(8000), "+" + kib(8000), "libstore.so+0x900"])

    def test_sums(self):
        self.assertEqual(self.browser.run("return document.querySelector('#card-live').lastChild.textContent"), f"change: +{kib(10024 - 4200)}")
        self.assertIn("process 4000", self.browser.text(".about.comparison"))

    def test_flame_graph(self):
        # The width is that of the larger run: 6,000 + 3,000 + 1,500 + 700 + 24.
        whole = 11224
        self.assertEqual(self.box(0.5, 0), f"everything, {kib(whole)} (100 %), change: +{kib(10024 - 4200)}")
        self.assertIn("change: +6.84 KiB", self.box(0.5, 3))
        self.assertIn(f"old_index(int), /opt/shop/bin/shop · /src/shop/index.cpp:3, 700 B ({700 / whole:.1%}), change: −700 B".replace("%)", " %)"),
                      self.box(1 - (24 + 350) / whole, 2))
        grown, gone = self.colour(0.2, 4), self.colour(1 - (24 + 350) / whole, 2)
        self.assertGreater(grown[0], grown[2])
        self.assertGreater(gone[2], gone[0])

    def test_timeline(self):
        self.assertEqual(self.browser.run("return [...document.querySelectorAll('#timeline path')].map(p => p.getAttribute('class'))"),
                         ["line earlier", "area", "line"])
        self.check_console()


class Large(PageCase):
    """100,000 places."""

    def test_numbers_and_speed(self):
        page = self.make("large")
        self.assertLessEqual(page.stat().st_size, 10 << 20)
        self.open(page)
        live = [16 * (i % 500 + 1) for i in range(100_000)]
        allocated = [bytes * (i % 13 + 1) for i, bytes in enumerate(live)]
        self.assertEqual(self.browser.run("return document.querySelector('#card-live').children[1].textContent"), kib(sum(live)))
        self.assertEqual(self.browser.run("return [page.recording.sum(0, 0, 0), page.recording.sum(0, 2, 0)]"), [sum(live), sum(allocated)])
        self.assertEqual(self.browser.run("return document.querySelector('#places').getAttribute('aria-rowcount')"), "100001")
        self.assertLess(self.browser.run("return document.querySelectorAll('#places tr').length"), 60)
        self.browser.click("#places th button[data-key=allocated]")
        self.assertEqual(self.column("Allocated")[0], kib(max(allocated)))
        self.browser.focus("#places")
        self.browser.press("End")
        self.assertEqual(self.column("Allocated")[-1], kib(min(allocated)))
        self.assertEqual(self.browser.run("return document.querySelector('tr[aria-selected=true]').getAttribute('aria-rowindex')"), "100001")
        # A leaf's name is on every 20,000th place, and its number begins those of others.
        self.search("leaf_19999::")
        found = [i for i in range(100_000) if i % 20_000 == 19_999]
        self.assertEqual(self.browser.text("#found"), f"Found: {kib(sum(live[i] for i in found))} (0 %), places: {len(found)}")
        self.assertEqual(len(self.rows()), len(found))
        worker = sum(bytes for i, bytes in enumerate(live) if i % 10 == 9)
        self.assertEqual(self.box(0.02, 2), f"worker_9::run(), /usr/lib/large/libpart_0.so · /src/large/worker.cpp:10, {kib(worker)} ({worker / sum(live):.1%})".replace("%)", " %)"))
        self.pick("#grouping", "function")
        self.assertEqual(self.browser.run("return document.querySelector('#places').getAttribute('aria-rowcount')"),
                         str(1 + len({i % 12 for i in found})))  # the name is in that many modules
        self.check_console()

    def test_comparison(self):
        self.open(self.make("large-compared"))
        self.assertIn("MiB", self.browser.run("return document.querySelector('#card-live').lastChild.textContent"))
        self.check_console()

    def test_more_places_are_summed_up(self):
        page = self.make("larger")
        self.assertLessEqual(page.stat().st_size, 10 << 20)
        self.open(page)
        live = [16 * (i % 500 + 1) for i in range(150_000)]
        self.assertEqual(self.browser.run("return page.recording.sum(0, 0, 0)"), sum(live))
        self.assertEqual(self.browser.run("return document.querySelector('#places').getAttribute('aria-rowcount')"), "100002")
        self.assertIn("50000", self.browser.text("#notes"))
        self.search("(50000 smaller")
        self.assertEqual(len(self.rows()), 1)


    def test_names_that_do_not_compress(self):
        page = self.make("random-names")
        self.assertLessEqual(page.stat().st_size, 10 << 20)
        self.assertGreater(page.stat().st_size, 2 << 20)
        self.open(page)
        self.assertEqual(self.browser.run("return page.recording.sum(0, 0, 0)"), sum(range(20_001)))
        self.assertIn("smallest places", self.browser.text("#notes"))
        self.assertEqual(self.column("Live")[1], kib(20_000))


class Odd(PageCase):
    def test_code_of_the_language_is_passed_over(self):
        for words in ["anonymous"], []:
            self.open(self.make("library-code", *words))
            self.assertEqual([row[4:6] for row in self.rows()],
                             [["app::fill(int)", "fill.cpp:7"], ["app::fill(int)", "fill.cpp:7"], ["std::locale::init()", ""]])
        self.pick("#grouping", "line")
        self.assertEqual([row[0] for row in self.rows()], ["900 B", "100 B"])
        # Its boxes are paler.
        self.assertGreater(sum(self.colour(0.8, 3)), sum(self.colour(0.8, 1)))
        # The flame graph and the stack have all of it.
        self.assertIn("std::string::append(char const*), ", self.box(0.1, 4))
        self.browser.click("#places tbody tr[data-row='0']")
        self.assertEqual(self.browser.run("return document.querySelectorAll('#stack li').length"), 3)
        self.check_console()

    def test_names_are_data(self):
        self.open(self.make("hostile"))
        self.browser.click("#flame", 10, ROW + 5)
        self.browser.press("Escape")
        self.browser.focus("#places")
        for _ in range(20):
            self.browser.press("Down")
        self.assertEqual(self.browser.run("return document.title"), "Heap of script>�[2J")
        self.assertEqual(self.browser.run("return document.querySelectorAll('main img, main b, main script, h1 *, .about *').length"), 0)
        names = self.column("Function")
        for name in ("<img src=x onerror=document.title='broken'>", "</script><script>document.title='broken'</script>", "__proto__",
                     "constructor", "{{data}} {1} $& %s", "\"quoted\", 'and' \\back\\slashed", "�]0;owned��[31m", "�txt.exe"):
            self.assertIn(name, names)
        self.check_console()
        self.assertEqual(self.browser.run("return page.recording.texts.filter(text => /[\\u0000-\\u001f\\u202e]/.test(text)).length"), 0)

    def test_an_empty_profile(self):
        self.open(self.make("empty"))
        self.assertEqual(self.browser.run("return document.title"), "Heap of an unknown program")
        self.assertEqual(self.rows(), [])
        self.browser.focus("#timeline")
        self.browser.press("Right", "p")
        self.browser.focus("#flame")
        self.browser.press("Down", "Enter", "Right", "Escape")
        self.browser.focus("#places")
        self.browser.press("Down", "End", "Enter")
        self.check_console()


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--maker", required=True, type=pathlib.Path)
    parser.add_argument("--browser", required=True, choices=browsers.BROWSERS)
    options, rest = parser.parse_known_args()
    unittest.main(argv=sys.argv[:1] + rest)


if __name__ == "__main__":
    main()
