// The size of a regular file, asked for without opening it.
#include "regular_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using qor::heap_tool::size_of_regular_file;

TEST(regular_file, has_its_size) {
    const qor::test::temp_folder folder;
    EXPECT_EQ(size_of_regular_file(folder.file("some.mtrace", "= Start\n")), 8U);
    const std::string name = folder / "\u00fcber.mtrace";
    std::ofstream(std::filesystem::u8path(name)).close();
    EXPECT_EQ(size_of_regular_file(name), 0U);
}

TEST(regular_file, is_nothing_else) {
    const qor::test::temp_folder folder;
    for (const std::string& path : {folder.path(), folder / "none", std::string(), std::string("\xff")})
        EXPECT_FALSE(size_of_regular_file(path)) << path;
}

} // namespace
