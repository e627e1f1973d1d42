// The file object with POSIX specials: pipes, devices, rights, links.
#include "qor/qor.h"
#include "reader_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using qor::test::last_error;
using qor::test::words;

constexpr uint32 reading = qorFileReading | qorFileExisting | qorFileShared;
constexpr int nobody = 65534;

std::string no_disk_file(const std::string& path) {
    return std::string("Cannot open '") + path + "': it is a pipe or a device, not a file on a disk.";
}

// A super-user ignores access rights, so the scene gives up its own.
const qor::test::scene unreadable{"file_unreadable", [](const words& arguments) {
                                      if (geteuid() == 0 && setuid(nobody) != 0)
                                          return 1;
                                      qorFile from;
                                      EXPECT_FALSE(from.Open(arguments[0].c_str(), reading));
                                      EXPECT_EQ(last_error(),
                                                std::string("Cannot open '") + arguments[0] + "': Permission denied.");
                                      return 0;
                                  }};

class posix_file : public testing::Test {
protected:
    const qor::test::temp_folder m_folder;
};

} // namespace

TEST_F(posix_file, an_unreadable_file) {
    const std::string path = m_folder.file("secret", "x");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    ASSERT_EQ(chmod(m_folder.path().c_str(), 0755), 0);
    const qor::test::ending ended = qor::test::play(unreadable, {path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

// An ordinary open would wait forever for a writer of the pipe.
TEST_F(posix_file, a_pipe) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    qorFile from;
    EXPECT_FALSE(from.Open(path.c_str(), reading));
    EXPECT_EQ(last_error(), no_disk_file(path));
}

// The pipe is not even opened: a writer that found a reader would write and then get a broken pipe.
TEST_F(posix_file, a_pipe_is_not_touched) {
    const std::string path = m_folder / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const int writer = open(path.c_str(), O_WRONLY);
    ASSERT_EQ(write(writer, "x", 1), 1);
    qorFile from;
    EXPECT_FALSE(from.Open(path.c_str(), reading));
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(writer);
    close(reader);
}

TEST_F(posix_file, devices) {
    qorFile from;
    for (const char* const path : {"/dev/null", "/dev/zero"}) {
        EXPECT_FALSE(from.Open(path, reading));
        EXPECT_EQ(last_error(), no_disk_file(path));
    }
}

TEST_F(posix_file, a_socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder / "s";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    const int bound = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(bound, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    qorFile from;
    EXPECT_FALSE(from.Open(path.c_str(), reading));
    EXPECT_EQ(last_error(), no_disk_file(path));
    close(bound);
}

TEST_F(posix_file, links) {
    const std::string path = m_folder.file("f", "text");
    const std::string link = m_folder / "link";
    const std::string to_itself = m_folder / "to itself";
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    ASSERT_EQ(symlink(to_itself.c_str(), to_itself.c_str()), 0);
    qorFile from;
    ASSERT_TRUE(from.Open(link.c_str(), reading));
    EXPECT_EQ(from.GetSize(), 4u);
    EXPECT_FALSE(from.Open(to_itself.c_str(), reading));
    EXPECT_EQ(last_error(), std::string("Cannot open '") + to_itself + "': Too many levels of symbolic links.");
}

TEST_F(posix_file, a_read_error_is_the_last_error) {
    qorFile from;
    // The file opens, but its first page is not mapped.
    ASSERT_TRUE(from.Open("/proc/self/mem", reading));
    char byte;
    EXPECT_FALSE(from.ReadAt(0, &byte, 1));
    EXPECT_EQ(last_error(), "Cannot read '/proc/self/mem': Input/output error.");
}

// Another program must not inherit our descriptors.
TEST_F(posix_file, child_processes_do_not_inherit_it) {
    qorFile from;
    const int next = dup(STDERR_FILENO);
    close(next);
    ASSERT_TRUE(from.Open(m_folder.file("f", "x").c_str(), reading));
    EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}
