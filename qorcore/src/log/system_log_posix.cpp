#include "log/system_log_posix.h"

#include "error/error.h"
#include "log/daemon_forms_posix.h"
#include "platform/no_cancellation.h"
#include "platform/raw_file.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

using qor::platform::uninterrupted;

// What every syslog takes in one piece, by datagram and by stream.
constexpr std::size_t longest_for_syslog = 8192;

// Returns false if no socket can have this name.
bool make_address(const std::string& path, sockaddr_un& out) noexcept {
    out = {};
    out.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof out.sun_path)
        return false;
    std::memcpy(out.sun_path, path.c_str(), path.size() + 1);
    return true;
}

} // namespace

qor::log::system_log::system_log(std::string journal, std::string syslog)
    : m_journal(std::move(journal)), m_syslog(std::move(syslog)) {}

qor::log::system_log::~system_log() {
    m_datagrams.close();
    m_stream.close();
}

bool qor::log::system_log::own_socket::is_ours() const noexcept {
    struct stat status;
    return descriptor >= 0 && fstat(descriptor, &status) == 0 && status.st_dev == identity[0] &&
           status.st_ino == identity[1];
}

// Returns 0 or the system's error code. The socket never takes the place of a closed standard stream.
int qor::log::system_log::own_socket::open(int type) noexcept {
    if (is_ours())
        return 0;
    int opened = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (opened >= 0 && opened <= STDERR_FILENO) {
        const int moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int reason = errno;
        ::close(opened);
        errno = reason;
        opened = moved;
    }
    struct stat status;
    if (opened < 0)
        return errno;
    if (fstat(opened, &status) != 0) {
        const int reason = errno;
        ::close(opened);
        return reason;
    }
    descriptor = opened;
    identity[0] = status.st_dev;
    identity[1] = status.st_ino;
    return 0;
}

void qor::log::system_log::own_socket::close() noexcept {
    if (is_ours())
        ::close(descriptor);
    descriptor = -1;
}

qor::log::system_service::outcome qor::log::system_log::send(const system_entry& entry) noexcept {
    const qor::error::keep_failures keep;
    const platform::no_cancellation whole;
    const outcome sent = send_to_journal(entry);
    if (sent != outcome::absent)
        return sent;
    return send_to_syslog(entry);
}

std::string qor::log::system_log::reason() { return m_subject + ": " + error::system_reason(m_reason); }

// Datagrams have no state, so both processes may use the socket.
void qor::log::system_log::continue_in_child() noexcept { m_stream.close(); }

// The kernel is short of memory or the daemon's queue is full: that passes. Everything else may stay.
qor::log::system_service::outcome qor::log::system_log::judge(int reason) noexcept {
    m_reason = reason;
    return reason == EAGAIN || reason == ENOBUFS || reason == ENOMEM ? outcome::busy : outcome::absent;
}

qor::log::system_service::outcome qor::log::system_log::send_to_journal(const system_entry& entry) noexcept {
    const std::string bytes = journal_form(entry);
    const outcome sent = send_datagram(m_journal, bytes);
    return sent == outcome::absent && m_reason == EMSGSIZE ? send_as_file(m_journal, bytes) : sent;
}

qor::log::system_service::outcome qor::log::system_log::send_datagram(const std::string& path,
                                                                      std::string_view bytes) noexcept {
    m_subject = path;
    sockaddr_un address;
    if (!make_address(path, address))
        return judge(ENAMETOOLONG);
    if (const int reason = m_datagrams.open(SOCK_DGRAM))
        return judge(reason);
    const ssize_t sent = uninterrupted([&] {
        return sendto(m_datagrams.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
    return sent < 0 ? judge(errno) : outcome::taken;
}

// The journal reads an entry that is too large for a datagram from a file in memory that nobody can change any more.
qor::log::system_service::outcome qor::log::system_log::send_as_file(const std::string& path,
                                                                     std::string_view bytes) noexcept {
    const auto refuse = [this](int reason) {
        return judge(reason) == outcome::busy ? outcome::busy : outcome::refused;
    };
    const int made = memfd_create("qor-log-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (made < 0)
        return refuse(errno);
    platform::raw_file file;
    if (const int reason = file.adopt(made))
        return refuse(reason);
    if (const int reason = file.write(bytes.data(), bytes.size()))
        return refuse(reason);
    int descriptor = static_cast<int>(file.handle());
    if (fcntl(descriptor, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0)
        return refuse(errno);
    sockaddr_un address;
    make_address(path, address);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    const ssize_t sent =
        uninterrupted([&] { return sendmsg(m_datagrams.descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
    // Too many files are on their way, which passes.
    if (sent < 0)
        return errno == ETOOMANYREFS ? judge(EAGAIN) : judge(errno);
    return outcome::taken;
}

qor::log::system_service::outcome qor::log::system_log::send_to_syslog(const system_entry& entry) noexcept {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(entry.time);
    std::tm when{};
    localtime_r(&seconds, &when);
    const std::string bytes = syslog_form(entry, when, longest_for_syslog);
    outcome sent = send_datagram(m_syslog, bytes);
    if (sent == outcome::absent && m_reason == EPROTOTYPE)
        sent = send_on_stream(bytes);
    return sent;
}

// Each entry ends with a NUL. The kernel takes so short an entry whole or not at all; should it ever divide one, the
// rest would begin nothing, so the connection ends and the entry is sent again.
qor::log::system_service::outcome qor::log::system_log::send_on_stream(std::string_view bytes) noexcept {
    const std::string ended(bytes.data(), bytes.size() + 1);
    if (!m_stream.is_ours()) {
        sockaddr_un address;
        make_address(m_syslog, address);
        if (const int reason = m_stream.open(SOCK_STREAM))
            return judge(reason);
        if (uninterrupted([&] {
                return connect(m_stream.descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
            }) != 0) {
            const int reason = errno;
            m_stream.close();
            return judge(reason);
        }
    }
    const ssize_t sent = uninterrupted(
        [&] { return ::send(m_stream.descriptor, ended.data(), ended.size(), MSG_NOSIGNAL | MSG_DONTWAIT); });
    if (sent == static_cast<ssize_t>(ended.size()))
        return outcome::taken;
    const outcome judged = judge(sent < 0 ? errno : EAGAIN);
    if (sent >= 0 || judged == outcome::absent)
        m_stream.close();
    return judged;
}

qor::log::system_service& qor::log::own_system_log() {
    static auto* const made = new system_log("/run/systemd/journal/socket", "/dev/log");
    return *made;
}
