#include "simd/cache_files.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

void write_cache(const std::filesystem::path& folder, int index, const char* level, const char* type,
                 const char* size) {
    const std::filesystem::path cache = folder / ("index" + std::to_string(index));
    std::filesystem::create_directory(cache);
    std::ofstream(cache / "level") << level << '\n';
    std::ofstream(cache / "type") << type << '\n';
    std::ofstream(cache / "size") << size << '\n';
}

} // namespace

TEST(simd_caches, are_read_from_the_files_of_the_kernel) {
    const qor::test::temp_folder folder;
    write_cache(folder.path(), 0, "1", "Data", "48K");
    write_cache(folder.path(), 1, "1", "Instruction", "32K");
    write_cache(folder.path(), 2, "2", "Unified", "1024K");
    write_cache(folder.path(), 3, "3", "Unified", "32M");
    const qor::simd::cache_sizes sizes = qor::simd::read_cache_files(folder.path());
    EXPECT_EQ(sizes.first_data, 48u << 10);
    EXPECT_EQ(sizes.second, 1u << 20);
    EXPECT_EQ(sizes.third, 32u << 20);
}

TEST(simd_caches, are_unknown_where_there_are_no_files) {
    const qor::test::temp_folder folder;
    write_cache(folder.path(), 0, "1", "Data", "nothing");
    const qor::simd::cache_sizes sizes = qor::simd::read_cache_files(folder.path());
    EXPECT_EQ(sizes.first_data, 0u);
    EXPECT_EQ(sizes.second, 0u);
    EXPECT_EQ(sizes.third, 0u);
    EXPECT_EQ(qor::simd::read_cache_files(folder / "missing").first_data, 0u);
}
