// Catalogs in kinds of files that only POSIX has.
#include "catalog/catalog_file.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

constexpr qor::catalog::message english[] = {{1, "one"}};

bool is_nothing(const std::string& path) { return qor::catalog::load_catalog(path, english).empty(); }

} // namespace

TEST(posix_catalog_file, may_be_a_link_to_itself) {
    const qor::test::temp_folder folder;
    std::filesystem::create_symlink("itself.msg", folder / "itself.msg");
    EXPECT_TRUE(is_nothing(folder / "itself.msg"));
}

TEST(posix_catalog_file, is_not_read_for_ever) { EXPECT_TRUE(is_nothing("/dev/zero")); }
