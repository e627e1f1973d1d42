#include "catalog/catalog.h"
#include "reader_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace qor::test;

constexpr std::size_t block = 256 * 1024; // the reader's block size

// The plain way: splits at line feeds and removes a carriage return before each.
words split(const std::string& bytes) {
    words lines;
    std::size_t begin = 0;
    for (std::size_t end; (end = bytes.find('\n', begin)) != std::string::npos; begin = end + 1) {
        lines.push_back(bytes.substr(begin, end - begin));
        if (lines.back().ends_with('\r'))
            lines.back().pop_back();
    }
    if (begin != bytes.size())
        lines.push_back(bytes.substr(begin));
    return lines;
}

class simple_file_reader : public qor::test::reader_test {
protected:
    simple_file_reader() {
        std::string why;
        qor::catalog::set_languages("en", why);
        qorClearLastError();
    }

    words lines_of(const std::string& bytes) {
        const reader_pointer reader = make_reader();
        EXPECT_TRUE(reader->Open(m_folder.file("text", bytes).c_str(), 0));
        return read_all(*reader);
    }
};

} // namespace

TEST_F(simple_file_reader, lines) {
    EXPECT_EQ(lines_of(""), words{});
    EXPECT_EQ(lines_of("\n"), words{""});
    EXPECT_EQ(lines_of("\n\n"), (words{"", ""}));
    EXPECT_EQ(lines_of("a\nb\n"), (words{"a", "b"}));
    EXPECT_EQ(lines_of("a\nb"), (words{"a", "b"}));
    EXPECT_EQ(lines_of(" a \n\t\n"), (words{" a ", "\t"}));
}

TEST_F(simple_file_reader, carriage_returns) {
    EXPECT_EQ(lines_of("a\r\nb\r\n"), (words{"a", "b"}));
    EXPECT_EQ(lines_of("\r\n\r\n"), (words{"", ""}));
    EXPECT_EQ(lines_of("a\rb\n"), (words{"a\rb"}));
    EXPECT_EQ(lines_of("a\r\r\n"), (words{"a\r"}));
    EXPECT_EQ(lines_of("a\r"), (words{"a\r"}));
    EXPECT_EQ(lines_of("\r"), (words{"\r"}));
}

TEST_F(simple_file_reader, any_byte) {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    EXPECT_EQ(lines_of(bytes), split(bytes));
    const std::string nuls("\0a\0\n\0\n", 6);
    EXPECT_EQ(lines_of(nuls), (words{std::string("\0a\0", 3), std::string("\0", 1)}));
}

// Every way in which a line and its end can cross the reader's blocks.
TEST_F(simple_file_reader, lines_around_the_end_of_a_block) {
    for (const char* const end : {"\n", "\r\n"})
        for (std::size_t blocks = 1; blocks <= 3; ++blocks)
            for (std::size_t length = blocks * block - 4; length <= blocks * block + 2; ++length) {
                const std::string line(length, 'x');
                EXPECT_EQ(lines_of(line + end + "second" + end), (words{line, "second"})) << length;
                EXPECT_EQ(lines_of(line + end), (words{line})) << length;
                EXPECT_EQ(lines_of(line), (words{line})) << length;
                EXPECT_EQ(lines_of("first" + (end + line) + end), (words{"first", line})) << length;
            }
}

TEST_F(simple_file_reader, random_bytes) {
    std::mt19937 random(4711);
    for (const unsigned range : {3u, 16u, 256u}) {
        std::string bytes;
        // Mostly line ends in the small ranges, hardly any in the large one.
        for (std::size_t i = 0; i < 1'000'000; ++i)
            bytes += static_cast<char>(range == 3 ? "\r\na"[random() % 3] : static_cast<int>(random() % range));
        EXPECT_TRUE(lines_of(bytes) == split(bytes)) << range;
    }
}

TEST_F(simple_file_reader, a_folder_a_missing_file_and_an_empty_name) {
    const reader_pointer reader = make_reader();
    const std::string folder = m_folder / "";
    EXPECT_FALSE(reader->Open(folder.c_str(), 0));
    const qor::test::reasons reasons = qor::test::system_reasons();
    EXPECT_EQ(last_error(), "Cannot open '" + folder + "': " + reasons.a_folder + ".");
    const std::string missing = m_folder / "missing";
    EXPECT_FALSE(reader->Open(missing.c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + missing + "': " + reasons.no_file + ".");
    EXPECT_FALSE(reader->Open("", 0));
    EXPECT_EQ(last_error(), "Cannot open '': " + reasons.no_name + ".");
    const std::string beyond = m_folder.file("file", "x") + "/beyond";
    EXPECT_FALSE(reader->Open(beyond.c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + beyond + "': " + reasons.below_a_file + ".");
}

TEST_F(simple_file_reader, flags_are_refused) {
    const std::string path = m_folder.file("text", "a\n");
    for (const uint32 flags : {1u, 2u, 0x80000000u, 0xffffffffu}) {
        const reader_pointer reader = make_reader();
        EXPECT_FALSE(reader->Open(path.c_str(), flags));
        EXPECT_EQ(last_error(), "IQORSimpleFileReader::Open was called with an invalid argument: flags.");
        qorString line;
        EXPECT_FALSE(reader->ReadLine(line));
    }
}

TEST_F(simple_file_reader, reading_needs_an_open_file) {
    const reader_pointer reader = make_reader();
    qorString line;
    EXPECT_FALSE(reader->ReadLine(line));
    EXPECT_EQ(last_error(), "IQORSimpleFileReader::ReadLine needs an open file.");
    EXPECT_FALSE(reader->Open((m_folder / "missing").c_str(), 0));
    EXPECT_FALSE(reader->ReadLine(line));
    EXPECT_EQ(last_error(), "IQORSimpleFileReader::ReadLine needs an open file.");
}

TEST_F(simple_file_reader, the_end_of_a_file_is_no_error_and_stays_the_end) {
    const reader_pointer reader = make_reader();
    ASSERT_TRUE(reader->Open(m_folder.file("text", "a").c_str(), 0));
    EXPECT_EQ(read_all(*reader), words{"a"});
    qorString line;
    EXPECT_FALSE(reader->ReadLine(line));
    EXPECT_EQ(last_error(), "There is no error to report.");
}

constexpr std::uintmax_t longest = std::uintmax_t{256} << 20;

// Writes a line that begins with "x" and has this length, and then `rest`. The line is a hole and takes no disk space.
std::string with_long_line(const temp_folder& folder, std::uintmax_t length, const std::string& rest) {
    const std::string path = folder.file("text", "a\nx");
    std::filesystem::resize_file(path, 2 + length);
    std::ofstream(path, std::ios::binary | std::ios::app) << rest;
    return path;
}

TEST_F(simple_file_reader, a_line_of_256_MiB) {
    for (const char* const rest : {"", "\n", "\nb"}) {
        const reader_pointer reader = make_reader();
        ASSERT_TRUE(reader->Open(with_long_line(m_folder, longest, rest).c_str(), 0));
        qorString line;
        EXPECT_TRUE(reader->ReadLine(line));
        EXPECT_TRUE(reader->ReadLine(line));
        EXPECT_EQ(line.Length(), longest);
        EXPECT_EQ(read_all(*reader), std::string_view(rest) == "\nb" ? words{"b"} : words{});
        EXPECT_EQ(last_error(), "There is no error to report.");
    }
}

TEST_F(simple_file_reader, a_line_of_more_than_256_MiB_is_a_read_error) {
    for (const std::uintmax_t more : {1, 2, 300'000}) {
        for (const std::string rest : {"", "\n", "\nb\n", "\nb"}) {
            const std::string path = with_long_line(m_folder, longest + more, rest);
            const reader_pointer reader = make_reader();
            ASSERT_TRUE(reader->Open(path.c_str(), 0));
            qorClearLastError();
            EXPECT_EQ(read_all(*reader), words{"a"});
            EXPECT_EQ(last_error(), "Cannot read '" + path + "': one of its lines is longer than 256 MiB.");
            // Reading continues after the line, and ends at the end of the file.
            qorClearLastError();
            EXPECT_EQ(read_all(*reader), rest.size() > 1 ? words{"b"} : words{});
            EXPECT_EQ(read_all(*reader), words{});
            EXPECT_EQ(last_error(), "There is no error to report.");
        }
    }
}

TEST_F(simple_file_reader, a_run_has_the_beginning_of_a_line_that_is_too_long) {
    const reader_pointer reader = make_reader();
    ASSERT_TRUE(reader->Open(with_long_line(m_folder, longest + 7, "\nb\nc\nd").c_str(), 0));
    const char* text = nullptr;
    uint64 size = 7;
    ASSERT_TRUE(reader->ReadLines(&text, &size));
    EXPECT_EQ(std::string_view(text, size), "a\n");
    ASSERT_FALSE(reader->ReadLines(&text, &size));
    ASSERT_EQ(size, longest + 1);
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(text[longest - 1], '\0');
    EXPECT_EQ(text[longest], '\n');
    ASSERT_TRUE(reader->ReadLines(&text, &size));
    EXPECT_EQ(std::string_view(text, size), "b\nc\n");
    ASSERT_TRUE(reader->ReadLines(&text, &size));
    EXPECT_EQ(std::string_view(text, size), "d\n");
    ASSERT_FALSE(reader->ReadLines(&text, &size));
    EXPECT_EQ(size, 0u);
}

TEST_F(simple_file_reader, a_second_open_begins_anew) {
    const reader_pointer reader = make_reader();
    const std::string first = m_folder.file("first", "a\nb\nc\n");
    const std::string second = m_folder.file("second", "d");
    qorString line;
    ASSERT_TRUE(reader->Open(first.c_str(), 0));
    EXPECT_TRUE(reader->ReadLine(line));
    ASSERT_TRUE(reader->Open(second.c_str(), 0));
    EXPECT_EQ(read_all(*reader), words{"d"});
    ASSERT_TRUE(reader->Open(first.c_str(), 0));
    EXPECT_TRUE(reader->ReadLine(line));
    EXPECT_EQ(view(line), "a");
    EXPECT_FALSE(reader->Open((m_folder / "missing").c_str(), 0));
    EXPECT_FALSE(reader->ReadLine(line));
}

TEST_F(simple_file_reader, a_query_knows_two_names) {
    const reader_pointer reader = make_reader();
    void* out = nullptr;
    EXPECT_EQ(reader->QueryInterface("IQORDataSource", &out), 0);
    EXPECT_EQ(reader->QueryInterface("IQORSimpleFileReader", &out), 1);
    EXPECT_EQ(out, *reader);
    reader->Release();
    EXPECT_EQ(reader->QueryInterface("IQORInterface", &out), 1);
    reader->Release();
}

// Programs are compiled against the order of the operations.
TEST_F(simple_file_reader, open_and_read_follow_the_three_of_every_interface) {
    const reader_pointer reader = make_reader();
    IQORSimpleFileReader* const object = *reader;
    void** const operations = *reinterpret_cast<void***>(object);
    const std::string path = m_folder.file("text", "a\n");
    EXPECT_TRUE(
        reinterpret_cast<bool (*)(IQORSimpleFileReader*, const char*, uint32)>(operations[3])(object, path.c_str(), 0));
    qorString line;
    EXPECT_TRUE(reinterpret_cast<bool (*)(IQORSimpleFileReader*, qorString&)>(operations[4])(object, line));
    EXPECT_STREQ(line, "a");
}
