#include "qor-heap/export/output_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

using qor::heap_tool::output_file;

namespace {

std::ptrdiff_t files_in(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

} // namespace

TEST(output_file, appears_when_it_is_whole) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "page.html";
    output_file file;
    ASSERT_TRUE(file.open(path)) << file.reason();
    const std::string piece(100'000, 'x');
    file.write(piece);
    file.write("end\n");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(file.finish()) << file.reason();
    EXPECT_EQ(qor::test::read_file(path), piece + "end\n");
    EXPECT_EQ(files_in(folder / ""), 1);
}

TEST(output_file, replaces_a_file_only_by_a_whole_one) {
    const qor::test::temp_folder folder;
    const std::string path = folder.file("page.html", "old");
    {
        output_file file;
        ASSERT_TRUE(file.open(path));
        file.write("half");
        EXPECT_EQ(files_in(folder / ""), 2);
    }
    EXPECT_EQ(qor::test::read_file(path), "old");
    EXPECT_EQ(files_in(folder / ""), 1);
    output_file file;
    ASSERT_TRUE(file.open(path));
    file.write("new");
    EXPECT_TRUE(file.finish());
    EXPECT_EQ(qor::test::read_file(path), "new");
}

TEST(output_file, leaves_a_folder_alone) {
    const qor::test::temp_folder folder;
    std::filesystem::create_directory(folder / "inner");
    output_file file;
    EXPECT_FALSE(file.open(folder / "inner"));
    EXPECT_FALSE(file.reason().empty());
    EXPECT_FALSE(output_file().open(folder / "nowhere/page.html"));
    EXPECT_EQ(files_in(folder / ""), 1);
}
