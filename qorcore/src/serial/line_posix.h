// Inside the serial ports on Linux: what a port is set to, in the kernel's form. Do not include <termios.h> with it:
// the kernel's own header has the rates as numbers, which the C library's header lacks.
#pragma once

#include "serial/params.h"
#include "serial/system_ports.h"

#include <asm/termbits.h>
#include <linux/serial.h>

namespace qor::serial {

// The driver of a line; tests use their own. The operations return 0 or the system's error code.
class line_driver {
public:
    virtual int get(struct termios2& settings) noexcept = 0;
    virtual int set(const struct termios2& settings) noexcept = 0;
    virtual int get(struct serial_rs485& mode) noexcept = 0;
    virtual int set(const struct serial_rs485& mode) noexcept = 0;

protected:
    ~line_driver() = default;
};

// That of an open port.
class kernel_line final : public line_driver {
public:
    explicit kernel_line(int port) noexcept : m_port(port) {}
    int get(struct termios2& settings) noexcept override;
    int set(const struct termios2& settings) noexcept override;
    int get(struct serial_rs485& mode) noexcept override;
    int set(const struct serial_rs485& mode) noexcept override;

private:
    int m_port;
};

// What a line is set to, as far as its driver tells it.
struct found_line {
    struct termios2 settings {};
    struct serial_rs485 rs485 {};
    bool has_rs485 = false;
};
int find_line(line_driver& line, found_line& found) noexcept;
void restore_line(line_driver& line, const found_line& found) noexcept;

qorSerialSettings settings_of(const struct termios2& line) noexcept;
qorSerialRS485 rs485_of(const struct serial_rs485& line) noexcept;

// Changes what the groups of the basics and of the flow control say, and leaves the rest.
void change(struct termios2& line, const qorSerialParams& params) noexcept;

// Sets a line, all at once, and reads it back. On false the last error, which names `port`, says why, and the line is
// as it was before.
bool set_line(line_driver& line, const std::string& port, const qorSerialParams& params);

} // namespace qor::serial
