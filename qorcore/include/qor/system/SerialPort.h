// Serial ports: those that the host has, where they are, and one of them opened.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/String.h"

class qorStringArray;

// What the parity bit of a character is; none: there is no such bit.
enum class qorSerialParity : uint8 { none, odd, even, mark, space };

// How a port is set, as it is now.
struct qorSerialSettings {
    uint32 bits_per_second; // 0: the line is hung up
    uint8 data_bits;        // 5 to 8
    uint8 half_stop_bits;   // 2: one stop bit, 3: one and a half, 4: two
    qorSerialParity parity; // the bit behind the data bits
    bool rts_cts;           // RTS and CTS hold the flow
    bool xon_xoff;          // the characters XON and XOFF do, in either direction
};

// The modem lines, to be added up. The port drives the first two and reads the others.
inline constexpr uint32 qorSerialDTR = 1;
inline constexpr uint32 qorSerialRTS = 2;
inline constexpr uint32 qorSerialCTS = 4;
inline constexpr uint32 qorSerialDSR = 8;
inline constexpr uint32 qorSerialRing = 16;
inline constexpr uint32 qorSerialCarrier = 32;

// An open port; the last Release closes it. No operation changes a setting: bytes come and go the way the port was set
// before. One thread may read while another one writes; else not thread-safe. Operations that fail return false and set
// the thread's last error, which names the port.
class IQORSerialPort : public IQORInterface {
public:
    // The name that qorEnumSerialPorts has for it, whatever it was opened by.
    virtual bool GetPortName(qorString& out) noexcept = 0;

    // How the port is set now.
    virtual bool GetSettings(qorSerialSettings& out) noexcept = 0;

    // The sum of those that are on. A pseudo-terminal has none, and fails.
    virtual bool GetModemLines(uint32& lines) noexcept = 0;

    // In bytes: what has come and was not read yet, and what was written and is not sent yet.
    virtual bool GetWaiting(uint32& received, uint32& unsent) noexcept = 0;

    // Reads what there is, `size` bytes at most, and waits for the first of them no longer than so many milliseconds.
    // *count is 0 where none came in time. A port that is set to pass on whole lines does.
    [[nodiscard]] virtual bool Read(void* buffer, uint32 size, uint32 milliseconds, uint32& count) noexcept = 0;

    // Hands bytes to the system; `count` says how many of them it took in time.
    virtual bool Write(const void* data, uint32 size, uint32 milliseconds, uint32& count) noexcept = 0;

    // Forgets what has come and was not read, or was written and is not sent.
    virtual bool Discard(bool received, bool unsent) noexcept = 0;

    // Waits until all that was written is sent, as long as the other end may hold it up.
    virtual bool Flush() noexcept = 0;

    // As qorGetSerialPortLocation.
    virtual bool GetLocation(qorString& out) noexcept = 0;

protected:
    ~IQORSerialPort() = default;
};

// The names of the host's ports, ordered by name and then by number (COM9 before COM10), in place of what `out` held.
// No port is opened for that. False: the system does not tell; a host without ports is no failure.
inline bool qorEnumSerialPorts(qorStringArray& out) noexcept { return qor::glue::qorEnumSerialPorts(out); }

// Where a port is, in words: "USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI". Empty where nothing is known
// of it. False: there is no such port, and `out` is as it was.
inline bool qorGetSerialPortLocation(const char* name, qorString& out) noexcept {
    return qor::glue::qorGetSerialPortLocation(name, out);
}

// Opens a port for reading and writing. It may be named as qorEnumSerialPorts does, by its device file, or by a link to
// that ("ttyUSB0", "/dev/ttyUSB0", "serial/by-id/..."); pseudo-terminals have only their file. Windows: "COM3" or
// "\\.\COM3". Opening waits for nothing and changes no setting. False: *out is as it was, and the last error says
// whether the port is absent, in use, forbidden or no serial port.
[[nodiscard]] inline bool qorOpenSerialPort(const char* name, IQORSerialPort** out) noexcept {
    return qor::glue::qorOpenSerialPort(name, out);
}
