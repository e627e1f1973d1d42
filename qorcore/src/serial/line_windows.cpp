#include "serial/line_windows.h"

#include "error/error.h"
#include "message_names.h"

#include <iterator>

namespace framework = qor::messages::framework;

namespace {

using qor::serial::not_taken;

void change_basics(DCB& line, const qorSerialParams& params) noexcept {
    line.BaudRate = params.bits_per_second;
    line.ByteSize = params.data_bits;
    line.StopBits = params.half_stop_bits == 2 ? ONESTOPBIT : params.half_stop_bits == 3 ? ONE5STOPBITS : TWOSTOPBITS;
    line.Parity = static_cast<BYTE>(params.parity); // NOPARITY and so on have the same order
    // Bytes pass unchanged, whatever their parity and the modem lines are, and an error stops nothing.
    line.fBinary = TRUE;
    line.fParity = FALSE;
    line.fErrorChar = FALSE;
    line.fNull = FALSE;
    line.fAbortOnError = FALSE;
    line.fOutxDsrFlow = FALSE;
    line.fDsrSensitivity = FALSE;
}

void change_flow_control(DCB& line, const qorSerialParams& params) noexcept {
    constexpr char xon = 0x11;
    constexpr char xoff = 0x13;
    line.fOutxCtsFlow = params.rts_cts ? TRUE : FALSE;
    if (params.rts_cts)
        line.fRtsControl = RTS_CONTROL_HANDSHAKE;
    else if (line.fRtsControl == RTS_CONTROL_HANDSHAKE)
        line.fRtsControl = RTS_CONTROL_ENABLE;
    line.fOutX = line.fInX = params.xon_xoff ? TRUE : FALSE;
    if (params.xon_xoff) {
        line.XonChar = xon;
        line.XoffChar = xoff;
    }
}

void change_rs485(DCB& line, const qorSerialRS485& rs485) noexcept {
    if (rs485.enabled)
        line.fRtsControl = RTS_CONTROL_TOGGLE;
    else if (line.fRtsControl == RTS_CONTROL_TOGGLE)
        line.fRtsControl = RTS_CONTROL_ENABLE;
}

// The system has no more than a switch for it.
bool is_plain(const qorSerialRS485& rs485) noexcept {
    return !rs485.enabled ||
           (rs485.rts_while_sending && !rs485.hears_itself && rs485.delay_before == 0 && rs485.delay_after == 0);
}

bool has_handshake(const DCB& line) noexcept { return line.fRtsControl == RTS_CONTROL_HANDSHAKE; }

// What the portable settings do not tell: the directions of flow control, and the binary mode.
not_taken compare_flags(const DCB& wanted, const DCB& got, uint32 sets) {
    if ((sets & qorSerialSetsBasics) != 0 && (got.fBinary == 0 || got.fNull != 0 || got.fErrorChar != 0))
        return qor::serial::not_switched(framework::serial_raw, true);
    if ((sets & qorSerialSetsFlowControl) == 0)
        return {};
    if (wanted.fOutxCtsFlow != got.fOutxCtsFlow || has_handshake(wanted) != has_handshake(got))
        return qor::serial::not_switched(framework::serial_rts_cts, wanted.fOutxCtsFlow != 0);
    if (wanted.fOutX != got.fOutX || wanted.fInX != got.fInX)
        return qor::serial::not_switched(framework::serial_xon_xoff, wanted.fOutX != 0);
    return {};
}

bool failed(const std::string& port, int code) {
    qor::error::set_with_reason(qorError_serial_port_failed, port.c_str(), code);
    return false;
}

bool set_settings(qor::serial::line_driver& line, const std::string& port, const qorSerialParams& params,
                  const DCB& before) {
    if ((params.sets & ~qorSerialSetsTimeouts) == 0)
        return true;
    DCB wanted = before;
    qor::serial::change(wanted, params);
    if (const int code = line.set(wanted)) {
        if ((params.sets & qorSerialSetsBasics) == 0)
            return failed(port, code);
        qor::error::set(qorError_serial_settings_refused, {port.c_str(), qor::serial::short_form(params).c_str(),
                                                           qor::error::system_reason(code).c_str()});
        return false;
    }
    DCB got{};
    if (const int code = line.get(got))
        return failed(port, code);
    not_taken which = qor::serial::compare(params, qor::serial::settings_of(got));
    if (which.parameter == 0)
        which = compare_flags(wanted, got, params.sets);
    if (which.parameter == 0 && (params.sets & qorSerialSetsRS485) != 0)
        which = qor::serial::compare(params.rs485, qor::serial::rs485_of(got));
    if (which.parameter == 0)
        return true;
    qor::serial::report(port, which);
    return false;
}

int result_of(BOOL succeeded) noexcept { return succeeded ? 0 : static_cast<int>(GetLastError()); }

} // namespace

int qor::serial::system_line::get(DCB& settings) noexcept {
    settings.DCBlength = sizeof settings;
    return result_of(GetCommState(m_port, &settings));
}
int qor::serial::system_line::set(const DCB& settings) noexcept {
    DCB copy = settings;
    return result_of(SetCommState(m_port, &copy));
}
int qor::serial::system_line::get(COMMTIMEOUTS& limits) noexcept { return result_of(GetCommTimeouts(m_port, &limits)); }
int qor::serial::system_line::set(const COMMTIMEOUTS& limits) noexcept {
    COMMTIMEOUTS copy = limits;
    return result_of(SetCommTimeouts(m_port, &copy));
}

int qor::serial::find_line(line_driver& line, found_line& found) noexcept {
    const int code = line.get(found.limits);
    return code != 0 ? code : line.get(found.settings);
}

// Nobody can be told of a failure: the line is gone then.
void qor::serial::restore_line(line_driver& line, const found_line& found) noexcept {
    line.set(found.settings);
    line.set(found.limits);
}

qorSerialSettings qor::serial::settings_of(const DCB& line) noexcept {
    qorSerialSettings out{};
    out.bits_per_second = line.BaudRate;
    out.data_bits = line.ByteSize;
    out.half_stop_bits = line.StopBits == ONESTOPBIT ? 2 : line.StopBits == ONE5STOPBITS ? 3 : 4;
    constexpr qorSerialParity parities[] = {qorSerialParity::none, qorSerialParity::odd, qorSerialParity::even,
                                            qorSerialParity::mark, qorSerialParity::space}; // NOPARITY and so on
    out.parity = line.Parity < std::size(parities) ? parities[line.Parity] : qorSerialParity::none;
    out.rts_cts = line.fOutxCtsFlow != 0 || has_handshake(line);
    out.xon_xoff = line.fOutX != 0 || line.fInX != 0;
    return out;
}

qorSerialRS485 qor::serial::rs485_of(const DCB& line) noexcept {
    return {.enabled = line.fRtsControl == RTS_CONTROL_TOGGLE};
}

void qor::serial::change(DCB& line, const qorSerialParams& params) noexcept {
    if ((params.sets & qorSerialSetsBasics) != 0)
        change_basics(line, params);
    if ((params.sets & qorSerialSetsFlowControl) != 0)
        change_flow_control(line, params);
    if ((params.sets & qorSerialSetsRS485) != 0)
        change_rs485(line, params.rs485);
}

bool qor::serial::set_line(line_driver& line, const std::string& port, const qorSerialParams& params) {
    if ((params.sets & qorSerialSetsRS485) != 0 && !is_plain(params.rs485)) {
        error::set_with_reason(qorError_serial_no_rs485, port.c_str(), ERROR_NOT_SUPPORTED);
        return false;
    }
    found_line before;
    if (const int code = find_line(line, before))
        return failed(port, code);
    if (const int code = line.set(COMMTIMEOUTS{}))
        return failed(port, code);
    if (set_settings(line, port, params, before.settings))
        return true;
    restore_line(line, before);
    return false;
}
