#include "catalog/catalog.h"
#include "qor/qor.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using qor::test::temp_folder;
using qor::test::words;
using reader_pointer = zetSmartPointer<IQORSimpleFileReader>;

constexpr std::size_t block = 256 * 1024; // the reader's own

std::string view(const qorString& text) { return {text.Text(), text.Length()}; }

std::string last_error() {
    qorString text;
    qorGetLastError(text);
    return view(text);
}

reader_pointer make_reader() {
    reader_pointer reader;
    create_IQORSimpleFileReader(reader.Out());
    return reader;
}

words read_all(IQORSimpleFileReader* reader) {
    words lines;
    qorString line("what was there before");
    while (reader->ReadLine(line))
        lines.push_back(view(line));
    return lines;
}

// The plain way: what lies between line feeds, without a carriage return in front of them.
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

class simple_file_reader : public testing::Test {
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

    const temp_folder m_folder;
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

// Every way in which a line and its end can lie across the reader's blocks.
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
    EXPECT_EQ(last_error(), "Cannot open '" + folder + "': Is a directory.");
    const std::string missing = m_folder / "missing";
    EXPECT_FALSE(reader->Open(missing.c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + missing + "': No such file or directory.");
    EXPECT_FALSE(reader->Open("", 0));
    EXPECT_EQ(last_error(), "Cannot open '': No such file or directory.");
    const std::string beyond = m_folder.file("file", "x") + "/beyond";
    EXPECT_FALSE(reader->Open(beyond.c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + beyond + "': Not a directory.");
}

namespace {

constexpr int nobody = 65534;

// Rights mean nothing to a super-user, so the scene gives them up.
const qor::test::scene unreadable{"reader_unreadable", [](const words& arguments) {
    if (geteuid() == 0 && setuid(nobody) != 0)
        return 1;
    const reader_pointer reader = make_reader();
    EXPECT_FALSE(reader->Open(arguments[0].c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + arguments[0] + "': Permission denied.");
    return 0;
}};

} // namespace

TEST_F(simple_file_reader, an_unreadable_file) {
    const std::string path = m_folder.file("secret", "x");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    ASSERT_EQ(chmod((m_folder / "").c_str(), 0755), 0);
    const qor::test::ending ended = qor::test::play(unreadable, {path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

TEST_F(simple_file_reader, flags_are_refused) {
    const std::string path = m_folder.file("text", "a\n");
    for (const uint32 flags : {1u, 2u, 0x80000000u, 0xffffffffu}) {
        const reader_pointer reader = make_reader();
        EXPECT_FALSE(reader->Open(path.c_str(), flags));
        EXPECT_EQ(last_error(),
                  "IQORSimpleFileReader::Open was called with an argument that it cannot use: flags.");
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

TEST_F(simple_file_reader, a_read_error_is_the_last_error) {
    const reader_pointer reader = make_reader();
    // Opens, but its first page is not mapped.
    ASSERT_TRUE(reader->Open("/proc/self/mem", 0));
    qorString line;
    EXPECT_FALSE(reader->ReadLine(line));
    EXPECT_EQ(last_error(), "Cannot read '/proc/self/mem': Input/output error.");
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

TEST_F(simple_file_reader, the_last_release_closes_the_file) {
    const std::string path = m_folder.file("text", "a\n");
    const int free_before = open("/dev/null", O_RDONLY);
    close(free_before);
    {
        const reader_pointer reader = make_reader();
        ASSERT_TRUE(reader->Open(path.c_str(), 0));
        ASSERT_TRUE(reader->Open(path.c_str(), 0));
        EXPECT_EQ(fcntl(free_before, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(fcntl(free_before, F_GETFD), -1);
}

TEST_F(simple_file_reader, a_pipe_that_is_fed_slowly) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&path] {
        const int pipe = open(path.c_str(), O_WRONLY);
        for (const char* const piece : {"fir", "st\r", "\nsecond", "\n", "\nlast"}) {
            EXPECT_GT(write(pipe, piece, std::strlen(piece)), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        close(pipe);
    });
    const reader_pointer reader = make_reader();
    EXPECT_TRUE(reader->Open(path.c_str(), 0));
    EXPECT_EQ(read_all(*reader), (words{"first", "second", "", "last"}));
    writer.join();
}

TEST_F(simple_file_reader, a_line_of_a_pipe_comes_before_its_end) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    // A pipe that the test holds open at both ends: nobody waits in open().
    const int pipe = open(path.c_str(), O_RDWR);
    const reader_pointer reader = make_reader();
    ASSERT_TRUE(reader->Open(path.c_str(), 0));
    qorString line;
    for (const char* const text : {"one\n", "two\n"}) {
        ASSERT_EQ(write(pipe, text, 4), 4);
        EXPECT_TRUE(reader->ReadLine(line));
        EXPECT_EQ(view(line), std::string(text, 3));
    }
    close(pipe);
}

namespace {

const qor::test::scene standard_input{"reader_standard_input", [](const words&) {
    const reader_pointer reader = make_reader();
    EXPECT_TRUE(reader->Open("/dev/stdin", 0));
    EXPECT_EQ(read_all(*reader), (words{"first", "second"}));
    return 0;
}};

} // namespace

TEST_F(simple_file_reader, standard_input) {
    const std::string path = m_folder.file("text", "first\nsecond");
    for (const std::string& redirection : {"<" + path, "< <(cat " + path + ")"}) {
        words shell{"bash", "-c", "exec \"$@\" " + redirection, "bash"};
        for (const std::string& word : qor::test::command(standard_input))
            shell.push_back(word);
        const qor::test::ending ended = qor::test::run(shell);
        EXPECT_EQ(ended.code, 0) << redirection << ended.out << ended.err;
    }
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
    EXPECT_TRUE(reinterpret_cast<bool (*)(IQORSimpleFileReader*, const char*, uint32)>(operations[3])(
        object, path.c_str(), 0));
    qorString line;
    EXPECT_TRUE(reinterpret_cast<bool (*)(IQORSimpleFileReader*, qorString&)>(operations[4])(object, line));
    EXPECT_STREQ(line, "a");
}
