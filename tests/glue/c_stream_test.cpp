// Text on C streams, which cross the table as sinks and sources. Programs that were compiled earlier pass the streams
// themselves; both ways must do the same.
#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr char text[] = "J\u00fcrgen\x1b[31m\0 and more";
constexpr std::string_view whole{text, sizeof text - 1};

// Returns the bytes that `print` leaves in a file.
std::string printed(const std::function<void(std::FILE*)>& print) {
    const qor::test::temp_folder folder;
    std::FILE* const file = std::fopen((folder / "file").c_str(), "wb");
    EXPECT_NE(file, nullptr);
    print(file);
    std::fclose(file);
    return qor::test::read_file(folder / "file");
}

int print_formatted(std::FILE* stream, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int result = qor::glue::fixed_vfprintf(stream, format, arguments);
    va_end(arguments);
    return result;
}

// The lines of a file, each read by `get`.
std::vector<std::string> lines(const std::string& content, const std::function<bool(qorString&, std::FILE*)>& get) {
    const qor::test::temp_folder folder;
    std::FILE* file = std::fopen((folder / "file").c_str(), "wb");
    EXPECT_NE(file, nullptr);
    std::fwrite(content.data(), 1, content.size(), file);
    std::fclose(file);
    file = std::fopen((folder / "file").c_str(), "rb");
    EXPECT_NE(file, nullptr);
    std::vector<std::string> result;
    for (qorString line; get(line, file);)
        result.emplace_back(line.Text(), line.Length());
    std::fclose(file);
    return result;
}

// A stream as a client of another C run-time might make it.
class made_up_sink final : public IQORStreamSink {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Write(const void* bytes, uint32 size) noexcept override {
        ++writes;
        written.append(static_cast<const char*>(bytes), size);
        return failure == 0;
    }
    int64 GetTerminal() noexcept override { return terminal; }
    bool Flush() noexcept override { return true; }
    void Lock() noexcept override {}
    void Unlock() noexcept override {}
    int32 GetFailure() noexcept override { return failure; }

    int writes = 0;
    std::string written;
    int64 terminal = -1;
    int32 failure = 0;
};

// A stream that gives what the test wants, in pieces of any size.
class made_up_source final : public IQORStreamSource {
public:
    explicit made_up_source(std::string bytes) : m_bytes(std::move(bytes)) {}
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Read(void*, uint32) noexcept override { return false; }
    bool ReadLine(char* bytes, uint32 size, uint32* count) noexcept override {
        const std::size_t line = std::min(m_bytes.find('\n'), m_bytes.size() - 1) + 1;
        *count = static_cast<uint32>(m_bytes.copy(bytes, std::min<std::size_t>(line, size)));
        m_bytes.erase(0, *count);
        return *count != 0 || failure == 0;
    }
    int64 GetTerminal() noexcept override { return -1; }
    void Lock() noexcept override {}
    void Unlock() noexcept override {}
    int32 GetFailure() noexcept override { return failure; }

    int32 failure = 0;

private:
    std::string m_bytes;
};

uint32 last_error() {
    qorString ignored;
    return qorGetLastError(ignored);
}

TEST(c_stream, gets_the_same_from_the_rows_of_earlier_clients) {
    const qorString string(text, sizeof text - 1);
    const char* const inserts[10] = {"one", "two"};
    qorSetLastError(qorError_no_such_user, "somebody");
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    const std::pair<std::function<void(std::FILE*)>, std::function<void(std::FILE*)>> both[] = {
        {[&](auto* to) { EXPECT_TRUE(string.Put(to, true)); },
         [&](auto* to) { EXPECT_TRUE(qor::glue::qorString_Put(&string, to, true)); }},
        {[&](auto* to) { EXPECT_TRUE(string.Put(to, false)); },
         [&](auto* to) { EXPECT_TRUE(qor::glue::qorString_Put(&string, to, false)); }},
        {[](auto* to) { fputerr(to, true); }, [](auto* to) { qor::glue::fputerr(to, true); }},
        {[](auto* to) { qorWriteToolkitHelp(to); }, [](auto* to) { qor::glue::qorWriteToolkitHelp(to); }},
        {[](auto* to) { qorWriteHelpLine(to, "qorcore", 1000, 1001); },
         [](auto* to) { qor::glue::qorWriteHelpLine(to, "qorcore", 1000, 1001); }},
        {[](auto* to) { EXPECT_TRUE(fputmsg(to, "qorcore", 1000, "one", "two")); },
         [&](auto* to) { EXPECT_TRUE(qor::glue::fputmsg(to, "qorcore", 1000, inserts, true)); }},
        {[](auto* to) { EXPECT_EQ(fixed_fprintf(to, "%d %.2f %s", 1, 0.5, "x"), 8); },
         [](auto* to) { EXPECT_EQ(print_formatted(to, "%d %.2f %s", 1, 0.5, "x"), 8); }},
        {[](auto* to) { EXPECT_TRUE(fputtext(to, text, sizeof text - 1)); },
         [](auto* to) { EXPECT_TRUE(qor::glue::fputtext(to, text, sizeof text - 1)); }},
        {[&](auto* to) { EXPECT_TRUE(error->Put(to, true)); },
         [&](auto* to) { EXPECT_TRUE(error->PutToOwnStream(to, true)); }},
    };
    int number = 0;
    for (const auto& [now, before] : both) {
        const std::string result = printed(now);
        EXPECT_FALSE(result.empty()) << number;
        EXPECT_EQ(printed(before), result) << number;
        ++number;
    }
    EXPECT_EQ(printed([&](auto* to) { string.Put(to, true); }), std::string(whole) + '\n');
}

TEST(c_stream, gives_the_same_lines_to_the_row_of_earlier_clients) {
    for (const std::string& content :
         {std::string(), std::string("\n"), std::string("one"), std::string("one\r\n\r\nthree\n"),
          std::string(511, 'x') + '\n', std::string(512, 'x') + '\n' + std::string(1024, 'y'),
          std::string(100'000, 'z') + "\r\nend", std::string("a\0b\nc", 5)}) {
        std::vector<std::string> expected;
        for (std::size_t at = 0; at < content.size();) {
            const std::size_t end = std::min(content.find('\n', at), content.size());
            const bool has_return = end < content.size() && end != at && content[end - 1] == '\r';
            expected.push_back(content.substr(at, end - at - has_return));
            at = end + 1;
        }
        EXPECT_EQ(lines(content, [](qorString& line, std::FILE* from) { return line.GetLine(from); }), expected);
        EXPECT_EQ(
            lines(content, [](qorString& line, std::FILE* from) { return qor::glue::qorString_GetLine(&line, from); }),
            expected);
    }
}

TEST(c_stream, of_a_client_gets_a_text_in_one_piece) {
    made_up_sink sink;
    const qorString string(text, sizeof text - 1);
    EXPECT_TRUE(qor::glue::qorString_Put_sink(&string, &sink, true));
    EXPECT_EQ(sink.written, std::string(whole) + '\n');
    EXPECT_EQ(sink.writes, 1);
    EXPECT_TRUE(qor::glue::fputtext_sink(&sink, "", 0)); // what a client does before a write is done all the same
    EXPECT_EQ(sink.writes, 2);
}

TEST(c_stream, that_is_a_terminal_gets_nothing_that_steers_it) {
    made_up_sink sink;
    sink.terminal = 5;
    EXPECT_TRUE(qor::glue::fputtext_sink(&sink, text, sizeof text - 1));
    EXPECT_EQ(sink.written, "J\u00fcrgen\\x1b[31m\\x00 and more");
}

TEST(c_stream, that_fails_tells_the_reason) {
    made_up_sink sink;
    sink.failure = 5; // an error of Linux as well as of Windows
    const qorString string("text");
    qorClearLastError();
    EXPECT_FALSE(qor::glue::qorString_Put_sink(&string, &sink, true));
    EXPECT_EQ(last_error(), uint32{qorError_cannot_write_file});
    qorString reason;
    EXPECT_TRUE(qorGetLastErrorInsert(2, reason));
    EXPECT_FALSE(reason.IsEmpty());
    EXPECT_FALSE(qor::glue::fputtext_sink(&sink, "a", 1));

    made_up_source source("half a line");
    source.failure = 5;
    qorString line;
    EXPECT_TRUE(qor::glue::qorString_GetLine_source(&line, &source));
    EXPECT_EQ(line, "half a line");
    EXPECT_FALSE(qor::glue::qorString_GetLine_source(&line, &source));
    EXPECT_TRUE(line.IsEmpty());
    EXPECT_EQ(last_error(), uint32{qorError_cannot_read_file});
    EXPECT_TRUE(qorGetLastErrorInsert(2, line));
    EXPECT_EQ(line, reason);
}

TEST(c_stream, that_ends_is_no_error) {
    made_up_source source("one\ntwo");
    qorString line;
    qorClearLastError();
    EXPECT_TRUE(qor::glue::qorString_GetLine_source(&line, &source));
    EXPECT_EQ(line, "one");
    EXPECT_TRUE(qor::glue::qorString_GetLine_source(&line, &source));
    EXPECT_EQ(line, "two");
    EXPECT_FALSE(qor::glue::qorString_GetLine_source(&line, &source));
    EXPECT_EQ(last_error(), 0u);
}

} // namespace
