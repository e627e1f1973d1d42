#include "serial/system_ports.h"

#include "error/error.h"
#include "platform/wide_windows.h"
#include "serial/device_places.h"
#include "serial/line_windows.h"

#include <algorithm>
#include <windows.h>

namespace {

using qor::error::set;
using qor::platform::from_wide;

constexpr char device_map[] = "HARDWARE\\DEVICEMAP\\SERIALCOMM";
constexpr wchar_t wide_device_map[] = L"HARDWARE\\DEVICEMAP\\SERIALCOMM";

struct known_port {
    std::string name;   // COM3
    std::string device; // \Device\VCP0
};

// Reads the list in which drivers enter the serial ports that they find. The list omits no port, and reading it opens
// none. The key does not exist if no driver has entered a port.
int read_device_map(std::vector<known_port>& ports) {
    HKEY key;
    LSTATUS code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, wide_device_map, 0, KEY_QUERY_VALUE, &key);
    if (code != ERROR_SUCCESS)
        return code == ERROR_FILE_NOT_FOUND ? 0 : static_cast<int>(code);
    // The name of a value has at most 16383 characters, and the name of a port is no longer than a path.
    std::wstring device(16384, L'\0');
    wchar_t name[MAX_PATH + 1];
    for (DWORD index = 0;; ++index) {
        DWORD length = static_cast<DWORD>(device.size());
        DWORD size = sizeof name - sizeof *name;
        DWORD type = 0;
        code = RegEnumValueW(key, index, device.data(), &length, nullptr, &type, reinterpret_cast<BYTE*>(name), &size);
        if (code != ERROR_SUCCESS)
            break;
        name[size / sizeof *name] = L'\0';
        if (type == REG_SZ && *name != L'\0')
            ports.push_back({from_wide(name), from_wide({device.data(), length})});
    }
    RegCloseKey(key);
    return code == ERROR_NO_MORE_ITEMS ? 0 : static_cast<int>(code);
}

bool is_same_name(const std::string& left, const std::string& right) {
    std::wstring wide_left, wide_right;
    return qor::platform::to_wide(left, wide_left) && qor::platform::to_wide(right, wide_right) &&
           lstrcmpiW(wide_left.c_str(), wide_right.c_str()) == 0;
}

// Also returns "COM3" for "\\.\com3" and "COM3:".
std::string port_name(std::string name) {
    constexpr std::string_view device = "\\\\.\\";
    if (name.starts_with(device))
        name.erase(0, device.size());
    if (name.ends_with(':'))
        name.pop_back();
    return name;
}

// A driver may be loaded without an entry in the list, so any COM name may be a port. Another name might belong to a
// disk.
bool is_com_port(const std::string& name) {
    constexpr std::size_t digits = 3;
    return name.size() > digits && is_same_name(name.substr(0, digits), "COM") &&
           std::all_of(name.begin() + digits, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string location_of(const known_port& port) {
    const std::string place = qor::serial::device_place(port.name);
    return !place.empty() || port.device.empty() ? place : "device " + port.device;
}

// Finds the system's entry for a port of this name. If there is none, returns false and the name that such a port would
// have.
bool find_port(const std::string& name, known_port& port) {
    std::vector<known_port> ports;
    read_device_map(ports);
    const std::string wanted = port_name(name);
    for (const known_port& each : ports)
        if (is_same_name(each.name, wanted)) {
            port = each;
            return true;
        }
    port = {is_com_port(wanted) ? "COM" + wanted.substr(3) : wanted, {}};
    return false;
}

HANDLE system_handle(std::intptr_t handle) noexcept { return reinterpret_cast<HANDLE>(handle); }

// An overlapped operation, which does not block its thread. The time limits of the port itself are settings and stay
// unchanged.
class operation {
public:
    explicit operation(HANDLE port) noexcept : m_port(port), m_state() {
        m_state.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    operation(const operation&) = delete;
    operation& operator=(const operation&) = delete;
    ~operation() { CloseHandle(m_state.hEvent); }

    OVERLAPPED* state() noexcept { return &m_state; }

    // Waits for the started operation and cancels it when the time runs out. `count` is the number of bytes
    // transferred.
    int finish(BOOL is_done, DWORD milliseconds, uint32& count) noexcept {
        if (!is_done && GetLastError() != ERROR_IO_PENDING)
            return static_cast<int>(GetLastError());
        if (WaitForSingleObject(m_state.hEvent, milliseconds) != WAIT_OBJECT_0)
            CancelIoEx(m_port, &m_state);
        DWORD moved = 0;
        const BOOL succeeded = GetOverlappedResult(m_port, &m_state, &moved, TRUE);
        count = moved;
        return succeeded || GetLastError() == ERROR_OPERATION_ABORTED ? 0 : static_cast<int>(GetLastError());
    }

private:
    HANDLE m_port;
    OVERLAPPED m_state;
};

int last_code(BOOL succeeded) noexcept { return succeeded ? 0 : static_cast<int>(GetLastError()); }

} // namespace

bool qor::serial::find_ports(std::vector<std::string>& names) {
    std::vector<known_port> ports;
    if (const int code = read_device_map(ports)) {
        error::set_with_reason(qorError_serial_ports_not_listed, device_map, code);
        return false;
    }
    for (known_port& port : ports)
        names.push_back(std::move(port.name));
    return true;
}

bool qor::serial::find_location(const std::string& name, std::string& location) {
    known_port port;
    if (!find_port(name, port)) {
        error::set(qorError_no_serial_port, {name.c_str()});
        return false;
    }
    location = location_of(port);
    return true;
}

qor::serial::system_port::system_port() noexcept = default;

qor::serial::system_port::~system_port() {
    if (m_handle == -1)
        return;
    if (m_found != nullptr) {
        system_line line(system_handle(m_handle));
        restore_line(line, *m_found);
    }
    CloseHandle(system_handle(m_handle));
}

bool qor::serial::system_port::open(const std::string& name) {
    known_port port;
    std::wstring path;
    const bool is_listed = find_port(name, port);
    if ((!is_listed && !is_com_port(port.name)) || !platform::to_wide("\\\\.\\" + port.name, path)) {
        set(qorError_no_serial_port, {name.c_str()});
        return false;
    }
    // While this handle is open, the system refuses every other attempt to open the port.
    m_handle = reinterpret_cast<std::intptr_t>(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                                           OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
    DCB settings{};
    const int failure =
        m_handle == -1 ? static_cast<int>(GetLastError()) : system_line(system_handle(m_handle)).get(settings);
    if (failure != 0) {
        switch (failure) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            set(qorError_no_serial_port, {name.c_str()});
            break;
        case ERROR_ACCESS_DENIED: // the reason a port in use gives
        case ERROR_SHARING_VIOLATION:
            set(qorError_serial_port_in_use, {name.c_str()});
            break;
        case ERROR_INVALID_HANDLE:
        case ERROR_INVALID_FUNCTION:
        case ERROR_INVALID_PARAMETER:
            set(qorError_not_a_serial_port, {name.c_str()});
            break;
        default:
            error::set_with_reason(qorError_serial_port_failed, name.c_str(), failure);
        }
        return false;
    }
    m_name = port.name;
    m_location = location_of(port);
    return true;
}

// The system lets no other program open a port that is open.
int qor::serial::system_port::claim(bool restores) {
    if (!restores)
        return 0;
    m_found = std::make_unique<found_line>();
    system_line line(system_handle(m_handle));
    const int code = find_line(line, *m_found);
    if (code != 0)
        m_found.reset();
    return code;
}

bool qor::serial::system_port::set_params(const qorSerialParams& params) {
    system_line line(system_handle(m_handle));
    return set_line(line, m_name, params);
}

int qor::serial::system_port::settings(qorSerialSettings& out) noexcept {
    DCB now{};
    const int code = system_line(system_handle(m_handle)).get(now);
    if (code == 0)
        out = settings_of(now);
    return code;
}

bool qor::serial::system_port::get_rs485(qorSerialRS485& out) {
    DCB now{};
    const int code = system_line(system_handle(m_handle)).get(now);
    if (code == 0)
        out = rs485_of(now);
    else
        error::set_with_reason(qorError_serial_port_failed, m_name.c_str(), code);
    return code == 0;
}

int qor::serial::system_port::set_break(bool on) noexcept {
    return last_code(on ? SetCommBreak(system_handle(m_handle)) : ClearCommBreak(system_handle(m_handle)));
}

int qor::serial::system_port::set_modem_lines(uint32 lines, bool on) noexcept {
    int code = 0;
    if ((lines & qorSerialDTR) != 0)
        code = last_code(EscapeCommFunction(system_handle(m_handle), on ? SETDTR : CLRDTR));
    if (code == 0 && (lines & qorSerialRTS) != 0)
        code = last_code(EscapeCommFunction(system_handle(m_handle), on ? SETRTS : CLRRTS));
    return code;
}

// The system reports only the lines that the other end drives. Our own two lines are known only if the settings keep
// them steady.
int qor::serial::system_port::modem_lines(uint32& lines) noexcept {
    DWORD now = 0;
    DCB settings{};
    if (!GetCommModemStatus(system_handle(m_handle), &now))
        return static_cast<int>(GetLastError());
    if (const int code = system_line(system_handle(m_handle)).get(settings))
        return code;
    lines = ((now & MS_CTS_ON) != 0 ? qorSerialCTS : 0) + ((now & MS_DSR_ON) != 0 ? qorSerialDSR : 0) +
            ((now & MS_RING_ON) != 0 ? qorSerialRing : 0) + ((now & MS_RLSD_ON) != 0 ? qorSerialCarrier : 0) +
            (settings.fDtrControl != DTR_CONTROL_DISABLE ? qorSerialDTR : 0) +
            (settings.fRtsControl != RTS_CONTROL_DISABLE ? qorSerialRTS : 0);
    return 0;
}

int qor::serial::system_port::waiting(uint32& received, uint32& unsent) noexcept {
    DWORD errors = 0;
    COMSTAT queues{};
    if (!ClearCommError(system_handle(m_handle), &errors, &queues))
        return static_cast<int>(GetLastError());
    received = queues.cbInQue;
    unsent = queues.cbOutQue;
    return 0;
}

int qor::serial::system_port::read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept {
    count = 0;
    if (size == 0)
        return 0;
    uint32 received = 0;
    uint32 unsent = 0;
    if (const int code = waiting(received, unsent))
        return code;
    // ReadFile would wait for as many bytes as it is asked for. So ask only for the bytes already received, or for the
    // first one.
    operation reading(system_handle(m_handle));
    const DWORD wanted = std::min(size, std::max<uint32>(received, 1));
    const BOOL is_done = ReadFile(system_handle(m_handle), buffer, wanted, nullptr, reading.state());
    return reading.finish(is_done, milliseconds, count);
}

int qor::serial::system_port::write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept {
    count = 0;
    operation writing(system_handle(m_handle));
    const BOOL is_done = WriteFile(system_handle(m_handle), data, size, nullptr, writing.state());
    return writing.finish(is_done, milliseconds, count);
}

int qor::serial::system_port::discard(bool received, bool unsent) noexcept {
    const DWORD queues = (received ? DWORD{PURGE_RXCLEAR} : 0) | (unsent ? DWORD{PURGE_TXCLEAR} : 0);
    return queues == 0 ? 0 : last_code(PurgeComm(system_handle(m_handle), queues));
}

int qor::serial::system_port::flush() noexcept { return last_code(FlushFileBuffers(system_handle(m_handle))); }
