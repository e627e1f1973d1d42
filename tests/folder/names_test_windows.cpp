// Names and paths on Windows: single surrogates, long paths, read-only files, junctions as links.
#include "platform/wide_windows.h"
#include "qor/glue/wide_path_windows.h"
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <windows.h>

namespace {

using qor::test::last_error;

TEST(windows_names, of_any_units_survive) {
    for (unsigned unit = 1; unit < 0x10000; ++unit) {
        const std::wstring name = {L'x', static_cast<wchar_t>(unit), L'y'};
        std::wstring back;
        ASSERT_TRUE(qor::platform::to_wide_path(qor::platform::name_from_wide(name), back)) << unit;
        ASSERT_EQ(back, name) << unit;
    }
    const std::wstring odd[] = {L"\xd83d\xde42", L"\xde42\xd83d", L"\xd83d\xd83d\xde42", L"\xd83d", L"a\xde42"};
    for (const std::wstring& name : odd) {
        std::wstring back;
        ASSERT_TRUE(qor::platform::to_wide_path(qor::platform::name_from_wide(name), back));
        EXPECT_EQ(back, name);
    }
    // Valid UTF-16 has the usual form.
    EXPECT_EQ(qor::platform::name_from_wide(L"gr\x00f6\x00df"
                                            L"e \x6587 \xd83d\xde42"),
              reinterpret_cast<const char*>(u8"größe 文 🙂"));
    std::wstring out;
    EXPECT_FALSE(qor::platform::to_wide_path("\xff", out));
    EXPECT_FALSE(qor::platform::to_wide_path("\xed\xa0", out)); // cut off
}

TEST(windows_names, long_paths_work_everywhere) {
    const qor::test::temp_folder folder;
    std::string path = folder.path();
    for (int i = 0; i < 20; ++i)
        path += "\\a name of a folder that is rather long";
    ASSERT_GT(path.size(), 600u);
    EXPECT_TRUE(qorCreateDirectoryPath(path.c_str())) << last_error();
    EXPECT_TRUE(qorDirectoryExists(path.c_str()));
    EXPECT_TRUE(qorCreateDirectory((path + "/one").c_str())) << last_error();
    EXPECT_TRUE(qorRenameFile((path + "/one").c_str(), (path + "\\two").c_str())) << last_error();
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents(path.c_str(), contents.Out())) << last_error();
    ASSERT_EQ(contents->GetCount(), 1u);
    EXPECT_STREQ(contents->Entries()[0].text, "two");
    EXPECT_TRUE(qorGetFileInfoEx((path + "\\two").c_str()).has_value()) << last_error();
    const std::string first = folder.path() + "\\a name of a folder that is rather long";
    EXPECT_TRUE(qorDeleteDirectoryAndContents(first.c_str())) << last_error();
    EXPECT_FALSE(qorDirectoryExists(first.c_str()));
}

TEST(windows_names, long_ones_get_the_form_without_a_limit) {
    std::wstring tail;
    for (int i = 0; i < 5; ++i)
        tail.append(L"\\").append(60, L'd');
    std::wstring slashes = tail;
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"C:" + tail, L"\\\\?\\C:" + tail},
        {L"C:/a/.././b" + slashes, L"\\\\?\\C:\\b" + tail},
        {L"\\\\server\\share" + tail, L"\\\\?\\UNC\\server\\share" + tail},
        {L"//server/share" + slashes, L"\\\\?\\UNC\\server\\share" + tail},
        {L"\\\\?\\C:" + tail, L"\\\\?\\C:" + tail},
        {L"//?/C:" + slashes, L"\\\\?\\C:" + tail},
        {L"\\\\.\\C:" + tail, L"\\\\.\\C:" + tail},
        {L"C:/a/../b", L"C:/a/../b"},
        {L"NUL", L"NUL"},
    };
    for (const auto& [path, form] : cases) {
        std::wstring lifted = path;
        qor::glue::lift_path_limit(lifted);
        EXPECT_EQ(lifted, form);
    }
}

TEST(windows_names, read_only_files_and_folders_are_deleted) {
    const qor::test::temp_folder folder;
    ASSERT_TRUE(qorCreateDirectoryPath((folder / "tree/below").c_str()));
    const std::string file = folder.file("tree/below/file", "x");
    SetFileAttributesA(file.c_str(), FILE_ATTRIBUTE_READONLY);
    SetFileAttributesA((folder / "tree/below").c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(qorGetFileInfo(file.c_str())->rights, 0444u);
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / "tree").c_str())) << last_error();
    EXPECT_FALSE(qorDirectoryExists((folder / "tree").c_str()));
}

// The other name is the same folder, so nothing stands in its way. Wine then leaves the folder its name.
TEST(windows_names, of_folders_change_between_small_and_capital_letters) {
    const qor::test::temp_folder folder;
    for (const auto& [from, to] : {std::pair(u8"one", u8"ONE"), std::pair(u8"\u00e4nderung", u8"\u00c4nderung")}) {
        const std::string before = folder / reinterpret_cast<const char*>(from);
        const std::string after = folder / reinterpret_cast<const char*>(to);
        ASSERT_TRUE(qorCreateDirectory(before.c_str())) << last_error();
        EXPECT_TRUE(qorRenameFile(before.c_str(), after.c_str(), true)) << last_error();
        EXPECT_TRUE(qorDirectoryExists(after.c_str()));
    }
}

TEST(windows_names, of_servers_and_devices_are_absolute) {
    for (const char* const path : {"\\\\server\\share", "\\\\?\\C:\\a", "//server/share", "\\\\.\\COM1"})
        EXPECT_TRUE(qorIsAbsolutePath(path)) << path;
}

TEST(windows_names, a_device_is_a_device) {
    const auto info = qorGetFileInfo("NUL");
    ASSERT_TRUE(info) << last_error();
    EXPECT_EQ(info->kind, qorFileKind::character_device);
}

} // namespace
