// Serial ports: the list, the locations and the object for an open port.
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"
#include "serial/natural_order.h"
#include "serial/system_ports.h"

#include <algorithm>

namespace {

constexpr char source[] = "qorcore/src/serial/serial_ports";

void assign(qorString& out, const std::string& text) {
    qor::glue::qorString_Set(&out, text.data(), static_cast<uint32>(text.size()));
}

class serial_port final : public qor::object<IQORSerialPort> {
public:
    serial_port() noexcept : object("qorcore.serial_port", "IQORSerialPort") {}

    bool open(const char* name) { return m_port.open(name != nullptr ? name : ""); }

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

private:
    bool done(int code) noexcept {
        if (code != 0)
            qor::error::set_with_reason(qorError_serial_port_failed, m_port.name().c_str(), code);
        return code == 0;
    }

    qor::serial::system_port m_port;
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
