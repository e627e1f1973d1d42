// Serial ports: lists the host's ports, describes where they are, and opens them.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/String.h"

class qorStringArray;

// The parity bit of a character; with none there is no such bit.
enum class qorSerialParity : uint8 { none, odd, even, mark, space };

// The current settings of a port.
struct qorSerialSettings {
    uint32 bits_per_second; // 0: the line is hung up
    uint8 data_bits;        // 5 to 8
    uint8 half_stop_bits;   // 2: one stop bit, 3: one and a half, 4: two
    qorSerialParity parity; // the bit after the data bits
    bool rts_cts;           // hardware flow control by RTS and CTS
    bool xon_xoff;          // flow control by XON and XOFF, in either direction
};

// The modem lines, as bits. The port drives the first two and reads the others.
inline constexpr uint32 qorSerialDTR = 1;
inline constexpr uint32 qorSerialRTS = 2;
inline constexpr uint32 qorSerialCTS = 4;
inline constexpr uint32 qorSerialDSR = 8;
inline constexpr uint32 qorSerialRing = 16;
inline constexpr uint32 qorSerialCarrier = 32;

// An open port; the last Release closes it. No operation changes a setting: the port works as it was set before. One
// thread may read while another writes; otherwise not thread-safe. Operations that fail return false and set the last
// error, which names the port.
class IQORSerialPort : public IQORInterface {
public:
    // The name of the port as qorEnumSerialPorts lists it, whatever name it was opened by.
    virtual bool GetPortName(qorString& out) noexcept = 0;

    // Gets the current settings.
    virtual bool GetSettings(qorSerialSettings& out) noexcept = 0;

    // Gets the lines that are on, combined as bits. Fails on a pseudo-terminal, which has none.
    virtual bool GetModemLines(uint32& lines) noexcept = 0;

    // Gets the number of bytes that were received but not read yet, and that were written but not sent yet.
    virtual bool GetWaiting(uint32& received, uint32& unsent) noexcept = 0;

    // Reads the bytes that have arrived, `size` at most. Waits up to `milliseconds` for the first of them; if none
    // arrives in time, the call succeeds and `count` is 0. A port in line mode returns whole lines.
    [[nodiscard]] virtual bool Read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept = 0;

    // Passes bytes to the system; `count` is the number that it accepted within `milliseconds`.
    virtual bool Write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept = 0;

    // Discards bytes that were received but not read, or written but not sent.
    virtual bool Discard(bool received, bool unsent) noexcept = 0;

    // Waits until everything written has been sent, without a time limit; the other end may delay that.
    virtual bool Flush() noexcept = 0;

    // Like qorGetSerialPortLocation.
    virtual bool GetLocation(qorString& out) noexcept = 0;

protected:
    ~IQORSerialPort() = default;
};

// Replaces the content of `out` by the names of the host's ports, ordered by name and then by number (COM9 before
// COM10). Opens no port. Returns false if the system cannot list them (last error); a host without ports is not an
// error.
inline bool qorEnumSerialPorts(qorStringArray& out) noexcept { return qor::glue::qorEnumSerialPorts(out); }

// Describes where a port is: "USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI". The text is empty if nothing
// is known. Returns false and leaves `out` unchanged if there is no such port.
inline bool qorGetSerialPortLocation(const char* name, qorString& out) noexcept {
    return qor::glue::qorGetSerialPortLocation(name, out);
}

// Opens a port for reading and writing. `name` is a name from qorEnumSerialPorts, the device file, or a link to it
// ("ttyUSB0", "/dev/ttyUSB0", "serial/by-id/..."); a pseudo-terminal only has its file. Windows: "COM3" or "\\.\COM3".
// Opening never blocks and changes no setting. Returns false and leaves *out unchanged on failure; the last error says
// whether the port is missing, in use, forbidden or not a serial port.
[[nodiscard]] inline bool qorOpenSerialPort(const char* name, IQORSerialPort** out) noexcept {
    return qor::glue::qorOpenSerialPort(name, out);
}
