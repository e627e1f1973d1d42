// The file object with Windows specials: devices, and named pipes.
#include "platform/raw_file.h"
#include "qor/qor.h"
#include "reader_support.h"

#include <gtest/gtest.h>

#include <windows.h>

namespace {

constexpr uint32 reading = qorFileReading | qorFileExisting | qorFileShared;

void expect_no_disk_file(const char* path) {
    qorFile from;
    EXPECT_FALSE(from.Open(path, reading)) << path;
    EXPECT_EQ(qor::test::last_error(),
              std::string("Cannot open '") + path + "': it is a pipe or a device, not a file on a disk.");
}

} // namespace

TEST(windows_file, devices) {
    expect_no_disk_file("NUL");
    expect_no_disk_file("\\\\.\\NUL");
}

TEST(windows_file, a_pipe) {
    const HANDLE pipe =
        CreateNamedPipeW(L"\\\\.\\pipe\\qor.file_test", PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 100, 100, 0, nullptr);
    ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
    expect_no_disk_file("\\\\.\\pipe\\qor.file_test");
    CloseHandle(pipe);
}

TEST(windows_file, both_separators) {
    const qor::test::temp_folder folder;
    std::string path = folder.file("f", "x");
    qorFile from;
    EXPECT_TRUE(from.Open(path.c_str(), reading));
    for (char& c : path)
        c = c == '/' ? '\\' : c;
    EXPECT_TRUE(from.Open(path.c_str(), reading));
}

// Another program must not inherit our handles.
TEST(windows_file, child_processes_do_not_inherit_it) {
    const qor::test::temp_folder folder;
    const std::string path = folder.file("f", "x");
    for (const bool is_private : {false, true}) {
        qor::platform::raw_file::terms terms;
        terms.writes = terms.creates = true;
        terms.is_private = is_private;
        qor::platform::raw_file file;
        ASSERT_EQ(file.open(path.c_str(), terms), 0);
        DWORD flags = HANDLE_FLAG_INHERIT;
        ASSERT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(file.handle()), &flags));
        EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
    }
}
