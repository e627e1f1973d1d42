// Serial ports: the list, the locations and the object for an open port.
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"
#include "serial/natural_order.h"
#include "serial/params.h"
#include "serial/system_ports.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr char source[] = "qorcore/src/serial/serial_ports";

void assign(qorString& out, const std::string& text) {
    qor::glue::qorString_Set(&out, text.data(), static_cast<uint32>(text.size()));
}

// The time that an operation of a port has left, as far as it is limited.
class time_left {
public:
    explicit time_left(uint32 milliseconds) noexcept
        : m_is_limited(milliseconds != qorSerialForever),
          m_end(clock::now() + std::chrono::milliseconds(milliseconds)) {}

    // At most `longest`.
    uint32 get(uint32 longest) const noexcept {
        if (!m_is_limited)
            return longest;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - clock::now()).count();
        return static_cast<uint32>(std::clamp<std::int64_t>(left, 0, longest));
    }
    bool is_over() const noexcept { return m_is_limited && clock::now() >= m_end; }

private:
    using clock = std::chrono::steady_clock;
    bool m_is_limited;
    clock::time_point m_end;
};

class serial_port final : public qor::object<IQORSerialPort> {
public:
    serial_port() noexcept : object("qorcore.serial_port", "IQORSerialPort") {}

    bool open(const char* name) { return m_port.open(name != nullptr ? name : ""); }

    bool open(const char* name, const qorSerialParams& params, qorSerialClosing closing) {
        return open(name) && done(m_port.claim(closing == qorSerialClosing::restore)) && apply(params);
    }

    bool GetPortName(qorString& out) noexcept override {
        assign(out, m_port.name());
        return true;
    }
    bool GetSettings(qorSerialSettings& out) noexcept override { return done(m_port.settings(out)); }
    bool GetModemLines(uint32& lines) noexcept override { return done(m_port.modem_lines(lines)); }
    bool GetWaiting(uint32& received, uint32& unsent) noexcept override {
        return done(m_port.waiting(received, unsent));
    }
    bool Read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept override {
        return done(m_port.read(buffer, size, milliseconds, count));
    }
    bool Write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept override {
        return done(m_port.write(data, size, milliseconds, count));
    }
    bool Discard(bool received, bool unsent) noexcept override { return done(m_port.discard(received, unsent)); }
    bool Flush() noexcept override { return done(m_port.flush()); }
    bool GetLocation(qorString& out) noexcept override {
        assign(out, m_port.location());
        return true;
    }
    bool SetParams(const qorSerialParams& params) noexcept override {
        return qor::serial::is_valid(params, "IQORSerialPort::SetParams") && apply(params);
    }
    bool GetRS485(qorSerialRS485& out) noexcept override { return m_port.get_rs485(out); }

    bool ReadAll(void* buffer, uint32 size, uint32& count) noexcept override {
        count = 0;
        const time_left left(m_timeouts.read_total);
        while (count != size) {
            const uint32 wait = left.get(count == 0 ? qorSerialForever : m_timeouts.read_gap);
            uint32 part = 0;
            if (!done(m_port.read(static_cast<char*>(buffer) + count, size - count, wait, part)))
                return false;
            // A wait without a limit ends only after weeks, and is then begun again.
            if (part == 0 && wait != qorSerialForever)
                break;
            count += part;
        }
        return true;
    }

    bool WriteAll(const void* data, uint32 size, uint32& count) noexcept override {
        count = 0;
        const time_left left(m_timeouts.write_total);
        for (;;) {
            uint32 part = 0;
            const char* const rest = static_cast<const char*>(data) + count;
            const bool is_done = done(m_port.write(rest, size - count, left.get(qorSerialForever), part));
            count += part;
            if (!is_done || count == size || left.is_over())
                return is_done;
        }
    }

    bool SetBreak(bool on) noexcept override { return done(m_port.set_break(on)); }

    bool SetModemLines(uint32 lines, bool on) noexcept override {
        if ((lines & ~(qorSerialDTR | qorSerialRTS)) != 0) {
            qor::error::set(qorError_invalid_argument,
                            {"IQORSerialPort::SetModemLines", "lines that a port does not drive"});
            return false;
        }
        return lines == 0 || done(m_port.set_modem_lines(lines, on));
    }

private:
    bool apply(const qorSerialParams& params) {
        if (!m_port.set_params(params))
            return false;
        if ((params.sets & qorSerialSetsTimeouts) != 0)
            m_timeouts = params.timeouts;
        return true;
    }

    bool done(int code) noexcept {
        if (code != 0)
            qor::error::set_with_reason(qorError_serial_port_failed, m_port.name().c_str(), code);
        return code == 0;
    }

    qor::serial::system_port m_port;
    qorSerialTimeouts m_timeouts;
};

} // namespace

bool qor::glue::qorEnumSerialPorts(qorStringArray& out) noexcept {
    std::vector<std::string> names;
    if (!serial::find_ports(names))
        return false;
    std::sort(names.begin(), names.end(), serial::comes_before);
    out.Empty();
    for (const std::string& name : names)
        out.Append(name.c_str());
    return true;
}

bool qor::glue::qorGetSerialPortLocation(const char* name, qorString& out) noexcept {
    std::string location;
    if (!serial::find_location(name != nullptr ? name : "", location))
        return false;
    assign(out, location);
    return true;
}

bool qor::glue::qorOpenSerialPort(const char* name, IQORSerialPort** out) noexcept {
    zetSmartPointer<serial_port> port;
    if (!memory::make<serial_port>(source, __LINE__, port.Out()) || !port->open(name))
        return false;
    *out = port.Detach();
    return true;
}

bool qor::glue::qorOpenSerialPortEx(const char* name, const qorSerialParams& params, qorSerialClosing closing,
                                    IQORSerialPort** out) noexcept {
    if (!serial::is_valid(params, "qorOpenSerialPortEx"))
        return false;
    if (closing > qorSerialClosing::restore) {
        error::set(qorError_invalid_argument, {"qorOpenSerialPortEx", "an unknown kind of closing"});
        return false;
    }
    zetSmartPointer<serial_port> port;
    if (!memory::make<serial_port>(source, __LINE__, port.Out()) || !port->open(name, params, closing))
        return false;
    *out = port.Detach();
    return true;
}
