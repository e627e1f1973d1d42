#include "serial/params.h"

#include "error/error.h"
#include "message_names.h"

namespace framework = qor::messages::framework;

namespace {

constexpr uint32 all_groups =
    qorSerialSetsBasics | qorSerialSetsFlowControl | qorSerialSetsTimeouts | qorSerialSetsRS485;
constexpr uint32 longest_delay = 1000;

bool refuse(const char* operation, const std::string& what) {
    qor::error::set(qorError_invalid_argument, {operation, what.c_str()});
    return false;
}

const char* stop_bits(uint8 half_stop_bits) noexcept {
    return half_stop_bits == 2 ? "1" : half_stop_bits == 3 ? "1.5" : "2";
}

const char* name_of(qorSerialParity parity) noexcept {
    constexpr const char* names[] = {"none", "odd", "even", "mark", "space"};
    return names[static_cast<std::size_t>(parity)];
}

const char* on_or_off(bool is_on) noexcept { return is_on ? "on" : "off"; }

std::string text_of(const qorSerialRS485& rs485) {
    if (!rs485.enabled)
        return "off";
    std::string text = rs485.rts_while_sending ? "RTS on" : "RTS off";
    text.append(rs485.hears_itself ? ", hears itself" : ", hears others");
    return text.append(", ")
        .append(std::to_string(rs485.delay_before))
        .append(" ms, ")
        .append(std::to_string(rs485.delay_after))
        .append(" ms");
}

bool are_valid_basics(const qorSerialParams& params, const char* operation) {
    if (params.bits_per_second == 0)
        return refuse(operation, "0 bits per second");
    if (params.data_bits < 5 || params.data_bits > 8)
        return refuse(operation, std::to_string(params.data_bits).append(" data bits"));
    // UARTs send one and a half stop bits with five data bits, and two with more.
    const uint8 longer = params.data_bits == 5 ? 3 : 4;
    if (params.half_stop_bits != 2 && params.half_stop_bits != longer)
        return refuse(operation, std::to_string(params.half_stop_bits)
                                     .append(" half stop bits with ")
                                     .append(std::to_string(params.data_bits))
                                     .append(" data bits"));
    if (params.parity > qorSerialParity::space)
        return refuse(operation, "parity " + std::to_string(static_cast<unsigned>(params.parity)));
    return true;
}

} // namespace

bool qor::serial::is_valid(const qorSerialParams& params, const char* operation) {
    if ((params.sets & ~all_groups) != 0)
        return refuse(operation, "unknown groups of settings");
    if ((params.sets & qorSerialSetsBasics) != 0 && !are_valid_basics(params, operation))
        return false;
    if ((params.sets & qorSerialSetsRS485) == 0 || !params.rs485.enabled)
        return true;
    if (params.rs485.delay_before > longest_delay || params.rs485.delay_after > longest_delay)
        return refuse(operation, "a delay of more than a second");
    if ((params.sets & qorSerialSetsFlowControl) != 0 && params.rts_cts)
        return refuse(operation, "an RS-485 bus with flow control by RTS and CTS");
    return true;
}

std::string qor::serial::short_form(const qorSerialParams& params) {
    constexpr char parities[] = "NOEMS";
    std::string text = std::to_string(params.bits_per_second);
    text.append(" ").append(std::to_string(params.data_bits));
    text.append(1, parities[static_cast<std::size_t>(params.parity)]);
    return text.append(stop_bits(params.half_stop_bits));
}

qor::serial::not_taken qor::serial::not_switched(uint32 parameter, bool wanted) {
    return {parameter, on_or_off(wanted), on_or_off(!wanted)};
}

qor::serial::not_taken qor::serial::compare(const qorSerialParams& wanted, const qorSerialSettings& got) {
    if ((wanted.sets & qorSerialSetsBasics) != 0) {
        // Drivers divide a clock. Receivers stand an error of 2 per cent.
        const uint64 rate = wanted.bits_per_second;
        const uint64 error = rate > got.bits_per_second ? rate - got.bits_per_second : got.bits_per_second - rate;
        if (error * 50 > rate)
            return {framework::serial_bit_rate, std::to_string(rate), std::to_string(got.bits_per_second)};
        if (got.data_bits != wanted.data_bits)
            return {framework::serial_data_bits, std::to_string(wanted.data_bits), std::to_string(got.data_bits)};
        if (got.half_stop_bits != wanted.half_stop_bits)
            return {framework::serial_stop_bits, stop_bits(wanted.half_stop_bits), stop_bits(got.half_stop_bits)};
        if (got.parity != wanted.parity)
            return {framework::serial_parity, name_of(wanted.parity), name_of(got.parity)};
    }
    if ((wanted.sets & qorSerialSetsFlowControl) != 0) {
        if (got.rts_cts != wanted.rts_cts)
            return not_switched(framework::serial_rts_cts, wanted.rts_cts);
        if (got.xon_xoff != wanted.xon_xoff)
            return not_switched(framework::serial_xon_xoff, wanted.xon_xoff);
    }
    return {};
}

qor::serial::not_taken qor::serial::compare(const qorSerialRS485& wanted, const qorSerialRS485& got) {
    const std::string wanted_text = text_of(wanted);
    const std::string got_text = text_of(got);
    return wanted_text == got_text ? not_taken{} : not_taken{framework::serial_rs485, wanted_text, got_text};
}

void qor::serial::report(const std::string& port, const not_taken& which) {
    qorString parameter;
    parameter.LoadString(framework::catalog, which.parameter);
    error::set(qorError_serial_not_taken, {port.c_str(), parameter.Text(), which.wanted.c_str(), which.got.c_str()});
}

// The operations on params change a copy, which is checked before it takes the caller's place.

void qor::glue::qorResetParams(qorSerialParams& params) noexcept { params = {}; }

bool qor::glue::qorSetParams_Basics(qorSerialParams& params, uint32 bits_per_second, uint8 data_bits,
                                    uint8 half_stop_bits, qorSerialParity parity) noexcept {
    qorSerialParams set = params;
    set.sets |= qorSerialSetsBasics;
    set.bits_per_second = bits_per_second;
    set.data_bits = data_bits;
    set.half_stop_bits = half_stop_bits;
    set.parity = parity;
    if (!serial::is_valid(set, "qorSetParams_Basics"))
        return false;
    params = set;
    return true;
}

bool qor::glue::qorSetParams_FlowControl(qorSerialParams& params, bool rts_cts, bool xon_xoff) noexcept {
    qorSerialParams set = params;
    set.sets |= qorSerialSetsFlowControl;
    set.rts_cts = rts_cts;
    set.xon_xoff = xon_xoff;
    if (!serial::is_valid(set, "qorSetParams_FlowControl"))
        return false;
    params = set;
    return true;
}

bool qor::glue::qorSetParams_Timeouts(qorSerialParams& params, const qorSerialTimeouts& timeouts) noexcept {
    params.sets |= qorSerialSetsTimeouts;
    params.timeouts = timeouts;
    return true;
}

bool qor::glue::qorSetParams_RS485(qorSerialParams& params, const qorSerialRS485& rs485) noexcept {
    qorSerialParams set = params;
    set.sets |= qorSerialSetsRS485;
    set.rs485 = rs485;
    if (!serial::is_valid(set, "qorSetParams_RS485"))
        return false;
    params = set;
    return true;
}
