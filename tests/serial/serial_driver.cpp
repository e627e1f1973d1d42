// Applies operations on a serial port to the words that it is given: see line_driver.h. "open" has a name and a way of
// closing (0: keep, 1: restore) and then the settings, as "set" has them alone: the rate, the data bits, half stop bits
// and parity, and two switches of flow control; an empty rate or switch leaves its group out.
#include "support/line_driver.h"

#include <filesystem>

namespace {

using line_driver::hexadecimal;
using line_driver::words;

zetSmartPointer<IQORSerialPort> s_port;

uint32 number(const words& given, std::size_t at) {
    return at < given.size() && !given[at].empty() ? static_cast<uint32>(std::stoul(given[at])) : 0;
}

bool params_of(const words& given, std::size_t at, qorSerialParams& params) {
    if (at < given.size() && !given[at].empty() &&
        !qorSetParams_Basics(params, number(given, at), static_cast<uint8>(number(given, at + 1)),
                             static_cast<uint8>(number(given, at + 2)),
                             static_cast<qorSerialParity>(number(given, at + 3))))
        return false;
    return at + 4 >= given.size() || given[at + 4].empty() ||
           qorSetParams_FlowControl(params, number(given, at + 4) != 0, number(given, at + 5) != 0);
}

bool open_port(const words& given, std::string&) {
    qorSerialParams params;
    return params_of(given, 3, params) &&
           qorOpenSerialPortEx(given[1].c_str(), params, static_cast<qorSerialClosing>(number(given, 2)), s_port.Out());
}

bool set(const words& given, std::string&) {
    qorSerialParams params;
    return params_of(given, 1, params) && s_port->SetParams(params);
}

bool settings(const words&, std::string& answer) {
    qorSerialSettings got{};
    if (!s_port->GetSettings(got))
        return false;
    for (const uint32 each : {got.bits_per_second, uint32{got.data_bits}, uint32{got.half_stop_bits},
                              static_cast<uint32>(got.parity), uint32{got.rts_cts}, uint32{got.xon_xoff}})
        answer.append(" ").append(std::to_string(each));
    return true;
}

// "read SIZE TOTAL GAP"
bool read(const words& given, std::string& answer) {
    qorSerialParams params;
    qorSetParams_Timeouts(params, {.read_total = number(given, 2), .read_gap = number(given, 3)});
    std::string bytes(number(given, 1), '\0');
    uint32 count = 0;
    if (!s_port->SetParams(params) || !s_port->ReadAll(bytes.data(), number(given, 1), count))
        return false;
    answer.append(" ").append(hexadecimal(std::string_view(bytes).substr(0, count)));
    return true;
}

bool write(const words& given, std::string&) { return s_port->WriteAll(given[1]); }
bool flush(const words&, std::string&) { return s_port->Flush(); }
bool send_break(const words& given, std::string&) { return s_port->SendBreak(number(given, 1)); }

bool close_port(const words&, std::string&) {
    s_port.Empty();
    return true;
}

// The number of descriptors.
bool descriptors(const words&, std::string& answer) {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    answer.append(" ").append(std::to_string(std::distance(begin(all), end(all)) - 1));
    return true;
}

} // namespace

int main() {
    return line_driver::apply_lines({{"open", open_port},
                                     {"set", set},
                                     {"settings", settings},
                                     {"read", read},
                                     {"write", write},
                                     {"flush", flush},
                                     {"break", send_break},
                                     {"close", close_port},
                                     {"descriptors", descriptors}},
                                    2);
}
