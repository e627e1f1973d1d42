#include "qor/qor.h"
#include "support/last_error.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

namespace fs = std::filesystem;

namespace {

using qor::test::last_error;

using entries = std::map<std::string, std::pair<qorFileKind, uint64>>;

entries listed(const std::string& path) {
    zetSmartPointer<IQORFolderContents> contents;
    EXPECT_TRUE(qorGetFolderContents(path.c_str(), contents.Out())) << last_error();
    entries all;
    for (const qorFolderEntry& each : contents->Entries()) {
        EXPECT_STREQ(each.text, std::string(each.Name()).c_str());
        EXPECT_TRUE(all.emplace(each.Name(), std::pair(each.kind, each.size)).second) << each.text;
    }
    EXPECT_EQ(all.size(), contents->GetCount());
    return all;
}

// The same, from the C++ library.
entries expected(const std::string& path) {
    entries all;
    for (const fs::directory_entry& each : fs::directory_iterator(path)) {
        const auto name = each.path().filename().u8string();
        const bool is_folder = each.is_directory() && !each.is_symlink();
        all[std::string(name.begin(), name.end())] = {is_folder ? qorFileKind::folder : qorFileKind::file,
                                                      is_folder ? 0 : uint64{each.file_size()}};
    }
    return all;
}

TEST(folder_contents, are_those_of_the_standard_library) {
    const qor::test::temp_folder folder;
    EXPECT_EQ(listed(folder.path()), entries());
    folder.file("empty", "");
    folder.file("four", "four");
    fs::create_directory(folder / "below");
    folder.file("below/not listed", "");
    for (int i = 0; i < 300; ++i)
        folder.file("name " + std::to_string(i), "x");
    EXPECT_EQ(listed(folder.path()), expected(folder.path()));
    EXPECT_EQ(listed(folder.path() + "/"), expected(folder.path()));
    EXPECT_EQ(listed(folder / "below"), expected(folder / "below"));
}

TEST(folder_contents, know_the_time) {
    const qor::test::temp_folder folder;
    const uint64 before = qorGetSystemTime();
    folder.file("file", "x");
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents(folder.path().c_str(), contents.Out()));
    ASSERT_EQ(contents->GetCount(), 1u);
    const auto info = qorGetFileInfo((folder / "file").c_str());
    ASSERT_TRUE(info);
    EXPECT_EQ(contents->Entries()[0].modified, info->modified);
    // File systems take the time from a clock that ticks a hundred times a second or so.
    EXPECT_GT(info->modified + qorTicksPerSecond, before);
    EXPECT_LT(info->modified, before + 600 * qorTicksPerSecond);
}

TEST(folder_contents, of_what_is_no_folder_are_an_error) {
    const qor::test::temp_folder folder;
    for (const std::string& path : {folder / "missing", folder.file("file", "x"), std::string()}) {
        zetSmartPointer<IQORFolderContents> contents;
        EXPECT_FALSE(qorGetFolderContents(path.c_str(), contents.Out()));
        EXPECT_TRUE(contents.IsEmpty());
        EXPECT_TRUE(last_error().starts_with("Cannot list the folder '" + path + "': ")) << last_error();
    }
}

TEST(folder_contents, names_in_all_scripts) {
    const qor::test::temp_folder folder;
    for (const char8_t* const name :
         {u8"größe", u8"файл", u8"文件", u8"🙂", u8"e\u0301", u8"\u00e9", u8"with blank "}) {
        const fs::path path = fs::path(folder.path()) / name;
        const std::string text = folder / std::string_view(reinterpret_cast<const char*>(name));
        EXPECT_TRUE(qorCreateDirectory(text.c_str())) << last_error();
        EXPECT_TRUE(fs::is_directory(path) || text.ends_with(' ')) << text; // Windows takes blanks off
    }
    for (const auto& [name, value] : listed(folder.path()))
        EXPECT_TRUE(qorDirectoryExists((folder / name).c_str())) << name;
    EXPECT_EQ(listed(folder.path()), expected(folder.path()));
}

TEST(file_exists, tells_files_from_folders) {
    const qor::test::temp_folder folder;
    const std::string file = folder.file("file", "x");
    qorSetLastError(qorError_timed_out);
    EXPECT_TRUE(qorFileExists(file.c_str()));
    EXPECT_FALSE(qorDirectoryExists(file.c_str()));
    EXPECT_FALSE(qorFileExists(folder.path().c_str()));
    EXPECT_TRUE(qorDirectoryExists(folder.path().c_str()));
    for (const std::string& path : {folder / "missing", folder / "missing/below", file + "/below", std::string()}) {
        EXPECT_FALSE(qorFileExists(path.c_str()));
        EXPECT_FALSE(qorDirectoryExists(path.c_str()));
    }
    qorString message;
    EXPECT_EQ(qorGetLastError(message), uint32{qorError_timed_out}); // a missing name is an answer, not a failure
}

TEST(file_info, is_that_of_the_standard_library) {
    const qor::test::temp_folder folder;
    const std::string file = folder.file("file", "twelve bytes");
    fs::create_hard_link(file, folder / "second");
    qorFileInfo info;
    ASSERT_TRUE(qorGetFileInfo(file.c_str(), info)) << last_error();
    EXPECT_EQ(info.kind, qorFileKind::file);
    EXPECT_EQ(info.size, fs::file_size(file));
    EXPECT_EQ(info.rights & 0200u, 0200u);
    const auto whole = qorGetFileInfoEx(file.c_str());
    ASSERT_TRUE(whole) << last_error();
    EXPECT_EQ(whole->kind, qorFileKind::file);
    EXPECT_EQ(whole->size, info.size);
    EXPECT_EQ(whole->modified, info.modified);
    EXPECT_EQ(whole->links, 2u);
    EXPECT_FALSE(whole->owner_name.IsEmpty());
    EXPECT_TRUE(whole->target.IsEmpty());
    const auto second = qorGetFileInfoEx((folder / "second").c_str());
    ASSERT_TRUE(second);
    EXPECT_EQ(second->device, whole->device);
    EXPECT_EQ(second->id[0], whole->id[0]);
    const auto above = qorGetFileInfoEx(folder.path().c_str());
    ASSERT_TRUE(above);
    EXPECT_EQ(above->kind, qorFileKind::folder);
    EXPECT_EQ(above->size, 0u);
    EXPECT_EQ(above->device, whole->device);
    EXPECT_NE(above->id[0], whole->id[0]);
    fs::permissions(file, fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    EXPECT_EQ(qorGetFileInfo(file.c_str())->rights & 0222u, 0u);
    fs::permissions(file, fs::perms::owner_write, fs::perm_options::add);
}

TEST(file_info, of_nothing_is_an_error) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "missing";
    qorFileInfo info;
    info.size = 7;
    EXPECT_FALSE(qorGetFileInfo(path.c_str(), info));
    EXPECT_EQ(info.size, 7u);
    EXPECT_EQ(last_error(), "Cannot get information on '" + path + "': " + qor::test::system_reasons().no_file + ".");
    qorClearLastError();
    EXPECT_FALSE(qorGetFileInfo(path.c_str()).has_value());
    EXPECT_FALSE(qorGetFileInfoEx(path.c_str()).has_value());
    EXPECT_EQ(last_error(), "Cannot get information on '" + path + "': " + qor::test::system_reasons().no_file + ".");
}

} // namespace
