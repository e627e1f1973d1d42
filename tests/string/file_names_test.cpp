#include "string_support.h"

#include <gtest/gtest.h>

namespace {

struct sample {
    const char* text;
    const char* path;
    const char* name;
    const char* extension;
};

constexpr sample samples[] = {
    {"dir/archive.tar.gz", "dir/", "archive.tar", "gz"},
    {"", "", "", ""},
    {"a", "", "a", ""},
    {"a.b", "", "a", "b"},
    {"a.", "", "a", ""},
    {".profile", "", ".profile", ""},
    {".profile.old", "", ".profile", "old"},
    {"..x", "", "..x", ""},
    {"..x.y", "", "..x", "y"},
    {".", "", ".", ""},
    {"..", "", "..", ""},
    {"...", "", "...", ""},
    {"a..b", "", "a.", "b"},
    {"/", "/", "", ""},
    {"/a", "/", "a", ""},
    {"a/", "a/", "", ""},
    {"a.b/c", "a.b/", "c", ""},
    {"a.b/.c", "a.b/", ".c", ""},
    {"//x//y.z", "//x//", "y", "z"},
    {"../..", "../", "..", ""},
    {"dir/.", "dir/", ".", ""},
    {"gro\xc3\x9f.d\xc3\xa9", "", "gro\xc3\x9f", "d\xc3\xa9"},
};

class file_names : public testing::TestWithParam<sample> {};

TEST_P(file_names, parts) {
    const sample& expected = GetParam();
    const qorString text(expected.text);
    qorString part("left over");
    text.FilePath(part);
    EXPECT_EQ(bytes(part), expected.path);
    text.FileName(part);
    EXPECT_EQ(bytes(part), expected.name);
    text.FileExtension(part);
    EXPECT_EQ(bytes(part), expected.extension);
    text.FileNameAndExt(part);
    EXPECT_EQ(expected.path + bytes(part), expected.text);
}

TEST_P(file_names, parts_of_itself) {
    const sample& expected = GetParam();
    qorString text(expected.text);
    text.FilePath(text);
    EXPECT_EQ(bytes(text), expected.path);
    text = expected.text;
    text.FileName(text);
    EXPECT_EQ(bytes(text), expected.name);
    text = expected.text;
    text.FileExtension(text);
    EXPECT_EQ(bytes(text), expected.extension);
    text = expected.text;
    text.FileNameAndExt(text);
    EXPECT_EQ(expected.path + bytes(text), expected.text);
}

TEST_P(file_names, all_at_once) {
    const sample& expected = GetParam();
    // The string itself may be any of the three results, or none of them.
    for (int own = 0; own < 4; ++own) {
        qorString text(expected.text);
        qorString parts[3];
        qorString* const out[3] = {own == 0 ? &text : &parts[0], own == 1 ? &text : &parts[1],
                                   own == 2 ? &text : &parts[2]};
        text.FileSplitName(*out[0], *out[1], *out[2]);
        EXPECT_EQ(bytes(*out[0]), expected.path);
        EXPECT_EQ(bytes(*out[1]), expected.name);
        EXPECT_EQ(bytes(*out[2]), expected.extension);
    }
}

INSTANTIATE_TEST_SUITE_P(Samples, file_names, testing::ValuesIn(samples));

TEST(file_names_with_nuls, a_nul_is_a_byte_of_the_name) {
    const std::string text("a\0b/c\0.d\0", 9);
    qorString path, name, extension;
    made_of(text).FileSplitName(path, name, extension);
    EXPECT_EQ(bytes(path), std::string("a\0b/", 4));
    EXPECT_EQ(bytes(name), std::string("c\0", 2));
    EXPECT_EQ(bytes(extension), std::string("d\0", 2));
}

} // namespace
