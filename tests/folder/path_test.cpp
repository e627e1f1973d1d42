#include "qor/qor.h"
#include "support/last_error.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

namespace {

using qor::test::last_error;

std::string folder(qorFolderId id) {
    qorString path;
    EXPECT_TRUE(qorGetFolderPath(id, path)) << last_error();
    return path.Text();
}

std::string translated(const char* path) {
    qorString out("not empty");
    EXPECT_TRUE(qorTranslatePath(path, out)) << last_error();
    return out.Text();
}

TEST(path, named_folders_are_replaced) {
    const std::string temporary = folder(qorFolder_user_temporary);
    EXPECT_EQ(translated("${user-temporary}"), temporary);
    EXPECT_EQ(translated("${user-temporary}/a/b"), temporary + "/a/b");
    EXPECT_EQ(translated("/jail${user-temporary}/${qor-library}"),
              "/jail" + temporary + '/' + folder(qorFolder_qor_library));
}

TEST(path, each_tag_is_known) {
    for (uint32 id = 0; id < qorFolderCount; ++id) {
        qorString tag, path, out;
        ASSERT_TRUE(qorGetFolderTagForId(static_cast<qorFolderId>(id), tag));
        const bool is_here = qorGetFolderPath(static_cast<qorFolderId>(id), path);
        EXPECT_EQ(qorTranslatePath(("${" + std::string(tag) + "}").c_str(), out), is_here) << tag.Text();
        EXPECT_STREQ(out, path);
    }
}

TEST(path, everything_else_stays) {
    for (const char* const path : {"", "/", "a", "$", "$$", "{home}", "$home", "a$b", "}", "a}b{", "\xff\xfe"})
        EXPECT_EQ(translated(path), path);
    EXPECT_EQ(translated("$${home}"), "${home}");
    EXPECT_EQ(translated("a$${$${x"), "a${${x");
}

TEST(path, what_cannot_be_translated_is_an_error) {
    const struct {
        const char* path;
        const char* error;
    } cases[] = {
        {"a/${nowhere}/b",
         "The path 'a/${nowhere}/b' cannot be translated: there is no folder with the name 'nowhere'."},
        {"${}", "The path '${}' cannot be translated: there is no folder with the name ''."},
        {"${Home}", "The path '${Home}' cannot be translated: there is no folder with the name 'Home'."},
        {"${home", "The path '${home' cannot be translated: the closing brace behind the name of a folder is missing."},
    };
    for (const auto& each : cases) {
        qorString out("not empty");
        EXPECT_FALSE(qorTranslatePath(each.path, out));
        EXPECT_STREQ(out, "");
        EXPECT_EQ(last_error(), each.error);
    }
}

TEST(path, the_result_may_take_the_place_of_the_path) {
    qorString path("${user-temporary}/x");
    EXPECT_TRUE(qorTranslatePath(path, path));
    EXPECT_EQ(std::string(path.Text()), folder(qorFolder_user_temporary) + "/x");
}

// The C++ library knows the system's rules for drives and roots.
TEST(path, absolute_as_the_standard_library_says) {
    for (const char* const path :
         {"", "/", "/a", "a", "./a", "../a", "\\", "\\a", "c:", "c:a", "c:\\", "c:/a", "C:\\a\\..\\b", "ab:\\c"})
        EXPECT_EQ(qorIsAbsolutePath(path), std::filesystem::path(path).is_absolute()) << path;
    EXPECT_TRUE(qorIsAbsolutePath("//a/b"));
}

TEST(path, the_temporary_folder_is_there) {
    qorString path;
    ASSERT_TRUE(qorGetTempFolder(path)) << last_error();
    EXPECT_TRUE(std::filesystem::is_directory(path.Text()));
    EXPECT_EQ(std::filesystem::path(path.Text()) / "", std::filesystem::temp_directory_path() / "");
}

TEST(temp_folder, lives_as_long_as_its_object) {
    const qor::test::temp_folder above;
    std::string first;
    {
        qorTempFolder made;
        EXPECT_TRUE(made.Path().IsEmpty());
        ASSERT_TRUE(made.Create("work-", above.path().c_str())) << last_error();
        first = made.Path().Text();
        EXPECT_TRUE(std::filesystem::is_directory(first));
        EXPECT_TRUE(std::filesystem::path(first).filename().string().starts_with("work-"));
        EXPECT_EQ(std::filesystem::path(first).parent_path(), above.path());
        ASSERT_TRUE(qorCreateDirectoryPath((first + "/a/b").c_str()));
        qorTempFolder moved(std::move(made));
        EXPECT_TRUE(made.Path().IsEmpty());
        EXPECT_STREQ(moved.Path(), first.c_str());
    }
    EXPECT_FALSE(std::filesystem::exists(first));
    qorTempFolder kept;
    ASSERT_TRUE(kept.Create());
    const qorString path = kept.Keep();
    EXPECT_TRUE(kept.Delete());
    EXPECT_TRUE(qorDirectoryExists(path));
    EXPECT_TRUE(qorDeleteDirectoryAndContents(path));
}

TEST(temp_folder, that_cannot_be_created_is_an_error) {
    const qor::test::temp_folder above;
    const std::string missing = above / "missing";
    qorString path("not empty");
    EXPECT_FALSE(qorCreateUniqueDirectory(missing.c_str(), "p", path));
    EXPECT_STREQ(path, "");
    EXPECT_TRUE(last_error().starts_with("Cannot create the folder '" + missing)) << last_error();
    EXPECT_TRUE(last_error().ends_with(qor::test::system_reasons().no_folder + ".")) << last_error();
}

TEST(temp_folder, no_two_have_the_same_name) {
    const qor::test::temp_folder above;
    std::set<std::string> names;
    for (int i = 0; i < 200; ++i) {
        qorString path;
        ASSERT_TRUE(qorCreateUniqueDirectory(above.path().c_str(), "", path));
        EXPECT_TRUE(names.insert(path.Text()).second);
    }
}

} // namespace
