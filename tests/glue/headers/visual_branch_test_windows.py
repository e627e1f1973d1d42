#!/usr/bin/env python3
"""Compiles the public headers, behind the macros `min` and `max`, with what they have for Visual C++. That compiler itself
cannot run here: clang reads the standard library of g++, then takes on the macros by which Visual C++ is known, and
reads our headers with Microsoft's extensions and with a warning for each of GNU's.

    visual_branch_test_windows.py --compiler C++ --include FOLDER HEADER...
"""

import argparse
import re
import subprocess
import sys
import unittest
from pathlib import Path

CLANG = "clang++-16"
DISGUISE = """
#undef __GNUC__
#undef __GNUC_MINOR__
#undef __GNUC_PATCHLEVEL__
#undef __GNUG__
#undef __MINGW32__
#undef __MINGW64__
#undef __clang__
#undef __cplusplus
#define __cplusplus 199711L
#define _MSC_VER 1935
#define _MSVC_LANG {standard}
#define _MSVC_TRADITIONAL {traditional}
#define min(a, b) (((a) < (b)) ? (a) : (b))
#define max(a, b) (((a) > (b)) ? (a) : (b))
"""
CLIENT = """
QOR_MODULE("vendor-one", "1.0", nullptr, "vendor.one")
QOR_PRINTF(1, 2) inline int print(const char* format, ...) noexcept;
using qor::glue::type_in_signature;
static_assert(type_in_signature("consteval type_name() [with TYPE = a::b<c>; x = y]") == "a::b<c>");
static_assert(type_in_signature("type_name() [TYPE = IQORThread]") == "IQORThread");
static_assert(type_in_signature("class view __cdecl q::type_name<class IQORThread>(void)") == "IQORThread");
static_assert(type_in_signature("class view __cdecl q::type_name<struct a::b<int>>(void)") == "a::b<int>");
static_assert(type_in_signature("class view __cdecl q::type_name<unsigned int>(void) noexcept") == "unsigned int");
int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    zetSmartPointer<IQORThread> thread;
    const qorDebugSeq scope(qorDebugAllocateCode("code"), "%d", 1);
    qorString line;
    while (line.GetLine(stdin))
        line.Put(stdout, true);
    return fixed_fprintf(stderr, "%d", thread.IsEmpty() ? 1 : 0);
}
"""

options = None


def standard_headers():
    """The headers of other libraries that ours include. `format` is one that Visual C++ has and g++ 12 has not."""
    found = set()
    for header in options.headers:
        found.update(re.findall(r"^#include (<\S+>)", (options.include / header).read_text(), re.MULTILINE))
    return "".join(f"#include {name}\n" for name in sorted(found - {"<format>"}))


def findings(before, source, standard="202002L", traditional=0):
    """Compiles a source, its first part without the disguise; returns what the compiler says."""
    library = subprocess.run([options.compiler, "-print-file-name=include/c++"], capture_output=True, text=True,
                             check=True).stdout.strip()
    disguise = DISGUISE.format(standard=standard, traditional=traditional)
    done = subprocess.run([CLANG, "--target=x86_64-w64-windows-gnu", "-nostdinc++", "-isystem", library, "-isystem",
                           f"{library}/x86_64-w64-mingw32", "-std=c++20", "-fsyntax-only", "-fms-extensions",
                           "-fdelayed-template-parsing", "-Wall", "-Wextra", "-pedantic", "-Wgnu",
                           "-Wno-builtin-macro-redefined", "-I", options.include, "-x", "c++", "-"],
                          input=before + disguise + source, capture_output=True, text=True)
    return done.stderr


class VisualBranch(unittest.TestCase):
    def test_all_headers_with_a_client_and_a_module(self):
        ours = "".join(f'#include "{header}"\n' for header in options.headers)
        self.assertEqual(findings(standard_headers(), ours + CLIENT), "")

    def test_what_is_missing_is_said(self):
        self.assertIn("need C++20", findings("", '#include "qor/system/Types.h"\n', standard="201703L"))
        self.assertIn("/Zc:preprocessor", findings("", '#include "qor/system/Types.h"\n', traditional=1))

    def test_what_is_wrong_is_found(self):
        for source in ("int a = 1 ?: 2;", "int b = ({ 1; });", "auto c = std::min(1, 2);", "typedef int d[0];"):
            self.assertIn(":", findings("namespace std { int min(int, int); }\n", source), source)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("--include", type=Path, required=True)
    parser.add_argument("headers", nargs="+")
    options = parser.parse_args()
    unittest.main(argv=sys.argv[:1], verbosity=2)
