#include "qor/qor.h"
#include "support/last_error.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

using qor::test::last_error;

TEST(folders, are_created_one_by_one) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "new";
    EXPECT_TRUE(qorCreateDirectory(path.c_str())) << last_error();
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_FALSE(qorCreateDirectory(path.c_str()));
    EXPECT_TRUE(last_error().starts_with("Cannot create the folder '" + path + "': ")) << last_error();
    const std::string below = folder / "missing/below";
    EXPECT_FALSE(qorCreateDirectory(below.c_str()));
    EXPECT_EQ(last_error(), "Cannot create the folder '" + below + "': " + qor::test::system_reasons().no_folder + ".");
}

TEST(folders, are_created_with_those_above) {
    const qor::test::temp_folder folder;
    for (const char* const path : {"a", "a/b/c", "a/b/c", "a/b/c/", "x//y///z", "u/./v/../w"}) {
        EXPECT_TRUE(qorCreateDirectoryPath((folder / path).c_str())) << path << ": " << last_error();
        EXPECT_TRUE(fs::is_directory(folder / path)) << path;
    }
    std::string deep = folder.path();
    for (int i = 0; i < 60; ++i)
        deep += "/1";
    EXPECT_TRUE(qorCreateDirectoryPath(deep.c_str())) << last_error();
    EXPECT_TRUE(fs::is_directory(deep));
    const std::string file = folder.file("file", "x");
    EXPECT_FALSE(qorCreateDirectoryPath((file + "/a/b").c_str()));
    EXPECT_TRUE(last_error().starts_with("Cannot create the folder '" + file + "': ")) << last_error();
    EXPECT_FALSE(qorCreateDirectoryPath(file.c_str()));
    EXPECT_FALSE(qorCreateDirectoryPath(""));
}

TEST(folders, are_created_by_several_at_once) {
    const qor::test::temp_folder folder;
    for (int round = 0; round < 20; ++round) {
        const std::string path = folder / std::to_string(round) + "/a/b/c/d";
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] { EXPECT_TRUE(qorCreateDirectoryPath(path.c_str())) << last_error(); });
        for (std::thread& each : threads)
            each.join();
    }
}

TEST(folders, are_deleted_with_their_contents) {
    const qor::test::temp_folder folder;
    const std::string tree = folder / "tree";
    for (int i = 0; i < 50; ++i) {
        const std::string below = tree + "/" + std::to_string(i % 7) + "/" + std::to_string(i);
        fs::create_directories(below);
        folder.file(fs::path(below).lexically_relative(folder.path()).string() + "/file", "x");
    }
    folder.file("beside", "stays");
    EXPECT_TRUE(qorDeleteDirectoryAndContents((tree + "/").c_str())) << last_error();
    EXPECT_FALSE(fs::exists(tree));
    EXPECT_TRUE(fs::exists(folder / "beside"));
    EXPECT_FALSE(qorDeleteDirectoryAndContents(tree.c_str()));
    EXPECT_EQ(last_error(), "Cannot delete '" + tree + "': " + qor::test::system_reasons().no_file + ".");
    const std::string file = folder / "beside";
    EXPECT_FALSE(qorDeleteDirectoryAndContents(file.c_str()));
    EXPECT_TRUE(last_error().starts_with("Cannot delete '" + file + "': ")) << last_error();
    EXPECT_TRUE(fs::exists(file));
}

TEST(folders, without_a_name_of_their_own_are_not_deleted) {
    const qor::test::temp_folder folder;
    fs::create_directory(folder / "a");
    for (const std::string& path :
         {std::string(), std::string("/"), std::string("//"), std::string("."), std::string(".."), folder / "a/.",
          folder / "a/..", folder / "a/../", folder / "a/.//"}) {
        EXPECT_FALSE(qorDeleteDirectoryAndContents(path.c_str())) << path;
        EXPECT_EQ(last_error(), "qorDeleteDirectoryAndContents was called with an invalid argument: " + path + ".");
    }
    EXPECT_TRUE(fs::is_directory(folder / "a"));
}

TEST(files, are_deleted_and_folders_are_not) {
    const qor::test::temp_folder folder;
    const std::string file = folder.file("file", "x");
    fs::permissions(file, fs::perms::owner_read);
    EXPECT_TRUE(qorDeleteFile(file.c_str())) << last_error();
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(qorDeleteFile(file.c_str()));
    EXPECT_EQ(last_error(), "Cannot delete '" + file + "': " + qor::test::system_reasons().no_file + ".");
    EXPECT_FALSE(qorDeleteFile(folder.path().c_str()));
    EXPECT_EQ(last_error(), "Cannot delete '" + folder.path() + "': " + qor::test::system_reasons().a_folder + ".");
}

TEST(rename, takes_the_place_of_a_file_only_if_asked) {
    const qor::test::temp_folder folder;
    const std::string one = folder.file("one", "1");
    const std::string two = folder.file("two", "2");
    EXPECT_FALSE(qorRenameFile(one.c_str(), two.c_str()));
    EXPECT_TRUE(last_error().starts_with("Cannot rename '" + one + "' to '" + two + "': ")) << last_error();
    EXPECT_EQ(qor::test::read_file(two), "2");
    EXPECT_TRUE(qorRenameFile(one.c_str(), two.c_str(), true)) << last_error();
    EXPECT_EQ(qor::test::read_file(two), "1");
    EXPECT_FALSE(fs::exists(one));
    EXPECT_TRUE(qorRenameFile(two.c_str(), one.c_str())) << last_error();
    EXPECT_EQ(qor::test::read_file(one), "1");
    EXPECT_FALSE(qorRenameFile(one.c_str(), one.c_str()));
    EXPECT_TRUE(qorRenameFile(one.c_str(), one.c_str(), true)) << last_error();
    EXPECT_FALSE(qorRenameFile(two.c_str(), (folder / "three").c_str()));
    EXPECT_FALSE(fs::exists(folder / "three"));
}

TEST(rename, moves_folders_with_their_contents) {
    const qor::test::temp_folder folder;
    ASSERT_TRUE(qorCreateDirectoryPath((folder / "a/b").c_str()));
    folder.file("a/b/file", "x");
    EXPECT_TRUE(qorRenameFile((folder / "a").c_str(), (folder / "c").c_str())) << last_error();
    EXPECT_EQ(qor::test::read_file(folder / "c/b/file"), "x");
    EXPECT_FALSE(qorRenameFile((folder / "c").c_str(), (folder / "c/b/d").c_str())); // into itself
    const std::string file = folder.file("file", "y");
    EXPECT_FALSE(qorRenameFile((folder / "c").c_str(), file.c_str()));
    EXPECT_FALSE(qorRenameFile((folder / "c").c_str(), file.c_str(), true));
    EXPECT_FALSE(qorRenameFile(file.c_str(), (folder / "c").c_str(), true));
    EXPECT_EQ(qor::test::read_file(folder / "c/b/file"), "x");
}

} // namespace
