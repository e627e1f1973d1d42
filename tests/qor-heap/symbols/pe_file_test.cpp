#include "heap/symbols/pe_file.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace qor::heap;

void put(std::string& out, std::size_t place, uint64 number, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i)
        out[place + i] = static_cast<char>(number >> 8 * i);
}

void put(std::string& out, std::size_t place, std::string_view text) { out.replace(place, text.size(), text); }

// A library with a section of code at 0x1000 and one of data at 0x2000, whose addresses are its places in the file. It
// exports `one` at 0x1000, `same` and `two` at 0x1010, and `other` of another library.
std::string library(bool is_64_bit) {
    std::string result(0x3000, '\0');
    put(result, 0, "MZ");
    put(result, 0x3c, 0x80, 4);
    put(result, 0x80, std::string_view("PE\0\0", 4));
    put(result, 0x86, 3, 2);     // sections
    put(result, 0x8c, 0x400, 4); // the table of symbols, which is empty: behind it lie the long names
    const std::size_t optional = 0x98, directories = optional + (is_64_bit ? 112 : 96),
                      size = directories + 16 * 8 - optional;
    put(result, 0x94, size, 2);
    put(result, optional, is_64_bit ? 0x20b : 0x10b, 2);
    put(result, optional + (is_64_bit ? 24 : 28), 0x140000000, is_64_bit ? 8 : 4);
    put(result, directories - 4, 16, 4);
    put(result, directories, 0x2000, 4);
    put(result, directories + 4, 0x200, 4);
    put(result, directories + 6 * 8, 0x2200, 4);
    put(result, directories + 6 * 8 + 4, 28, 4);
    put(result, 0x404, ".debug_info");
    const auto section = [&](int number, std::string_view name, uint32 address, uint32 flags) {
        const std::size_t at = optional + size + 40 * static_cast<std::size_t>(number);
        put(result, at, name);
        put(result, at + 8, 0x800, 4);
        put(result, at + 12, address, 4);
        put(result, at + 16, 0x1000, 4);
        put(result, at + 20, address == 0x3000 ? 0x2800 : address, 4);
        put(result, at + 36, flags, 4);
    };
    section(0, ".text", 0x1000, 0x60000020);
    section(1, ".edata", 0x2000, 0x40000040);
    section(2, "/4", 0x3000, 0x42000040);
    put(result, 0x2014, 3, 4); // functions
    put(result, 0x2018, 4, 4); // names
    put(result, 0x201c, 0x2040, 4);
    put(result, 0x2020, 0x2060, 4);
    put(result, 0x2024, 0x2080, 4);
    const uint32 functions[] = {0x1000, 0x1010, 0x2100};
    for (std::size_t i = 0; i < 3; ++i)
        put(result, 0x2040 + 4 * i, functions[i], 4);
    const char* const names[] = {"one", "other", "two", "same"};
    const uint32 numbers[] = {0, 2, 1, 1};
    for (std::size_t i = 0; i < 4; ++i) {
        put(result, 0x2060 + 4 * i, 0x20a0 + 8 * i, 4);
        put(result, 0x2080 + 2 * i, numbers[i], 2);
        put(result, 0x20a0 + 8 * i, names[i]);
    }
    put(result, 0x2100, "other.function");
    put(result, 0x2200 + 12, 2, 4);
    put(result, 0x2200 + 24, 0x2240, 4);
    put(result, 0x2240, "RSDS0123456789abcdef");
    put(result, 0x2800, "the information");
    return result;
}

TEST(pe_file, tells_what_is_in_it) {
    for (const bool is_64_bit : {false, true}) {
        const std::string bytes = library(is_64_bit);
        pe_file file;
        ASSERT_TRUE(file.parse(bytes));
        EXPECT_EQ(file.image_base(), is_64_bit ? 0x140000000 : 0x40000000);
        EXPECT_EQ(file.build_id(), "0123456789abcdef");
        EXPECT_EQ(file.content(".debug_info").substr(0, 15), "the information");
        EXPECT_EQ(file.content(".debug_info").size(), 0x800u);
        EXPECT_EQ(file.content(".debug_line"), "");
        EXPECT_EQ(file.all_exported().size(), 3u);
        EXPECT_EQ(file.exported_at(0xfff), "");
        EXPECT_EQ(file.exported_at(0x1000), "one");
        EXPECT_EQ(file.exported_at(0x100f), "one");
        EXPECT_EQ(file.exported_at(0x1010), "same");
        EXPECT_EQ(file.exported_at(0x17ff), "same");
        EXPECT_EQ(file.exported_at(0x2100), "");
        EXPECT_TRUE(file.is_code(0x1000));
        EXPECT_FALSE(file.is_code(0xfff));
        EXPECT_FALSE(file.is_code(0x2000));
        EXPECT_FALSE(file.is_code(~uint64{0}));
    }
}

// The same, with a table of functions: `one` to 0x1008, one without a name from 0x1018 on, a part of `one` at 0x1040.
std::string library_with_functions() {
    std::string result = library(true);
    put(result, 0x84, 0x8664, 2);
    const std::size_t directory = 0x98 + 112 + 3 * 8;
    put(result, directory, 0x2300, 4);
    put(result, directory + 4, 3 * 12, 4);
    const uint32 functions[] = {0x1000, 0x1008, 0x2340, 0x1018, 0x1020, 0x2340, 0x1040, 0x1050, 0x2348};
    for (std::size_t i = 0; i < 9; ++i)
        put(result, 0x2300 + 4 * i, functions[i], 4);
    put(result, 0x2340, 1, 1);          // version 1
    put(result, 0x2348, 1 | 4 << 3, 1); // which is a part of another one
    put(result, 0x234a, 1, 1);          // behind one code and an empty place
    put(result, 0x2348 + 8, 0x1000, 4);
    put(result, 0x2348 + 12, 0x1008, 4);
    put(result, 0x2348 + 16, 0x2340, 4);
    return result;
}

TEST(pe_file, knows_where_functions_end) {
    const std::string bytes = library_with_functions();
    pe_file file;
    ASSERT_TRUE(file.parse(bytes));
    EXPECT_EQ(file.exported_at(0xfff), "");
    EXPECT_EQ(file.exported_at(0x1000), "one");
    EXPECT_EQ(file.exported_at(0x1007), "one");
    EXPECT_EQ(file.exported_at(0x1008), "");     // behind its end
    EXPECT_EQ(file.exported_at(0x1010), "same"); // which has no entry
    EXPECT_EQ(file.exported_at(0x1017), "same");
    EXPECT_EQ(file.exported_at(0x1018), ""); // a function without a name
    EXPECT_EQ(file.exported_at(0x101f), "");
    EXPECT_EQ(file.exported_at(0x1020), "");
    EXPECT_EQ(file.exported_at(0x1040), "one"); // its other part
    EXPECT_EQ(file.exported_at(0x104f), "one");
    EXPECT_EQ(file.exported_at(0x1050), "");
    // Parts that lead to each other end somewhere.
    std::string circle = bytes;
    put(circle, 0x2340, 1 | 4 << 3, 1);
    put(circle, 0x2344, 0x1000, 4);
    put(circle, 0x234c, 0x2340, 4);
    ASSERT_TRUE(file.parse(circle));
    EXPECT_LE(file.exported_at(0x1007).size(), 4u);
}

TEST(pe_file, does_not_read_beyond_the_end) {
    const std::string whole = library_with_functions();
    for (std::size_t size = 0; size < whole.size(); size += size < 0x300 || (size > 0x2000 && size < 0x2380) ? 1 : 97) {
        // A block of its own, so that the sanitizers see its end.
        const std::vector<char> bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        pe_file file;
        if (file.parse({bytes.data(), bytes.size()})) {
            EXPECT_LE(file.all_exported().size(), 3u);
            EXPECT_LE(file.exported_at(0x1045).size(), 4u);
        }
    }
    pe_file file;
    EXPECT_FALSE(file.parse("\x7f"
                            "ELF"));
    EXPECT_FALSE(file.parse(std::string(4096, 'M')));
}

} // namespace
