#include "format_support.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <fstream>
#include <memory>

using namespace std::string_literals;

namespace {

class stream_closer {
public:
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using stream = std::unique_ptr<std::FILE, stream_closer>;

stream holding(const std::string& contents) {
    stream made(std::tmpfile());
    EXPECT_EQ(std::fwrite(contents.data(), 1, contents.size(), made.get()), contents.size());
    std::rewind(made.get());
    return made;
}

std::string contents_of(std::FILE* file) {
    std::rewind(file);
    std::string contents;
    for (int byte; (byte = std::getc(file)) != EOF;)
        contents += static_cast<char>(byte);
    return contents;
}

std::vector<std::string> lines_of(const std::string& contents) {
    const stream file = holding(contents);
    std::vector<std::string> lines;
    qorString line("left over");
    while (line.GetLine(file.get()))
        lines.push_back(bytes(line));
    EXPECT_TRUE(line.IsEmpty());
    return lines;
}

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

TEST(string_format, numbers) {
    qorString text("before");
    text.FormatInteger(0);
    EXPECT_EQ(bytes(text), "0");
    text.FormatInteger(LLONG_MIN);
    EXPECT_EQ(bytes(text), "-9223372036854775808");
    text.FormatInteger(LLONG_MAX);
    EXPECT_EQ(bytes(text), "9223372036854775807");
    text.FormatUnsigned(ULLONG_MAX);
    EXPECT_EQ(bytes(text), "18446744073709551615");
    text.FormatUnsigned(ULLONG_MAX, 2);
    EXPECT_EQ(bytes(text), std::string(64, '1'));
    text.FormatUnsigned(0xdeadbeef, 16);
    EXPECT_EQ(bytes(text), "deadbeef");
    text.FormatUnsigned(35, 36);
    EXPECT_EQ(bytes(text), "z");
}

TEST(string_format, a_base_that_is_none_gives_nothing) {
    for (const uint32 base : {0u, 1u, 37u, 0xffffffffu}) {
        qorString text("before");
        text.FormatUnsigned(5, base);
        EXPECT_TRUE(text.IsEmpty()) << base;
    }
}

TEST(string_format, printf) {
    qorString text;
    text.Printf("%s %d %5.2f%% %c%c", "text", -3, 2.5, 'x', 0);
    EXPECT_EQ(bytes(text), "text -3  2.50% x\0"s);
    text.Printf("%s", "");
    EXPECT_TRUE(text.IsEmpty());
}

TEST(string_format, errno_is_the_callers_in_both_passes) {
    qorString text;
    errno = ENOENT;
    print(text, "%m");
    EXPECT_EQ(bytes(text), "No such file or directory");
    errno = ENOENT;
    print(text, "%3000s%m", "");
    EXPECT_EQ(bytes(text), std::string(3000, ' ') + "No such file or directory");
}

TEST(string_format, every_length_around_the_small_buffer) {
    for (int width = 1000; width < 1050; ++width) {
        qorString text;
        text.Printf("%*d", width, 7);
        EXPECT_EQ(bytes(text), std::string(static_cast<std::size_t>(width) - 1, ' ') + "7");
    }
    qorString text;
    text.Printf("%0*d", 1 << 20, 1);
    EXPECT_EQ(text.Length(), 1u << 20);
    EXPECT_EQ(text[(1 << 20) - 1], '1');
}

TEST(string_format, arguments_may_lie_in_the_string_itself) {
    qorString text("abc");
    print(text, "<%s|%s>", text.Text(), text.Text() + 1);
    EXPECT_EQ(bytes(text), "<abc|bc>");
    for (int i = 0; i < 10; ++i)
        text.Printf("%s%s", text.Text(), text.Text());
    EXPECT_EQ(text.Length(), 8u * 1024);
    text = "%d of itself";
    print(text, text.Text(), 1);
    EXPECT_EQ(bytes(text), "1 of itself");
}

TEST(string_format, what_the_c_library_refuses_leaves_it_empty) {
    qorString text("before");
    text.Printf("%ls", L"\x20ac");
    EXPECT_TRUE(text.IsEmpty());
}

TEST(string_format, the_processes_locale_does_not_change_the_result) {
    const qor::test::comma_locale comma;
    expect_results_of_the_c_locale();
}

TEST(string_format, agrees_with_the_c_library) {
    generator random(23);
    const char* const formats[] = {"%lld", "%+020lld", "%#llx", "%-24llo|", "%.30llu", "%llX"};
    const char* const real_formats[] = {"%f", "%.0f", "%e", "%G", "%a", "%+.17g", "%30.3f"};
    for (int i = 0; i < 5000; ++i) {
        char expected[512];
        qorString text;
        const int64 number =
            static_cast<int64>(uint64{random.below(0xffffffff)} << random.below(33)) * (random.below(2) == 0 ? 1 : -1);
        const char* const format = formats[random.below(6)];
        std::snprintf(expected, sizeof expected, format, number);
        text.Printf(format, number);
        ASSERT_EQ(bytes(text), expected);

        const double real = static_cast<double>(number) / (random.below(1000) + 1);
        const char* const real_format = real_formats[random.below(7)];
        std::snprintf(expected, sizeof expected, real_format, real);
        text.Printf(real_format, real);
        ASSERT_EQ(bytes(text), expected);
    }
}

TEST(string_stream, put_writes_the_text_as_it_is) {
    const stream file = holding("");
    EXPECT_TRUE(made_of("a\0\xff"s).Put(file.get(), false));
    EXPECT_TRUE(qorString("b").Put(file.get(), true));
    EXPECT_TRUE(qorString().Put(file.get(), false));
    EXPECT_TRUE(qorString().Put(file.get(), true));
    EXPECT_TRUE(made_of(std::string(5000, 'x')).Put(file.get(), true));
    EXPECT_EQ(contents_of(file.get()), "a\0\xff"s + "b\n\n" + std::string(5000, 'x') + "\n");
}

TEST(string_stream, put_says_that_it_could_not) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "file";
    std::ofstream(path) << "text";
    const stream file(std::fopen(path.c_str(), "r"));
    qorClearLastError();
    EXPECT_TRUE(qorString().Put(file.get(), false));
    EXPECT_EQ(last_error(), qorError_none);
    EXPECT_FALSE(qorString("a").Put(file.get(), false));
    EXPECT_EQ(last_error(), qorError_cannot_write_file);
    qorClearLastError();
    EXPECT_FALSE(qorString().Put(file.get(), true));
    EXPECT_EQ(last_error(), qorError_cannot_write_file);
}

TEST(string_stream, lines_and_their_ends) {
    using lines = std::vector<std::string>;
    EXPECT_EQ(lines_of(""), lines{});
    EXPECT_EQ(lines_of("\n"), lines{""});
    EXPECT_EQ(lines_of("a"), lines{"a"});
    EXPECT_EQ(lines_of("a\n"), lines{"a"});
    EXPECT_EQ(lines_of("a\n\nb"), (lines{"a", "", "b"}));
    EXPECT_EQ(lines_of("a\r\n\r\nb\r"), (lines{"a", "", "b\r"}));
    EXPECT_EQ(lines_of("a\rb\r\r\n"), lines{"a\rb\r"});
    EXPECT_EQ(lines_of("\0\n\0a\0\n\0"s), (lines{"\0"s, "\0a\0"s, "\0"s}));
    EXPECT_EQ(lines_of("\xff\n"), lines{"\xff"}) << "a byte that looks like EOF";
}

TEST(string_stream, lines_of_any_length) {
    for (const std::size_t length : {510u, 511u, 512u, 513u, 1023u, 1024u, 1025u, 100000u}) {
        const std::string line(length, 'x');
        EXPECT_EQ(lines_of(line + "\n" + line), (std::vector<std::string>{line, line}));
        EXPECT_EQ(lines_of(line + "\r\ny\n"), (std::vector<std::string>{line, "y"}));
    }
}

TEST(string_stream, the_line_buffer_is_reused) {
    const stream file = holding("a line that needs room\nshort\n");
    qorString line;
    ASSERT_TRUE(line.GetLine(file.get()));
    const char* const storage = line.Text();
    ASSERT_TRUE(line.GetLine(file.get()));
    EXPECT_EQ(line.Text(), storage);
    EXPECT_EQ(bytes(line), "short");
}

TEST(string_stream, a_read_error_is_not_the_end_of_the_input) {
    const qor::test::temp_folder folder;
    const std::string path = folder / "file";
    const stream file(std::fopen(path.c_str(), "w"));
    qorString line("before");
    qorClearLastError();
    EXPECT_FALSE(line.GetLine(file.get()));
    EXPECT_EQ(last_error(), qorError_cannot_read_file);
    EXPECT_TRUE(line.IsEmpty());

    qorClearLastError();
    EXPECT_FALSE(line.GetLine(holding("").get()));
    EXPECT_EQ(last_error(), qorError_none);
}

} // namespace
