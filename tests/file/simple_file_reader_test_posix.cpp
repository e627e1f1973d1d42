// The line reader with files of POSIX: rights, descriptors, pipes.
#include "reader_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace qor::test;

class posix_file_reader : public qor::test::reader_test {};

} // namespace

namespace {

constexpr int nobody = 65534;

// A super-user ignores access rights, so the scene gives up its own.
const qor::test::scene unreadable{"reader_unreadable", [](const words& arguments) {
                                      if (geteuid() == 0 && setuid(nobody) != 0)
                                          return 1;
                                      const reader_pointer reader = make_reader();
                                      EXPECT_FALSE(reader->Open(arguments[0].c_str(), 0));
                                      EXPECT_EQ(last_error(), "Cannot open '" + arguments[0] + "': Permission denied.");
                                      return 0;
                                  }};

} // namespace

TEST_F(posix_file_reader, an_unreadable_file) {
    const std::string path = m_folder.file("secret", "x");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    ASSERT_EQ(chmod((m_folder / "").c_str(), 0755), 0);
    const qor::test::ending ended = qor::test::play(unreadable, {path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

TEST_F(posix_file_reader, a_read_error_is_the_last_error) {
    const reader_pointer reader = make_reader();
    // The file opens, but its first page is not mapped.
    ASSERT_TRUE(reader->Open("/proc/self/mem", 0));
    qorString line;
    EXPECT_FALSE(reader->ReadLine(line));
    EXPECT_EQ(last_error(), "Cannot read '/proc/self/mem': Input/output error.");
}

TEST_F(posix_file_reader, the_last_release_closes_the_file) {
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

TEST_F(posix_file_reader, a_pipe_that_is_fed_slowly) {
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

TEST_F(posix_file_reader, a_line_of_a_pipe_comes_before_its_end) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    // The test holds both ends of the pipe open, so open() does not wait.
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

// Writes into a pipe when its reader is about to wait.
struct feeder {
    int pipe;
    std::vector<const char*> pieces;
    std::size_t next = 0;
    static void feed(void* context) {
        feeder& self = *static_cast<feeder*>(context);
        const char* const piece = self.pieces.at(self.next++);
        EXPECT_EQ(write(self.pipe, piece, std::strlen(piece)), static_cast<ssize_t>(std::strlen(piece)));
    }
};

// The callback is called before each wait, and only then.
TEST_F(posix_file_reader, a_pipe_that_has_nothing_yet) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    feeder writer{open(path.c_str(), O_RDWR), {"first\nsec", "ond\n", "third\n"}};
    const reader_pointer reader = make_reader();
    ASSERT_TRUE(reader->Open(path.c_str(), 0));
    reader->SetBeforeWait(feeder::feed, &writer);
    qorString line;
    for (const char* const text : {"first", "second", "third"}) {
        EXPECT_TRUE(reader->ReadLine(line));
        EXPECT_EQ(view(line), text);
    }
    EXPECT_EQ(writer.next, 3u);
    // Text that is already there needs no wait, nor does a file, nor the end of either.
    EXPECT_EQ(write(writer.pipe, "fourth\n", 7), 7);
    EXPECT_TRUE(reader->ReadLine(line));
    close(writer.pipe);
    EXPECT_FALSE(reader->ReadLine(line));
    ASSERT_TRUE(reader->Open(m_folder.file("text", "a\n").c_str(), 0));
    EXPECT_EQ(read_all(*reader), words{"a"});
    EXPECT_EQ(writer.next, 3u);
}

// A whole line is handed out before the filter has to know more, and a beginning that it wants more of is waited for.
TEST_F(posix_file_reader, a_pipe_and_a_filter) {
    class dropping_filter final : public IQORFileFilter {
    public:
        answer IsFor(const char* beginning, uint64 size) noexcept override {
            const std::string_view seen(beginning, static_cast<std::size_t>(std::min<uint64>(size, 3)));
            return seen != std::string_view("#!:").substr(0, seen.size()) ? answer::no
                   : seen.size() == 3                                     ? answer::yes
                                                                          : answer::undecided;
        }
        bool Convert(const char** next, const char* end, bool, char** out, char* out_end) noexcept override {
            for (; *next != end && *out != out_end; ++*next)
                if (**next != '#' && **next != '!' && **next != ':')
                    *(*out)++ = **next;
            return true;
        }
    } filter;
    const struct {
        std::vector<const char*> pieces;
        words lines;
    } cases[] = {{{"#!\n", "#!:\n"}, {"#!", "#!:"}}, {{"#", "!", ":", "a", "b:\nc\n"}, {"ab", "c"}}};
    for (const auto& each : cases) {
        const std::string path = m_folder / ("pipe" + std::to_string(each.pieces.size()));
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        feeder writer{open(path.c_str(), O_RDWR), each.pieces};
        const reader_pointer reader = make_reader();
        ASSERT_TRUE(reader->Open(path.c_str(), 0));
        reader->SetFilter(&filter);
        reader->SetBeforeWait(feeder::feed, &writer);
        qorString line;
        for (const std::string& text : each.lines) {
            EXPECT_TRUE(reader->ReadLine(line));
            EXPECT_EQ(view(line), text);
        }
        EXPECT_EQ(writer.next, each.pieces.size());
        close(writer.pipe);
        EXPECT_FALSE(reader->ReadLine(line));
    }
}

namespace {

const qor::test::scene standard_input{"reader_standard_input", [](const words&) {
                                          const reader_pointer reader = make_reader();
                                          EXPECT_TRUE(reader->Open("/dev/stdin", 0));
                                          EXPECT_EQ(read_all(*reader), (words{"first", "second"}));
                                          return 0;
                                      }};

} // namespace

TEST_F(posix_file_reader, standard_input) {
    const std::string path = m_folder.file("text", "first\nsecond");
    for (const std::string& redirection : {"<" + path, "< <(cat " + path + ")"}) {
        words shell{"bash", "-c", "exec \"$@\" " + redirection, "bash"};
        for (const std::string& word : qor::test::command(standard_input))
            shell.push_back(word);
        const qor::test::ending ended = qor::test::run(shell);
        EXPECT_EQ(ended.code, 0) << redirection << ended.out << ended.err;
    }
}
