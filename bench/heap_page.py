#!/usr/bin/env python3
"""Times the page of a heap profile with 100,000 places in real browsers.

    heap_page.py --maker MAKE_OUTPUTS [--runs N | --brief]

"usable" is from the start of the navigation until everything is drawn and answers; the other figures are from a change
until everything is drawn again. Each figure is the median of the runs, in milliseconds.
"""

import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests/qor-heap/page"))
import browser as browsers  # noqa: E402

LIMIT = 3000  # until it is usable; and at most 10 MiB

# Runs a change, and returns how long it takes with its drawing.
TIMED = """
const start = performance.now(); %s;
page.flame.canvas.getContext("2d").getImageData(0, 0, 1, 1); document.querySelector("#places").offsetHeight;
return performance.now() - start;"""
CHANGES = {
    "at peak": "page.measure = 1; page.update()",
    "search": "page.search('leaf_19')",
    "by function": "page.search(''); page.table.grouping = 'function'; page.update()",
    "sort by name": "page.table.sortBy('function')",
    "zoom": "page.flame.zoom(page.tree.children[page.tree.first[1]])",
}


def measure(name, page, runs):
    figures = {each: [] for each in ("usable", *CHANGES)}
    for _ in range(runs):
        with browsers.open_browser(name) as browser:
            browser.open(page.as_uri())
            mark = "return (performance.getEntriesByName('usable')[0] || {}).startTime"
            figures["usable"].append(browser.wait_for(mark))
            for each, change in CHANGES.items():
                figures[each].append(browser.run(TIMED % change))
    return {each: statistics.median(values) for each, values in figures.items()}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--maker", required=True, type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--brief", action="store_true", help="one run, to see that it works")
    options = parser.parse_args()
    if options.brief:
        options.runs = 1
    is_too_slow = False
    with tempfile.TemporaryDirectory() as folder:
        for kind in "large", "large-compared":
            subprocess.run([options.maker, kind, folder], check=True)
            page = pathlib.Path(folder, "page.html")
            is_too_slow = is_too_slow or page.stat().st_size > 10 << 20
            print(f"{kind}: {page.stat().st_size / 2 ** 20:.2f} MiB")
            for name in browsers.BROWSERS:
                figures = measure(name, page, options.runs)
                is_too_slow = is_too_slow or figures["usable"] > LIMIT
                print(f"  {name:9}", "  ".join(f"{each} {value:.0f}" for each, value in figures.items()), flush=True)
    return int(is_too_slow)


if __name__ == "__main__":
    sys.exit(main())
