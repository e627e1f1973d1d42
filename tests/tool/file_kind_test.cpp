// Recognises files that are given in place of a log.
#include "heap/log/file_kind.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qor::heap;

using namespace std::string_literals;

file_kind kind_of(const std::string& text) { return guess_file_kind(text).kind; }

TEST(file_kinds, signatures) {
    EXPECT_EQ(guess_file_kind("\x7f"
                              "ELF\2\1\1\0"s),
              (file_guess{file_kind::elf}));
    const struct {
        std::string begin;
        std::string compressor;
    } compressed[] = {{"\x1f\x8b\b\0"s, "gzip"},
                      {"\x28\xb5\x2f\xfd\4"s, "zstd"},
                      {"\xfd"
                       "7zXZ\0\0"s,
                       "xz"},
                      {"BZh91AY"s, "bzip2"}};
    for (const auto& each : compressed) {
        EXPECT_EQ(kind_of(each.begin), file_kind::compressed);
        EXPECT_EQ(guess_file_kind(each.begin).compressor, each.compressor);
        EXPECT_TRUE(has_foreign_signature(each.begin));
        EXPECT_FALSE(has_foreign_signature(each.begin.substr(1)));
        EXPECT_FALSE(has_foreign_signature(" " + each.begin));
        EXPECT_FALSE(has_foreign_signature(each.begin.substr(0, 1)));
    }
    EXPECT_EQ(kind_of("\xff\xfe@\0 \0"s), file_kind::utf_16);
    EXPECT_EQ(kind_of("\xfe\xff\0@\0 "s), file_kind::utf_16);
}

TEST(file_kinds, texts) {
    EXPECT_EQ(kind_of("root:x:0:0:root:/root:/bin/bash\n"), file_kind::text);
    EXPECT_EQ(kind_of("caf\xc3\xa9\n\x1b[1mbold\x1b[0m\t\v\f\r\n"), file_kind::text);
    EXPECT_EQ(kind_of("\n \t\r\n\n"), file_kind::blank_lines);
    EXPECT_EQ(kind_of("\n\n  <!DocType HTML>\n"), file_kind::html);
    EXPECT_EQ(kind_of("<HTML lang=\"en\">"), file_kind::html);
    EXPECT_EQ(kind_of("a line\n<html>"), file_kind::text);
    EXPECT_EQ(kind_of("<htm"), file_kind::text);
}

TEST(file_kinds, logs) {
    for (const char* const text :
         {"= Start\n", "@ app + 0x10 0x20\n", "\nx\n  @ app:[0x1] - 0x10", "@ app\t<  10\n", "@a > 10 1"})
        EXPECT_EQ(kind_of(text), file_kind::mtrace_log) << text;
    for (const char* const text : {"@ app\n", "@ app x 0x10 1\n", "= Title\n", "@"})
        EXPECT_EQ(kind_of(text), file_kind::text) << text;
    for (const char* const text :
         {"# a log\nA 1f3a0 48 0 src/foo 120\n", "F 1f3a0 0", "T 1f3a0 Widget\n", "x\nF\t0x1f3a0  3\n"})
        EXPECT_EQ(kind_of(text), file_kind::memcheck_log) << text;
    for (const char* const text : {"A decade of x y z\n", "A 1f3a0\n", "A 0x 1 1\n", "T 1f3a0\n", "F xyz 0\n",
                                   "A1f3a0 1 1\n", "# a log\n", "A", "A 1F3A0 1 0"})
        EXPECT_EQ(kind_of(text), file_kind::text) << text;
}

TEST(file_kinds, bytes) {
    EXPECT_EQ(kind_of(std::string(1024, '\0')), file_kind::zero_bytes);
    EXPECT_EQ(kind_of("\0\0\n"s), file_kind::zero_bytes);
    for (int c = 0; c < 256; ++c) {
        const bool is_control = (c < ' ' && !(c >= '\t' && c <= '\r') && c != 0x1b) || c == 0x7f;
        EXPECT_EQ(kind_of("text" + std::string(1, static_cast<char>(c))),
                  is_control ? file_kind::binary : file_kind::text)
            << c;
    }
}

} // namespace
