#include "catalog/catalog_file.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using qor::catalog::message;
using qor::catalog::translation;

constexpr message english[] = {{1, "one"}, {7, "file {1}: {2}"}, {10, "ten of {10}"}, {4294967295, "the last"}};

translation parse(std::string_view content) { return qor::catalog::parse_catalog(content, english); }

const translation none = {};
const translation only_one = {"eins", "", "", ""};

class catalog_on_disk : public testing::Test {
protected:
    std::string write(const char* name, const std::string& content) const { return folder.file(name, content); }
    static translation load(const std::string& path) { return qor::catalog::load_catalog(path, english); }

    const qor::test::temp_folder folder;
};

} // namespace

TEST(parse_catalog, finds_each_text_its_place) {
    EXPECT_EQ(parse("1 eins\n7 Datei {1}: {2}\n10 zehn von {10}\n4294967295 die letzte\n"),
              (translation{"eins", "Datei {1}: {2}", "zehn von {10}", "die letzte"}));
}

TEST(parse_catalog, takes_lines_however_they_end) {
    EXPECT_EQ(parse("1 eins"), only_one);
    EXPECT_EQ(parse("1 eins\r\n"), only_one);
    EXPECT_EQ(parse("\n\r\n# 1 uno\n1 eins\n\n"), only_one);
}

TEST(parse_catalog, keeps_the_text_to_the_byte) {
    EXPECT_EQ(parse("1   two blanks in front, one behind \n").at(0), "  two blanks in front, one behind ");
    EXPECT_EQ(parse("1 # no comment\n").at(0), "# no comment");
    EXPECT_EQ(parse("1 {x} {} { {11} {0}\n").at(0), "{x} {} { {11} {0}");
    EXPECT_EQ(parse("1 \xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n").at(0), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(parse_catalog, replaces_escapes) { EXPECT_EQ(parse("1 a\\nb\\tc\\\\n\\\\\n").at(0), "a\nb\tc\\n\\"); }

TEST(parse_catalog, inserts_may_change_places_and_be_repeated) {
    EXPECT_EQ(parse("7 {2} in {1} ({2})\n").at(1), "{2} in {1} ({2})");
}

TEST(parse_catalog, a_broken_line_is_missing_and_harms_no_other) {
    for (const char* line : {"eins",
                             "1",
                             "1 ",
                             "1\teins",
                             " 1 uno",
                             "-1 uno",
                             "+1 uno",
                             "1: uno",
                             "1. uno",
                             "0x1 uno",
                             "1uno",
                             "# 1 uno",
                             "2 zwei",
                             "4294967297 uno",
                             "99999999999999999999999999 uno",
                             "1 \\",
                             "1 \\x",
                             "1 uno\\",
                             "1 u\tno",
                             "1 u\x1bno",
                             "1 u\x7fno",
                             "1 u\rno",
                             "7 nur {1}",
                             "7 nur {2}",
                             "7 ohne",
                             "7 {1} {2} {3}",
                             "10 zehn von {1}",
                             "10 {10} {11} {1}",
                             "1 uno {1}",
                             "1 \xff",
                             "1 \xc3",
                             "1 \xc0\xaf",
                             "1 \xed\xa0\x80",
                             "1 \xf4\x90\x80\x80"}) {
        EXPECT_EQ(parse(std::string(line) + "\n"), none) << line;
        EXPECT_EQ(parse(std::string(line) + "\n1 eins\n"), only_one) << line;
        EXPECT_EQ(parse(std::string("1 eins\n") + line), only_one) << line;
    }
    EXPECT_EQ(parse(std::string("1 u\0no\n", 7)), none);
    // Text that is not a number must not count as number 0.
    constexpr message zero[] = {{0, "zero"}};
    for (const char* line : {" null", "4294967296 null", "-0 null", "# null"})
        EXPECT_EQ(qor::catalog::parse_catalog(line, zero), none) << line;
}

TEST(parse_catalog, order_does_not_matter) {
    EXPECT_EQ(parse("4294967295 die letzte\n1 eins\n"), (translation{"eins", "", "", "die letzte"}));
}

TEST(parse_catalog, of_two_the_first_counts) {
    EXPECT_EQ(parse("1 eins\n1 uno\n"), only_one);
    // A line that cannot be used is ignored.
    EXPECT_EQ(parse("1 \xff\n1 eins\n"), only_one);
    EXPECT_EQ(parse("01 eins\n1 uno\n"), only_one);
}

TEST(parse_catalog, nothing_comes_of_nothing) {
    EXPECT_EQ(parse(""), none);
    EXPECT_EQ(parse("\n"), none);
    EXPECT_EQ(parse(std::string(1000, '\0')), none);
    EXPECT_EQ(qor::catalog::parse_catalog("1 eins\n", {}), none);
}

TEST_F(catalog_on_disk, is_read_whole) {
    std::string content;
    while (content.size() < 100'000)
        content += "# a comment that is longer than a piece of the file\n";
    EXPECT_EQ(load(write("long.msg", content + "1 eins")), only_one);
}

TEST_F(catalog_on_disk, may_be_missing_or_no_file) {
    EXPECT_EQ(load(folder / "missing.msg"), none);
    EXPECT_EQ(load(folder.path()), none);
    EXPECT_EQ(load(write("file", "1 eins") + "/below.msg"), none);
    EXPECT_EQ(load(write("empty.msg", "")), none);
}

TEST_F(catalog_on_disk, is_not_read_beyond_its_limit) {
    const std::string content = "1 eins\n";
    EXPECT_EQ(load(write("full.msg", content + std::string((1 << 20) - content.size(), '#'))), only_one);
    EXPECT_EQ(load(write("huge.msg", content + std::string((1 << 20) + 1 - content.size(), '#'))), none);
}
