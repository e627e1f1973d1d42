#include "serial/system_ports.h"

#include "error/error.h"
#include "serial/line_posix.h"
#include "serial/lock_files.h"
#include "serial/sysfs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using qor::error::set;
using qor::serial::host;

// Returns the name of a group or user, or its number if it has no name.
std::string group_name(gid_t number) {
    const group* const found = getgrgid(number);
    return found != nullptr ? found->gr_name : std::to_string(number);
}
std::string user_name(uid_t number) {
    const passwd* const found = getpwuid(number);
    return found != nullptr ? found->pw_name : std::to_string(number);
}

// Reports who may open a file that this process may not open.
void set_denied(const std::string& name, const struct stat& status) {
    constexpr mode_t for_group = S_IRGRP | S_IWGRP;
    if ((status.st_mode & for_group) == for_group)
        set(qorError_serial_port_for_group, {name.c_str(), group_name(status.st_gid).c_str()});
    else
        set(qorError_serial_port_for_owner, {name.c_str(), user_name(status.st_uid).c_str()});
}

void set_open_failure(int code, const std::string& name, const struct stat& status) {
    switch (code) {
    case EACCES:
        set_denied(name, status);
        break;
    case EBUSY:
        set(qorError_serial_port_in_use, {name.c_str()});
        break;
    case ENXIO:
    case EIO:
        set(qorError_serial_port_without_hardware, {name.c_str()});
        break;
    case ENOTTY:
        set(qorError_not_a_serial_port, {name.c_str()});
        break;
    default:
        qor::error::set_with_reason(qorError_serial_port_failed, name.c_str(), code);
    }
}

// Opening any other kind of device could do harm, so the kind is checked first.
bool find_device(const std::string& name, const std::string& file, struct stat& status) {
    if (name.empty() || stat(file.c_str(), &status) != 0) {
        const int code = name.empty() ? ENOENT : errno;
        if (code != ENOENT && code != ENOTDIR)
            qor::error::set_with_reason(qorError_serial_port_failed, name.c_str(), code);
        else if (qor::serial::is_known(host{}, qor::serial::kernel_name(host{}, name)))
            set(qorError_serial_port_without_file, {name.c_str(), file.c_str()});
        else
            set(qorError_no_serial_port, {name.c_str()});
        return false;
    }
    if (S_ISCHR(status.st_mode) && qor::serial::may_be_port(host{}, status.st_rdev))
        return true;
    set(qorError_not_a_serial_port, {name.c_str()});
    return false;
}

// Current programs lock the device itself. The exclusive mode is checked here as well, because the kernel lets root
// bypass it.
int lock(int handle) noexcept {
    int exclusive = 0;
    if (ioctl(handle, TIOCGEXCL, &exclusive) == 0 && exclusive != 0)
        return EBUSY;
    return flock(handle, LOCK_EX | LOCK_NB) == 0 ? 0 : errno == EWOULDBLOCK ? EBUSY : errno;
}

int open_terminal(const std::string& file) noexcept {
    // Without O_NONBLOCK, open would wait for a carrier. Without O_NOCTTY, the port could become the controlling
    // terminal, whose other end could send signals to the process.
    int handle;
    do
        handle = open(file.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    while (handle < 0 && errno == EINTR);
    if (handle < 0 || handle > STDERR_FILENO)
        return handle;
    // The port must never take the place of a closed standard stream.
    const int moved = fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(handle);
    return moved;
}

int descriptor(std::intptr_t handle) noexcept { return static_cast<int>(handle); }

// The time that an operation has left.
class time_limit {
public:
    explicit time_limit(uint32 milliseconds) noexcept : m_end(clock::now() + std::chrono::milliseconds(milliseconds)) {}

    // Waits until the port is ready for `events`. Sets `ready` to false if the time runs out.
    int wait(int handle, short events, bool& ready) const noexcept {
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - clock::now()).count();
            pollfd port{handle, events, 0};
            const int count = poll(&port, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, 0x7fffffff)));
            if (count < 0 && errno == EINTR)
                continue;
            ready = count > 0;
            return count < 0 ? errno : 0;
        }
    }

private:
    using clock = std::chrono::steady_clock;
    clock::time_point m_end;
};

// There is nothing to read, or no room to write, at the moment: the operation waits and tries again.
bool is_passing(int code) noexcept { return code == EAGAIN || code == EINTR; }

} // namespace

bool qor::serial::find_ports(std::vector<std::string>& names) {
    std::string path;
    const int code = list_ports(host{}, names, path);
    if (code != 0)
        error::set_with_reason(qorError_serial_ports_not_listed, path.c_str(), code);
    return code == 0;
}

bool qor::serial::find_location(const std::string& name, std::string& location) {
    const std::string own = kernel_name(host{}, name);
    if (!is_known(host{}, own)) {
        error::set(qorError_no_serial_port, {name.c_str()});
        return false;
    }
    location = describe_location(host{}, own);
    return true;
}

qor::serial::system_port::system_port() noexcept = default;

qor::serial::system_port::~system_port() {
    if (m_handle < 0)
        return;
    if (m_found != nullptr) {
        kernel_line line(descriptor(m_handle));
        restore_line(line, *m_found);
    }
    // Another program may still have the port open, and with it the mode.
    if (m_is_claimed)
        ioctl(descriptor(m_handle), TIOCNXCL);
    close(descriptor(m_handle));
}

bool qor::serial::system_port::open(const std::string& name) {
    const std::string file = device_file(host{}, name);
    struct stat status;
    if (!find_device(name, file, status))
        return false;
    m_name = kernel_name(host{}, name);
    if (!has_hardware(host{}, m_name)) {
        set(qorError_serial_port_without_hardware, {name.c_str()});
        return false;
    }
    int holder = 0;
    std::string lock_file;
    switch (find_lock(host{}, m_name, status.st_rdev, holder, lock_file)) {
    case lock::none:
        break;
    case lock::somebody:
        set(qorError_serial_port_locked, {name.c_str(), lock_file.c_str()});
        return false;
    case lock::process:
        set(qorError_serial_port_in_use_by, {name.c_str(), std::to_string(holder).c_str()});
        return false;
    }
    m_handle = open_terminal(file);
    struct termios2 settings;
    int code = m_handle < 0 ? errno : kernel_line(descriptor(m_handle)).get(settings);
    if (code == 0)
        code = ::lock(descriptor(m_handle));
    if (code != 0) {
        set_open_failure(code, name, status);
        return false;
    }
    m_location = describe_location(host{}, m_name);
    return true;
}

int qor::serial::system_port::claim(bool restores) {
    if (ioctl(descriptor(m_handle), TIOCEXCL) != 0)
        return errno;
    m_is_claimed = true;
    if (!restores)
        return 0;
    m_found = std::make_unique<found_line>();
    kernel_line line(descriptor(m_handle));
    const int code = find_line(line, *m_found);
    if (code != 0)
        m_found.reset();
    return code;
}

bool qor::serial::system_port::set_params(const qorSerialParams& params) {
    kernel_line line(descriptor(m_handle));
    return set_line(line, m_name, params);
}

int qor::serial::system_port::settings(qorSerialSettings& out) noexcept {
    struct termios2 now;
    const int code = kernel_line(descriptor(m_handle)).get(now);
    if (code == 0)
        out = settings_of(now);
    return code;
}

bool qor::serial::system_port::get_rs485(qorSerialRS485& out) {
    struct serial_rs485 now {};
    const int code = kernel_line(descriptor(m_handle)).get(now);
    if (code == 0)
        out = rs485_of(now);
    else
        error::set_with_reason(qorError_serial_no_rs485, m_name.c_str(), code);
    return code == 0;
}

int qor::serial::system_port::set_break(bool on) noexcept {
    return ioctl(descriptor(m_handle), on ? TIOCSBRK : TIOCCBRK) == 0 ? 0 : errno;
}

int qor::serial::system_port::set_modem_lines(uint32 lines, bool on) noexcept {
    const int system_lines =
        ((lines & qorSerialDTR) != 0 ? TIOCM_DTR : 0) | ((lines & qorSerialRTS) != 0 ? TIOCM_RTS : 0);
    return ioctl(descriptor(m_handle), on ? TIOCMBIS : TIOCMBIC, &system_lines) == 0 ? 0 : errno;
}

int qor::serial::system_port::modem_lines(uint32& lines) noexcept {
    int now = 0;
    if (ioctl(descriptor(m_handle), TIOCMGET, &now) != 0)
        return errno;
    constexpr struct {
        int system;
        uint32 ours;
    } names[] = {{TIOCM_DTR, qorSerialDTR}, {TIOCM_RTS, qorSerialRTS}, {TIOCM_CTS, qorSerialCTS},
                 {TIOCM_DSR, qorSerialDSR}, {TIOCM_RI, qorSerialRing}, {TIOCM_CAR, qorSerialCarrier}};
    lines = 0;
    for (const auto& name : names)
        if ((now & name.system) != 0)
            lines += name.ours;
    return 0;
}

int qor::serial::system_port::waiting(uint32& received, uint32& unsent) noexcept {
    int in = 0;
    int out = 0;
    if (ioctl(descriptor(m_handle), FIONREAD, &in) != 0 || ioctl(descriptor(m_handle), TIOCOUTQ, &out) != 0)
        return errno;
    received = static_cast<uint32>(in);
    unsent = static_cast<uint32>(out);
    return 0;
}

int qor::serial::system_port::read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept {
    count = 0;
    if (size == 0)
        return 0;
    const time_limit limit(milliseconds);
    for (;;) {
        bool ready = false;
        if (const int code = limit.wait(descriptor(m_handle), POLLIN, ready))
            return code;
        if (!ready)
            return 0;
        const ssize_t taken = ::read(descriptor(m_handle), buffer, size);
        if (taken > 0) {
            count = static_cast<uint32>(taken);
            return 0;
        }
        // An end of file means that the port was unplugged.
        if (taken == 0)
            return EIO;
        if (!is_passing(errno))
            return errno;
    }
}

int qor::serial::system_port::write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept {
    count = 0;
    const time_limit limit(milliseconds);
    while (count != size) {
        bool ready = false;
        if (const int code = limit.wait(descriptor(m_handle), POLLOUT, ready))
            return code;
        if (!ready)
            return 0;
        const ssize_t taken = ::write(descriptor(m_handle), static_cast<const char*>(data) + count, size - count);
        if (taken < 0 && !is_passing(errno))
            return errno;
        count += static_cast<uint32>(std::max<ssize_t>(taken, 0));
    }
    return 0;
}

int qor::serial::system_port::discard(bool received, bool unsent) noexcept {
    if (!received && !unsent)
        return 0;
    const int queues = received && unsent ? TCIOFLUSH : received ? TCIFLUSH : TCOFLUSH;
    return ioctl(descriptor(m_handle), TCFLSH, queues) == 0 ? 0 : errno;
}

int qor::serial::system_port::flush() noexcept {
    // The same call as in the C library's tcdrain().
    while (ioctl(descriptor(m_handle), TCSBRK, 1) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}
