// The journal and syslog, played by sockets of the test.
#include "log/system_log_posix.h"

#include "log/daemon_forms_posix.h"
#include "platform/own_process.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using qor::log::system_entry;
using qor::log::system_log;
using outcome = qor::log::system_service::outcome;
using fields = std::multimap<std::string, std::string>;

// A socket with a name, as a daemon has it. Its queue takes few datagrams.
class listener {
public:
    listener(const std::string& path, int type) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_socket = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        unlink(path.c_str());
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(m_socket, 5), 0);
        }
    }
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;
    ~listener() { close(m_socket); }

    // The next datagram; if it carries a file, the content of that, and `was_file` becomes true.
    std::string receive() {
        std::string bytes(1 << 20, '\0');
        iovec place{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &place;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = recvmsg(m_socket, &message, MSG_CMSG_CLOEXEC);
        if (got < 0)
            return {};
        bytes.resize(static_cast<std::size_t>(got));
        const cmsghdr* const head = CMSG_FIRSTHDR(&message);
        was_file = head != nullptr;
        if (was_file) {
            int file;
            std::memcpy(&file, CMSG_DATA(head), sizeof file);
            EXPECT_EQ(fcntl(file, F_GET_SEALS), F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
            bytes.resize(4 << 20);
            bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(pread(file, bytes.data(), bytes.size(), 0), 0)));
            close(file);
        }
        return bytes;
    }

    // Of a connection, all that has come.
    int take() const { return accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }

    bool was_file = false;

private:
    int m_socket;
};

// A plain reader of the journal's protocol.
fields parse(const std::string& bytes) {
    fields found;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t end = bytes.find('\n', at);
        if (end == bytes.npos) {
            ADD_FAILURE() << "no line end";
            break;
        }
        const std::size_t equals = bytes.find('=', at);
        if (equals < end) {
            found.emplace(bytes.substr(at, equals - at), bytes.substr(equals + 1, end - equals - 1));
            at = end + 1;
            continue;
        }
        uint64 size = 0;
        for (std::size_t i = 8; i != 0; --i)
            size = size << 8 | static_cast<unsigned char>(bytes.at(end + i));
        found.emplace(bytes.substr(at, end - at), bytes.substr(end + 9, size));
        at = end + 9 + size;
        EXPECT_EQ(bytes.at(at++), '\n');
    }
    return found;
}

std::shared_ptr<system_entry> an_entry(const std::string& text, const std::vector<qor::log::field>& own = {},
                                       qorLogLevel level = qorLogLevel::error) {
    const qorLogPlace place("some/where.cpp", 17, "void where()");
    const auto made = qor::log::make_system_entry({level, text, own, place});
    made->program = "program";
    return made;
}

// Checks what stands before the text.
std::string syslog_text(const std::string& datagram) {
    char month[4] = {};
    int numbers[5] = {}, length = 0;
    const auto& [day, hour, minute, second, process] = numbers;
    EXPECT_EQ(std::sscanf(datagram.c_str(), "<11>%3[A-Za-z] %2d %2d:%2d:%2d program[%d]:%n", month, numbers,
                          numbers + 1, numbers + 2, numbers + 3, numbers + 4, &length),
              6)
        << datagram.substr(0, 100);
    EXPECT_TRUE(day >= 1 && day <= 31 && hour < 24 && minute < 60 && second < 61) << datagram.substr(0, 100);
    EXPECT_EQ(process, getpid());
    EXPECT_EQ(datagram.substr(static_cast<std::size_t>(length), 1), " ");
    return datagram.substr(static_cast<std::size_t>(length) + 1);
}

class system_logs : public testing::Test {
protected:
    const qor::test::temp_folder m_folder;
    const std::string m_journal = m_folder / "journal", m_syslog = m_folder / "syslog";
    system_log m_log{m_journal, m_syslog};
};

} // namespace

TEST_F(system_logs, the_journal_gets_all_fields) {
    listener journal(m_journal, SOCK_DGRAM);
    const std::string odd("two\nlines = \xff \0 end", 20);
    EXPECT_EQ(m_log.send(*an_entry(odd, {{"DISK", "sda"}, {"NOTE", "a\nb"}, {"EMPTY", ""}})), outcome::taken);
    const fields expected = {{"MESSAGE", odd},
                             {"PRIORITY", "3"},
                             {"SYSLOG_IDENTIFIER", "program"},
                             {"TID", std::to_string(gettid())},
                             {"CODE_FILE", "some/where.cpp"},
                             {"CODE_LINE", "17"},
                             {"CODE_FUNC", "void where()"},
                             {"DISK", "sda"},
                             {"NOTE", "a\nb"},
                             {"EMPTY", ""}};
    EXPECT_EQ(parse(journal.receive()), expected);
    EXPECT_FALSE(journal.was_file);
}

TEST_F(system_logs, an_entry_that_has_waited_has_its_time) {
    listener journal(m_journal, SOCK_DGRAM);
    const auto entry = an_entry("late");
    entry->has_waited = true;
    entry->time = qor::debug::moment(std::chrono::microseconds(1'795'000'000'123'456));
    EXPECT_EQ(m_log.send(*entry), outcome::taken);
    EXPECT_EQ(parse(journal.receive()).find("QOR_TIME")->second, "2026-11-18T11:06:40.123456Z");
}

TEST_F(system_logs, the_journal_gets_a_large_entry_in_a_sealed_file) {
    listener journal(m_journal, SOCK_DGRAM);
    std::string text;
    for (int i = 0; text.size() < 900'000; ++i)
        text.append(std::to_string(i)).append("\n");
    EXPECT_EQ(m_log.send(*an_entry(text)), outcome::taken);
    EXPECT_EQ(parse(journal.receive()).find("MESSAGE")->second, text);
    EXPECT_TRUE(journal.was_file);
}

TEST_F(system_logs, a_slow_journal_is_busy_and_loses_nothing) {
    listener syslog(m_syslog, SOCK_DGRAM);
    listener journal(m_journal, SOCK_DGRAM);
    int count = 0;
    while (m_log.send(*an_entry(std::to_string(count))) == outcome::taken)
        ASSERT_LT(++count, 1'000'000);
    EXPECT_EQ(m_log.send(*an_entry("x")), outcome::busy);
    EXPECT_EQ(m_log.reason(), m_journal + ": Resource temporarily unavailable");
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(parse(journal.receive()).find("MESSAGE")->second, std::to_string(i));
    EXPECT_EQ(m_log.send(*an_entry("y")), outcome::taken);
    EXPECT_EQ(syslog.receive(), ""); // it is not for whoever happens to be faster
}

TEST_F(system_logs, the_journal_may_be_replaced) {
    for (int i = 0; i < 3; ++i) {
        listener journal(m_journal, SOCK_DGRAM);
        EXPECT_EQ(m_log.send(*an_entry("one")), outcome::taken);
        EXPECT_NE(journal.receive(), "");
    }
    EXPECT_EQ(m_log.send(*an_entry("one")), outcome::absent); // the name is there, but nobody listens
}

TEST_F(system_logs, without_any_of_them_nobody_is_there) {
    EXPECT_EQ(m_log.send(*an_entry("one")), outcome::absent);
    EXPECT_EQ(m_log.reason(), m_syslog + ": No such file or directory");
    const std::string long_name(200, 'x');
    EXPECT_EQ(system_log(long_name, long_name).send(*an_entry("one")), outcome::absent);
}

TEST_F(system_logs, syslog_gets_what_the_journal_does_not) {
    listener syslog(m_syslog, SOCK_DGRAM);
    EXPECT_EQ(m_log.send(*an_entry("a text")), outcome::taken);
    EXPECT_EQ(syslog_text(syslog.receive()), "a text");
    EXPECT_EQ(m_log.send(*an_entry("a\nb \xff", {{"DISK", "s\"d\"a"}})), outcome::taken);
    EXPECT_EQ(syslog_text(syslog.receive()), R"(a\nb \xff [DISK="s\"d\"a"])");
    EXPECT_EQ(m_log.send(*an_entry(std::string(100'000, 'x'))), outcome::taken);
    const std::string cut = syslog.receive();
    EXPECT_EQ(cut.size(), 8192u);
    EXPECT_TRUE(syslog_text(cut).ends_with("xxx..."));
}

TEST_F(system_logs, syslog_may_want_a_stream) {
    auto syslog = std::make_unique<listener>(m_syslog, SOCK_STREAM);
    EXPECT_EQ(m_log.send(*an_entry("one")), outcome::taken);
    EXPECT_EQ(m_log.send(*an_entry("two")), outcome::taken);
    int connection = syslog->take();
    std::string bytes(4096, '\0');
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(read(connection, bytes.data(), bytes.size()), 0)));
    const std::size_t end = bytes.find('\0');
    EXPECT_EQ(syslog_text(bytes.substr(0, end)), "one");
    EXPECT_EQ(syslog_text(bytes.substr(end + 1, bytes.size() - end - 2)), "two");
    // A daemon that does not read is busy; each entry has come whole or not at all.
    int count = 0;
    while (m_log.send(*an_entry(std::string(5000, 'x'))) == outcome::taken)
        ASSERT_LT(++count, 100'000);
    EXPECT_EQ(m_log.send(*an_entry("three")), outcome::busy);
    std::string all;
    for (ssize_t got; (got = read(connection, bytes.data(), bytes.size())) > 0;)
        all.append(bytes, 0, static_cast<std::size_t>(got));
    EXPECT_EQ(std::count(all.begin(), all.end(), '\0'), count);
    EXPECT_EQ(all.back(), '\0');
    // It starts again.
    close(connection);
    syslog = std::make_unique<listener>(m_syslog, SOCK_STREAM);
    outcome sent = outcome::absent;
    for (int i = 0; i < 2 && sent != outcome::taken; ++i)
        sent = m_log.send(*an_entry("four"));
    EXPECT_EQ(sent, outcome::taken);
    connection = syslog->take();
    bytes.assign(4096, '\0');
    EXPECT_GT(read(connection, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(syslog_text(bytes.c_str()), "four");
    close(connection);
}

// A host on its way into the background closes what it does not know, and opens files of its own.
TEST_F(system_logs, goes_on_when_the_host_closes_its_descriptors) {
    listener journal(m_journal, SOCK_DGRAM);
    EXPECT_EQ(m_log.send(*an_entry("one")), outcome::taken);
    EXPECT_NE(journal.receive(), "");
    const int next = dup(0);
    close(next);
    const int own = open((m_folder / "own").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(own, 0);
    // The socket of the log is the only one that has no name and is not that of the journal.
    int of_log = -1;
    for (int file = 3; file < next; ++file) {
        sockaddr_un address{};
        socklen_t size = sizeof address;
        if (getsockname(file, reinterpret_cast<sockaddr*>(&address), &size) == 0 && size == sizeof(sa_family_t) &&
            address.sun_family == AF_UNIX)
            of_log = file;
    }
    ASSERT_GE(of_log, 0);
    ASSERT_EQ(dup2(own, of_log), of_log);
    EXPECT_EQ(m_log.send(*an_entry("two")), outcome::taken);
    EXPECT_EQ(parse(journal.receive()).find("MESSAGE")->second, "two");
    EXPECT_EQ(lseek(own, 0, SEEK_END), 0);
    close(of_log);
    close(own);
}

TEST_F(system_logs, a_thousand_leave_no_descriptor) {
    listener journal(m_journal, SOCK_DGRAM);
    const int before = dup(0);
    close(before);
    for (int i = 0; i < 1000; ++i) {
        system_log log(m_journal, m_syslog);
        EXPECT_EQ(log.send(*an_entry(i % 100 == 0 ? std::string(500'000, 'x') : "x")), outcome::taken);
        EXPECT_NE(journal.receive(), "");
    }
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST(daemon_forms, the_time_of_syslog_has_its_english_form) {
    const auto entry = an_entry("text", {}, qorLogLevel::debug);
    entry->process = 123;
    entry->program = "my app:[1]";
    std::tm when{};
    when.tm_mon = 1;
    when.tm_mday = 5;
    when.tm_hour = 9;
    when.tm_min = 4;
    when.tm_sec = 3;
    EXPECT_EQ(qor::log::syslog_form(*entry, when, 1000), "<15>Feb  5 09:04:03 my\\x20app\\x3a\\x5b1\\x5d[123]: text");
}
