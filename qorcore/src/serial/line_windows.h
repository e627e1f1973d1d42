// Inside the serial ports on Windows: what a port is set to, in the system's form.
#pragma once

#include "serial/params.h"
#include "serial/system_ports.h"

#include <windows.h>

namespace qor::serial {

// The driver of a line; tests use their own. The operations return 0 or the system's error code.
class line_driver {
public:
    virtual int get(DCB& settings) noexcept = 0;
    virtual int set(const DCB& settings) noexcept = 0;
    virtual int get(COMMTIMEOUTS& limits) noexcept = 0;
    virtual int set(const COMMTIMEOUTS& limits) noexcept = 0;

protected:
    ~line_driver() = default;
};

// That of an open port.
class system_line final : public line_driver {
public:
    explicit system_line(HANDLE port) noexcept : m_port(port) {}
    int get(DCB& settings) noexcept override;
    int set(const DCB& settings) noexcept override;
    int get(COMMTIMEOUTS& limits) noexcept override;
    int set(const COMMTIMEOUTS& limits) noexcept override;

private:
    HANDLE m_port;
};

// What a line is set to.
struct found_line {
    DCB settings{};
    COMMTIMEOUTS limits{};
};
int find_line(line_driver& line, found_line& found) noexcept;
void restore_line(line_driver& line, const found_line& found) noexcept;

qorSerialSettings settings_of(const DCB& line) noexcept;
qorSerialRS485 rs485_of(const DCB& line) noexcept;

// Changes what the groups of the basics, the flow control and the bus say, and leaves the rest.
void change(DCB& line, const qorSerialParams& params) noexcept;

// Sets a line, all at once, and reads it back. The driver gets no time limits, because the framework's own are exact.
// On false the last error, which names `port`, says why, and the line is as it was before.
bool set_line(line_driver& line, const std::string& port, const qorSerialParams& params);

} // namespace qor::serial
