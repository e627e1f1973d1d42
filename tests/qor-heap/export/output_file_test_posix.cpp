#include "qor-heap/export/output_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

using qor::heap_tool::output_file;

TEST(posix_output_file, leaves_a_link_alone) {
    const qor::test::temp_folder folder;
    std::filesystem::create_symlink(folder.file("kept", "kept"), folder / "link");
    std::filesystem::create_symlink(folder / "nowhere", folder / "dangling");
    EXPECT_FALSE(output_file().open(folder / "link"));
    EXPECT_FALSE(output_file().open(folder / "dangling"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
    EXPECT_EQ(qor::test::read_file(folder / "kept"), "kept");
    EXPECT_FALSE(output_file().open("/dev/stdout"));
}

TEST(posix_output_file, leaves_a_pipe_and_a_device_alone) {
    const qor::test::temp_folder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(output_file().open(pipe));
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
    EXPECT_FALSE(output_file().open("/dev/null"));
}

TEST(posix_output_file, has_the_rights_that_the_mask_leaves) {
    const qor::test::temp_folder folder;
    const mode_t before = ::umask(027);
    output_file file;
    const bool is_open = file.open(folder / "page");
    ::umask(before);
    ASSERT_TRUE(is_open);
    ASSERT_TRUE(file.finish());
    struct stat found;
    ASSERT_EQ(::stat((folder / "page").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0640U);
}

TEST(posix_output_file, says_what_the_system_says) {
    output_file file;
    EXPECT_FALSE(file.open("/proc/page.html"));
    EXPECT_FALSE(file.reason().empty());
}
