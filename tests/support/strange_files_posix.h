// The kinds of objects that anybody may put in place of a file that a program opens by itself.
#pragma once

#include "support/temp_folder.h"

#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace qor::test {

inline constexpr const char* strange_kinds[] = {"pipe",   "pipe with text", "folder",
                                                "device", "socket",         "link to itself"};

// One of these kinds at a path; the destructor removes it. The pipe with text has a writer that keeps it open.
class strange_file {
public:
    strange_file(std::string_view kind, std::string path, std::string_view text = "text\n") : m_path(std::move(path)) {
        if (kind == "pipe" || kind == "pipe with text") {
            EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
        }
        if (kind == "pipe with text") {
            m_end = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
            EXPECT_EQ(write(m_end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        } else if (kind == "folder")
            std::filesystem::create_directory(m_path);
        else if (kind == "device")
            std::filesystem::create_symlink("/dev/zero", m_path);
        else if (kind == "socket") {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            EXPECT_LT(m_path.size(), sizeof address.sun_path);
            std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
            m_end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            EXPECT_EQ(bind(m_end, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        } else if (kind == "link to itself")
            std::filesystem::create_symlink(std::filesystem::path(m_path).filename(), m_path);
    }
    strange_file(const strange_file&) = delete;
    strange_file& operator=(const strange_file&) = delete;
    ~strange_file() {
        if (m_end >= 0)
            close(m_end);
        std::filesystem::remove_all(m_path);
    }

private:
    std::string m_path;
    int m_end = -1;
};

} // namespace qor::test
