// Inside the serial ports: the seam to the operating system. A function that returns false sets the thread's last
// error.
#pragma once

#include "qor/qor.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qor::serial {

// Returns the names of all ports, unordered.
bool find_ports(std::vector<std::string>& names);

// Returns false if there is no such port.
bool find_location(const std::string& name, std::string& location);

struct found_line; // what a port is set to, in the system's form

// An open port. Its operations have the meaning of those of IQORSerialPort and return 0 or the system's error code.
class system_port {
public:
    system_port() noexcept;
    system_port(const system_port&) = delete;
    system_port& operator=(const system_port&) = delete;
    ~system_port();

    // Call this at most once for an object.
    bool open(const std::string& name);

    // Keeps other programs out, and remembers the settings if they are to be restored at the end. Call it behind
    // open().
    int claim(bool restores);

    // Sets the port; the last error says why not.
    bool set_params(const qorSerialParams& params);

    const std::string& name() const noexcept { return m_name; }
    const std::string& location() const noexcept { return m_location; }

    int settings(qorSerialSettings& out) noexcept;
    int modem_lines(uint32& lines) noexcept;
    int waiting(uint32& received, uint32& unsent) noexcept;
    int read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept;
    int write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept;
    int discard(bool received, bool unsent) noexcept;
    int flush() noexcept;
    bool get_rs485(qorSerialRS485& out); // sets the last error
    int set_break(bool on) noexcept;
    int set_modem_lines(uint32 lines, bool on) noexcept;

private:
    std::intptr_t m_handle = -1;         // the system's handle or descriptor
    bool m_is_claimed = false;           // whether claim() has changed something
    std::unique_ptr<found_line> m_found; // what is restored at the end
    std::string m_name;                  // the port's own name, not that of a link
    std::string m_location;              // kept, so that it is still known after the port was unplugged
};

} // namespace qor::serial
