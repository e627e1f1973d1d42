// The line reader with files of Windows: sharing, pipes.
#include "error/error.h"
#include "reader_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <windows.h>

namespace {

using namespace qor::test;

class windows_file_reader : public qor::test::reader_test {};

// Opens a file exclusively; INVALID_HANDLE_VALUE if somebody else has it open.
HANDLE open_alone(const std::string& path) {
    return CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

// A pipe whose writing end is in this process.
class pipe {
public:
    pipe()
        : m_handle(CreateNamedPipeA(m_path.c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 4096, 4096, 0, nullptr)) {
        EXPECT_NE(m_handle, INVALID_HANDLE_VALUE) << GetLastError();
    }
    pipe(const pipe&) = delete;
    pipe& operator=(const pipe&) = delete;
    ~pipe() { CloseHandle(m_handle); }

    const std::string& path() const { return m_path; }
    void write(const char* text) {
        DWORD written = 0;
        EXPECT_NE(WriteFile(m_handle, text, static_cast<DWORD>(std::strlen(text)), &written, nullptr), 0);
    }

private:
    const std::string m_path = R"(\\.\pipe\qor.)" + qor::test::process_id();
    HANDLE m_handle;
};

} // namespace

TEST_F(windows_file_reader, a_file_that_another_has_for_itself) {
    const std::string path = m_folder.file("secret", "x");
    const HANDLE mine = open_alone(path);
    ASSERT_NE(mine, INVALID_HANDLE_VALUE);
    const reader_pointer reader = make_reader();
    EXPECT_FALSE(reader->Open(path.c_str(), 0));
    EXPECT_EQ(last_error(), "Cannot open '" + path + "': " + qor::error::system_reason(ERROR_SHARING_VIOLATION) + ".");
    CloseHandle(mine);
    EXPECT_TRUE(reader->Open(path.c_str(), 0));
}

TEST_F(windows_file_reader, the_last_release_closes_the_file) {
    const std::string path = m_folder.file("text", "a\n");
    {
        const reader_pointer reader = make_reader();
        ASSERT_TRUE(reader->Open(path.c_str(), 0));
        ASSERT_TRUE(reader->Open(path.c_str(), 0));
        EXPECT_EQ(open_alone(path), INVALID_HANDLE_VALUE);
    }
    const HANDLE mine = open_alone(path);
    EXPECT_NE(mine, INVALID_HANDLE_VALUE);
    CloseHandle(mine);
}

TEST_F(windows_file_reader, a_pipe_that_is_fed_slowly) {
    const reader_pointer reader = make_reader();
    std::thread writer;
    {
        auto far_end = std::make_unique<pipe>();
        ASSERT_TRUE(reader->Open(far_end->path().c_str(), 0));
        writer = std::thread([far_end = std::move(far_end)] {
            for (const char* const piece : {"fir", "st\r", "\nsecond", "\n", "\nlast"}) {
                far_end->write(piece);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    EXPECT_EQ(read_all(*reader), (words{"first", "second", "", "last"}));
    writer.join();
}

TEST_F(windows_file_reader, a_line_of_a_pipe_comes_before_its_end) {
    pipe far_end;
    const reader_pointer reader = make_reader();
    ASSERT_TRUE(reader->Open(far_end.path().c_str(), 0));
    qorString line;
    for (const char* const text : {"one\n", "two\n"}) {
        far_end.write(text);
        EXPECT_TRUE(reader->ReadLine(line));
        EXPECT_EQ(view(line), std::string(text, 3));
    }
}
