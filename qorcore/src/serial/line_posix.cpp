#include "serial/line_posix.h"

#include "error/error.h"
#include "message_names.h"

#include <cerrno>
#include <iterator>
#include <sys/ioctl.h>

namespace framework = qor::messages::framework;

namespace {

using qor::serial::not_taken;

// The rates with a number of their own. Programs that do not know others can read these.
struct known_rate {
    uint32 bits_per_second;
    tcflag_t code;
};
constexpr known_rate known_rates[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
    {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000}};

tcflag_t code_of(uint32 bits_per_second) noexcept {
    for (const known_rate& each : known_rates)
        if (each.bits_per_second == bits_per_second)
            return each.code;
    return BOTHER;
}

// What changes or takes away bytes.
constexpr tcflag_t input_changes = IGNBRK | BRKINT | IGNPAR | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IUCLC;
constexpr tcflag_t output_changes = OPOST;
constexpr tcflag_t line_mode = ECHO | ECHONL | ICANON | ISIG | IEXTEN;

void change_basics(struct termios2& line, const qorSerialParams& params) noexcept {
    line.c_iflag &= ~input_changes;
    line.c_oflag &= ~output_changes;
    line.c_lflag &= ~line_mode;
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 0;
    constexpr tcflag_t rates = CBAUD | CIBAUD; // no rate of its own for the input
    constexpr tcflag_t form = CSIZE | CSTOPB | PARENB | PARODD | CMSPAR;
    line.c_cflag &= ~(rates | form);
    line.c_cflag |= CREAD | CLOCAL | code_of(params.bits_per_second);
    line.c_ispeed = line.c_ospeed = params.bits_per_second;
    constexpr tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    line.c_cflag |= sizes[params.data_bits - 5];
    if (params.half_stop_bits != 2)
        line.c_cflag |= CSTOPB;
    constexpr tcflag_t parities[] = {0, PARENB | PARODD, PARENB, PARENB | PARODD | CMSPAR, PARENB | CMSPAR};
    line.c_cflag |= parities[static_cast<std::size_t>(params.parity)];
}

void change_flow_control(struct termios2& line, const qorSerialParams& params) noexcept {
    constexpr cc_t xon = 0x11;
    constexpr cc_t xoff = 0x13;
    line.c_cflag &= ~tcflag_t{CRTSCTS};
    line.c_iflag &= ~tcflag_t{IXON | IXOFF | IXANY};
    if (params.rts_cts)
        line.c_cflag |= CRTSCTS;
    if (params.xon_xoff) {
        line.c_iflag |= IXON | IXOFF;
        line.c_cc[VSTART] = xon;
        line.c_cc[VSTOP] = xoff;
    }
}

// What the portable settings do not tell: the line mode, and the two directions of flow control.
not_taken compare_flags(const struct termios2& wanted, const struct termios2& got, uint32 sets) {
    if ((sets & qorSerialSetsBasics) != 0 &&
        ((got.c_iflag & input_changes) != 0 || (got.c_oflag & output_changes) != 0 || (got.c_lflag & line_mode) != 0))
        return qor::serial::not_switched(framework::serial_raw, true);
    constexpr tcflag_t directions = IXON | IXOFF;
    if ((sets & qorSerialSetsFlowControl) != 0 && ((wanted.c_iflag ^ got.c_iflag) & directions) != 0)
        return qor::serial::not_switched(framework::serial_xon_xoff, (wanted.c_iflag & directions) != 0);
    return {};
}

constexpr __u32 rts_bits = SER_RS485_RTS_ON_SEND | SER_RS485_RTS_AFTER_SEND;

struct serial_rs485 system_rs485(const qorSerialRS485& wanted, const struct serial_rs485& before) noexcept {
    struct serial_rs485 out = before;
    out.flags &= ~(SER_RS485_ENABLED | SER_RS485_RX_DURING_TX | rts_bits);
    if (!wanted.enabled)
        return out;
    out.flags |= SER_RS485_ENABLED | (wanted.rts_while_sending ? SER_RS485_RTS_ON_SEND : SER_RS485_RTS_AFTER_SEND);
    if (wanted.hears_itself)
        out.flags |= SER_RS485_RX_DURING_TX;
    out.delay_rts_before_send = wanted.delay_before;
    out.delay_rts_after_send = wanted.delay_after;
    return out;
}

bool failed(const std::string& port, int code) {
    qor::error::set_with_reason(qorError_serial_port_failed, port.c_str(), code);
    return false;
}

bool was_not_taken(const std::string& port, const not_taken& which) {
    qor::serial::report(port, which);
    return false;
}

bool set_settings(qor::serial::line_driver& line, const std::string& port, const qorSerialParams& params,
                  const struct termios2& before) {
    if ((params.sets & (qorSerialSetsBasics | qorSerialSetsFlowControl)) == 0)
        return true;
    struct termios2 wanted = before;
    qor::serial::change(wanted, params);
    if (const int code = line.set(wanted)) {
        if ((params.sets & qorSerialSetsBasics) == 0)
            return failed(port, code);
        qor::error::set(qorError_serial_settings_refused, {port.c_str(), qor::serial::short_form(params).c_str(),
                                                           qor::error::system_reason(code).c_str()});
        return false;
    }
    struct termios2 got {};
    if (const int code = line.get(got))
        return failed(port, code);
    not_taken which = qor::serial::compare(params, qor::serial::settings_of(got));
    if (which.parameter == 0)
        which = compare_flags(wanted, got, params.sets);
    return which.parameter == 0 || was_not_taken(port, which);
}

bool set_rs485(qor::serial::line_driver& line, const std::string& port, const qorSerialParams& params) {
    if ((params.sets & qorSerialSetsRS485) == 0)
        return true;
    struct serial_rs485 mode {};
    int code = line.get(mode);
    if (code != 0 && code != EIO && !params.rs485.enabled)
        return true; // a driver without that mode
    if (code == 0)
        code = line.set(system_rs485(params.rs485, mode));
    if (code == 0)
        code = line.get(mode);
    if (code != 0) {
        qor::error::set_with_reason(qorError_serial_no_rs485, port.c_str(), code);
        return false;
    }
    const not_taken which = qor::serial::compare(params.rs485, qor::serial::rs485_of(mode));
    return which.parameter == 0 || was_not_taken(port, which);
}

int result_of(int call) noexcept { return call == 0 ? 0 : errno; }

} // namespace

int qor::serial::kernel_line::get(struct termios2& settings) noexcept {
    return result_of(ioctl(m_port, TCGETS2, &settings));
}
int qor::serial::kernel_line::set(const struct termios2& settings) noexcept {
    return result_of(ioctl(m_port, TCSETS2, &settings));
}
int qor::serial::kernel_line::get(struct serial_rs485& mode) noexcept {
    return result_of(ioctl(m_port, TIOCGRS485, &mode));
}
int qor::serial::kernel_line::set(const struct serial_rs485& mode) noexcept {
    return result_of(ioctl(m_port, TIOCSRS485, &mode));
}

int qor::serial::find_line(line_driver& line, found_line& found) noexcept {
    found.has_rs485 = line.get(found.rs485) == 0;
    return line.get(found.settings);
}

// Nobody can be told of a failure: the line is gone then.
void qor::serial::restore_line(line_driver& line, const found_line& found) noexcept {
    line.set(found.settings);
    if (found.has_rs485)
        line.set(found.rs485);
}

qorSerialSettings qor::serial::settings_of(const struct termios2& line) noexcept {
    qorSerialSettings out{};
    const bool odd = (line.c_cflag & PARODD) != 0;
    const bool stick = (line.c_cflag & CMSPAR) != 0;
    out.bits_per_second = (line.c_cflag & CBAUD) == B0 ? 0 : line.c_ospeed;
    constexpr uint8 sizes[] = {5, 6, 7, 8}; // CS5 to CS8
    out.data_bits = sizes[(line.c_cflag & CSIZE) / CS6];
    out.half_stop_bits = (line.c_cflag & CSTOPB) == 0 ? 2 : out.data_bits == 5 ? 3 : 4;
    out.parity = (line.c_cflag & PARENB) == 0 ? qorSerialParity::none
                 : stick                      ? (odd ? qorSerialParity::mark : qorSerialParity::space)
                 : odd                        ? qorSerialParity::odd
                                              : qorSerialParity::even;
    out.rts_cts = (line.c_cflag & CRTSCTS) != 0;
    out.xon_xoff = (line.c_iflag & (IXON | IXOFF)) != 0;
    return out;
}

qorSerialRS485 qor::serial::rs485_of(const struct serial_rs485& line) noexcept {
    return {.enabled = (line.flags & SER_RS485_ENABLED) != 0,
            .rts_while_sending = (line.flags & rts_bits) == SER_RS485_RTS_ON_SEND,
            .hears_itself = (line.flags & SER_RS485_RX_DURING_TX) != 0,
            .delay_before = line.delay_rts_before_send,
            .delay_after = line.delay_rts_after_send};
}

void qor::serial::change(struct termios2& line, const qorSerialParams& params) noexcept {
    if ((params.sets & qorSerialSetsBasics) != 0)
        change_basics(line, params);
    if ((params.sets & qorSerialSetsFlowControl) != 0)
        change_flow_control(line, params);
}

bool qor::serial::set_line(line_driver& line, const std::string& port, const qorSerialParams& params) {
    found_line before;
    if (const int code = find_line(line, before))
        return failed(port, code);
    if (set_settings(line, port, params, before.settings) && set_rs485(line, port, params))
        return true;
    restore_line(line, before);
    return false;
}
