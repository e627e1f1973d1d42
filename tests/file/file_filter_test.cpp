// Lines that come through a filter.
#include "reader_support.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace {

using namespace qor::test;

// Files that begin with "#!": each byte behind that stands for itself, so many times as the test wants; "X" cannot be
// converted, and "." has to be the last byte.
class repeating_filter final : public IQORFileFilter {
public:
    explicit repeating_filter(uint32 times) : m_times(times) {}

    answer IsFor(const char* beginning, uint64 size) noexcept override {
        ++asked;
        const uint64 shared = std::min<uint64>(size, 2);
        if (std::memcmp(beginning, "#!", shared) != 0)
            return answer::no;
        return shared == 2 ? answer::yes : answer::undecided;
    }

    bool Convert(const char** next, const char* end, bool is_at_end, char** out, char* out_end) noexcept override {
        for (; *next != end && **next != 'X'; ++*next) {
            const char byte = **next;
            is_whole = byte == '.';
            if (byte == '#' || byte == '!')
                continue;
            for (; done != m_times; ++done) {
                if (*out == out_end)
                    return true;
                *(*out)++ = byte;
            }
            done = 0;
        }
        if (*next == end && (!is_at_end || is_whole))
            return true;
        qorSetLastError(qorError_unknown);
        return false;
    }

    int asked = 0;
    uint32 done = 0;
    bool is_whole = false;

private:
    uint32 m_times;
};

class file_filter : public reader_test {
protected:
    reader_pointer open(const std::string& text, IQORFileFilter& filter) {
        reader_pointer reader = make_reader();
        EXPECT_TRUE(reader->Open(m_folder.file("text", text).c_str(), 0));
        reader->SetFilter(&filter);
        qorClearLastError();
        return reader;
    }
};

TEST_F(file_filter, makes_the_lines) {
    repeating_filter twice(2);
    EXPECT_EQ(read_all(*open("#!ab\ncd.", twice)), (words{"aabb", "", "ccdd.."}));
    EXPECT_EQ(last_error(), "There is no error to report.");
    EXPECT_EQ(twice.asked, 1);
}

TEST_F(file_filter, leaves_other_files_alone) {
    for (const char* const text : {"a#!b\nc", "", "#", "#\n!", "\n"}) {
        repeating_filter twice(2);
        const reader_pointer with = open(text, twice);
        const words lines = read_all(*with);
        const reader_pointer without = make_reader();
        ASSERT_TRUE(without->Open((m_folder / "text").c_str(), 0));
        EXPECT_EQ(lines, read_all(*without)) << text;
        EXPECT_EQ(last_error(), "There is no error to report.");
        EXPECT_LE(twice.asked, 2);
    }
}

// More than the reader takes at a time, of the file and of the text.
TEST_F(file_filter, long_files_and_lines) {
    const std::string line(300'000, 'a');
    std::string text = "#!";
    for (int i = 0; i < 3; ++i)
        text += line + "b";
    text += "\n.";
    for (const uint32 times : {1u, 7u}) {
        repeating_filter filter(times);
        std::string expected;
        for (int i = 0; i < 3; ++i)
            expected += std::string(line.size() * times, 'a') + std::string(times, 'b');
        words lines{expected};
        lines.insert(lines.end(), times - 1, "");
        lines.emplace_back(times, '.');
        EXPECT_TRUE(read_all(*open(text, filter)) == lines);
    }
}

TEST_F(file_filter, what_came_before_a_failure_is_read) {
    for (const char* const rest : {"", "Xmore\n."}) {
        repeating_filter once(1);
        const reader_pointer reader = open(std::string("#!a\nb") + rest, once);
        EXPECT_EQ(read_all(*reader), (words{"a", "b"}));
        for (int i = 0; i < 3; ++i) {
            qorClearLastError();
            EXPECT_EQ(read_all(*reader), words{});
            EXPECT_EQ(last_error(), "An operation failed without giving a reason.");
        }
    }
}

// The end was not the end.
TEST_F(file_filter, goes_on_where_the_file_does) {
    repeating_filter once(1);
    const reader_pointer reader = open("#!a\n", once);
    EXPECT_EQ(read_all(*reader), words{"a"});
    EXPECT_EQ(last_error(), "An operation failed without giving a reason.");
    std::ofstream(m_folder / "text", std::ios::binary | std::ios::app) << "b\n.";
    qorClearLastError();
    EXPECT_EQ(read_all(*reader), (words{"b", "."}));
    EXPECT_EQ(last_error(), "There is no error to report.");
}

TEST_F(file_filter, another_file_has_none) {
    repeating_filter twice(2);
    const reader_pointer reader = open("#!a.", twice);
    EXPECT_EQ(read_all(*reader), words{"aa.."});
    ASSERT_TRUE(reader->Open((m_folder / "text").c_str(), 0));
    EXPECT_EQ(read_all(*reader), words{"#!a."});
}

// A line that is too long is skipped in what the filter makes.
TEST_F(file_filter, lines_that_are_too_long) {
    repeating_filter often(300u << 20);
    const reader_pointer reader = open("#!\na", often);
    const char* text = nullptr;
    uint64 size = 0;
    uint64 lines = 0;
    while (reader->ReadLines(&text, &size))
        lines += size;
    EXPECT_EQ(lines, uint64{300} << 20);
    EXPECT_EQ(size, (uint64{256} << 20) + 1);
    EXPECT_EQ(last_error(), "Cannot read '" + (m_folder / "text") + "': one of its lines is longer than 256 MiB.");
    EXPECT_FALSE(reader->ReadLines(&text, &size));
    EXPECT_EQ(last_error(), "An operation failed without giving a reason.");
}

} // namespace
