#include "heap/symbols/windows_path.h"

#include <gtest/gtest.h>

namespace {

using qor::heap::is_on_drive;

TEST(windows_path, takes_files_on_drives) {
    for (const char* const path :
         {"C:\\a", "c:/a", "Z:\\Program Files\\a b\\c.dll", "C:\\a/b\\c", "C:\\console\\nul1.dll", "C:\\com10",
          "C:\\com", "C:\\lpt\\x", "C:\\a..b", "C:\\\xc3\xa4.dll", "C:\\null"})
        EXPECT_TRUE(is_on_drive(path)) << path;
}

TEST(windows_path, takes_nothing_else) {
    for (const char* const path : {"",
                                   "a",
                                   "a.dll",
                                   "\\a",
                                   "/usr/lib/a.so",
                                   "C:",
                                   "C:\\",
                                   "C:a",
                                   "C:a\\b",
                                   "1:\\a",
                                   "\\\\server\\share\\a",
                                   "//server/share/a",
                                   "\\/server/share",
                                   "\\\\?\\C:\\a",
                                   "\\\\.\\C:\\a",
                                   "\\??\\C:\\a",
                                   "file:///C:/a",
                                   "\\\\.\\pipe\\x",
                                   "C:\\nul",
                                   "C:\\NUL",
                                   "C:\\nul.txt",
                                   "C:\\a\\con",
                                   "C:\\aux.\\b",
                                   "C:\\nul .x",
                                   "C:\\prn ",
                                   "C:\\COM1",
                                   "c:\\lpt9.dll",
                                   "C:\\com\xc2\xb9",
                                   "C:\\conin$",
                                   "C:\\CONOUT$",
                                   "C:/a/nul/b",
                                   "C:\\a:stream",
                                   "C:\\a?",
                                   "C:\\a*",
                                   "C:\\a|b",
                                   "C:\\a\nb"})
        EXPECT_FALSE(is_on_drive(path)) << path;
    EXPECT_FALSE(is_on_drive({"C:\\a\0b", 6}));
}

} // namespace
