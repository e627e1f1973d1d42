#include "qor/glue/wide_path_windows.h"
#include "regular_file.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

using qor::heap_tool::size_of_regular_file;

// A pipe with one place for a reader: who opens it to look what it is takes the place.
TEST(regular_file, is_no_pipe_and_leaves_the_place_of_its_reader_alone) {
    const std::string name = R"(\\.\pipe\qor-heap-regular-file-)" + std::to_string(GetCurrentProcessId());
    const std::wstring wide = qor::glue::wide_path(name);
    const HANDLE writer = CreateNamedPipeW(wide.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 100, 100, 0, nullptr);
    ASSERT_NE(writer, INVALID_HANDLE_VALUE) << GetLastError();
    std::string slashes = name;
    for (char& c : slashes)
        if (c == '\\')
            c = '/';
    EXPECT_FALSE(size_of_regular_file(name));
    EXPECT_FALSE(size_of_regular_file(slashes));
    const HANDLE reader = CreateFileW(wide.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(reader, INVALID_HANDLE_VALUE) << GetLastError();
    DWORD count = 0;
    EXPECT_TRUE(WriteFile(writer, "= Start\n", 8, &count, nullptr)) << GetLastError();
    CloseHandle(reader);
    CloseHandle(writer);
}

TEST(regular_file, is_no_device) { EXPECT_FALSE(size_of_regular_file("NUL")); }

} // namespace
