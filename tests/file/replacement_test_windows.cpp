// A file that is replaced on Windows keeps its access control list and stays hidden if it was.
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <sddl.h>
#include <string>
#include <vector>
#include <windows.h>

namespace {

using qor::test::last_error;

std::wstring wide(const std::string& path) {
    std::wstring out;
    EXPECT_TRUE(qor::platform::to_wide_path(path, out));
    return out;
}

// Returns the access control list as text.
std::string list_of(const std::string& path) {
    DWORD size = 0;
    GetFileSecurityW(wide(path).c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    std::vector<unsigned char> descriptor(size);
    EXPECT_TRUE(GetFileSecurityW(wide(path).c_str(), DACL_SECURITY_INFORMATION, descriptor.data(), size, &size));
    wchar_t* text = nullptr;
    EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.data(), SDDL_REVISION_1,
                                                                     DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::string list = qor::platform::from_wide(text != nullptr ? text : L"");
    LocalFree(text);
    return list;
}

TEST(windows_replacement, keeps_the_access_control_list) {
    const qor::test::temp_folder folder;
    const std::string path = folder.file("file", "old");
    const std::string usual = list_of(path);
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "new")) << last_error();
    EXPECT_EQ(list_of(path), usual);
    qor::glue::own_rights rights;
    ASSERT_NE(rights.get(), nullptr);
    ASSERT_TRUE(SetFileSecurityW(wide(path).c_str(), DACL_SECURITY_INFORMATION, rights.get()->lpSecurityDescriptor));
    const std::string own = list_of(path);
    ASSERT_NE(own, usual);
    for (const char* const text : {"newer", "newest"}) {
        EXPECT_TRUE(qorReplaceFile(path.c_str(), text)) << last_error();
        EXPECT_EQ(list_of(path), own);
        EXPECT_EQ(qor::test::read_file(path), text);
    }
}

TEST(windows_replacement, keeps_a_hidden_file_hidden) {
    const qor::test::temp_folder folder;
    const std::string path = folder.file("file", "old");
    constexpr DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    for (const DWORD wanted : {FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_NORMAL}) {
        ASSERT_TRUE(SetFileAttributesW(wide(path).c_str(), wanted));
        const DWORD before = GetFileAttributesW(wide(path).c_str()) & kept; // the file system may not keep it
        EXPECT_TRUE(qorReplaceFile(path.c_str(), "new")) << last_error();
        EXPECT_EQ(GetFileAttributesW(wide(path).c_str()) & kept, before);
    }
}

// Another user could make the new file first: it would have the rights of the folder, or block every replacement.
TEST(windows_replacement, has_no_name_that_can_be_guessed) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "file";
    for (int i = 0; i < 100; ++i)
        folder.file("file" + (i != 0 ? "." + std::to_string(i) : "") + ".qor-unfinished", "of another");
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "new")) << last_error();
    EXPECT_EQ(qor::test::read_file(path), "new");
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "newer", qorReplacePrivate)) << last_error();
    EXPECT_EQ(qor::test::read_file(path), "newer");
    EXPECT_EQ(qor::test::read_file(folder / "file.99.qor-unfinished"), "of another");
}

TEST(windows_replacement, that_is_private_gives_others_no_rights) {
    const qor::test::temp_folder folder;
    const std::string expected = folder / "expected";
    qor::glue::own_rights rights;
    ASSERT_NE(rights.get(), nullptr);
    CloseHandle(CreateFileW(wide(expected).c_str(), GENERIC_WRITE, 0, rights.get(), CREATE_NEW, 0, nullptr));
    const std::string path = folder.file("file", "old");
    ASSERT_NE(list_of(path), list_of(expected));
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "new", qorReplacePrivate)) << last_error();
    EXPECT_EQ(list_of(path), list_of(expected));
}

TEST(windows_replacement, removes_what_killed_processes_have_left) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "file";
    const std::string old = folder.file("file.abcdefgh2345.qor-unfinished", "old");
    const std::string fresh = folder.file("file.abcdefgh2346.qor-unfinished", "fresh");
    const std::string longer = folder.file("file.of.abcdefgh2345.qor-unfinished", "of the file 'file.of'");
    for (const std::string& each : {old, longer})
        std::filesystem::last_write_time(each,
                                         std::filesystem::file_time_type::clock::now() - std::chrono::minutes(11));
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "new")) << last_error();
    EXPECT_FALSE(std::filesystem::exists(old));
    EXPECT_TRUE(std::filesystem::exists(fresh));
    EXPECT_TRUE(std::filesystem::exists(longer));
}

// The new file has a name of its own for a moment, which must not be too long.
TEST(windows_replacement, of_a_name_of_255_characters) {
    const qor::test::temp_folder folder;
    const std::string path = folder.path() + "\\" + std::string(255, 'n');
    for (const char* const text : {"first", "second"}) {
        EXPECT_TRUE(qorReplaceFile(path.c_str(), text)) << last_error();
        EXPECT_EQ(qor::test::read_file(wide(path)), text);
    }
}

} // namespace
