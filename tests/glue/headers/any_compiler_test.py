#!/usr/bin/env python3
"""Looks for what only some compilers know in the public headers: it may stand in qor/glue/compiler.h alone. Also for
`min` and `max` where the macros of windows.h would replace them: they stand in brackets, (std::min)(a, b).

    any_compiler_test.py --include FOLDER
"""

import argparse
import re
import sys
import unittest
from pathlib import Path

HOME = "qor/glue/compiler.h"
OF_ONE_COMPILER = [
    r"__attribute__", r"__PRETTY_FUNCTION__", r"__FUNCSIG__", r"\[\[\s*(?:gnu|clang|msvc)\s*::", r"__builtin_\w+",
    r"__extension__", r"__typeof(?:__)?", r"\btypeof\b", r"\b__?asm\b", r"__int128", r"#\s*pragma\s+(?:GCC|clang|section)",
    r"__GNUC__", r"__GNUG__", r"__clang__", r"__MINGW\w+", r"_MSC_\w+", r"_MSVC_\w+", r"__has_builtin", r"\?:",
    r"__declspec\((?!dllimport|noreturn)",
]
EXTREME = r"(?<![\w.>])(?:std::)?\b(?:min|max)\s*\(|::(?:min|max)\s*\(|[.>](?:min|max)\s*\("
COMMENT_OR_TEXT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.DOTALL)

options = None


def code_of(text):
    """Returns the text without its comments and string literals, with the same lines."""
    return COMMENT_OR_TEXT.sub(lambda found: re.sub(r"[^\n]", " ", found.group()), text)


def findings(text, patterns):
    """Returns (line, what stands there) of each match in the code of a header."""
    code = code_of(text)
    return [(code.count("\n", 0, found.start()) + 1, found.group()) for pattern in patterns
            for found in re.finditer(pattern, code)]


class AnyCompiler(unittest.TestCase):
    def headers(self):
        paths = [path for path in options.include.rglob("*") if path.suffix in (".h", ".def")]
        self.assertGreater(len(paths), 50)
        return {path.relative_to(options.include).as_posix(): path.read_text() for path in paths}

    def test_only_one_header_knows_compilers(self):
        headers = self.headers()
        self.assertNotEqual(findings(headers.pop(HOME), OF_ONE_COMPILER), [])
        found = {name: findings(text, OF_ONE_COMPILER) for name, text in headers.items()}
        self.assertEqual({name: at for name, at in found.items() if at}, {})

    def test_min_and_max_stand_in_brackets(self):
        found = {name: findings(text, [EXTREME]) for name, text in self.headers().items()}
        self.assertEqual({name: at for name, at in found.items() if at}, {})

    def test_what_is_looked_for_is_found(self):
        for line in ("int f() __attribute__((cold));", "auto a = __PRETTY_FUNCTION__;", "[[gnu::cold]] int f();",
                     "int a = __builtin_clz(1);", "#if defined(__GNUC__)", "#pragma GCC poison x", "#ifdef _MSC_VER",
                     "int a = b ?: c;", "__declspec(noinline) int f();", "__int128 a;"):
            self.assertEqual(len(findings("// [[gnu::cold]]\n" + line, OF_ONE_COMPILER)), 1, line)
        self.assertEqual(findings('__declspec(dllimport) int f(); // __GNUC__\nconst char a[] = "__GNUC__";',
                                  OF_ONE_COMPILER), [])
        for line in ("std::min(a, b)", "using namespace std; max (a, b)", "std::numeric_limits<int>::max()", "a.min()"):
            self.assertEqual(len(findings(line, [EXTREME])), 1, line)
        for line in ("(std::min)(a, b)", "(std::numeric_limits<int>::max)()", "least_min(a)", "int min = 0;"):
            self.assertEqual(findings(line, [EXTREME]), [], line)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--include", type=Path, required=True)
    options = parser.parse_args()
    unittest.main(argv=sys.argv[:1], verbosity=2)
