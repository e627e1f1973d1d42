// Serial ports: lists the host's ports, describes where they are, opens and sets them. docs/serial-ports.md has
// examples.
#pragma once

#include "qor/system/Error.h"
#include "qor/system/Interface.h"
#include "qor/system/String.h"
#include "qor/system/TextView.h"
#include "qor/system/Time.h"

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

// No time limit, among those of qorSerialTimeouts.
inline constexpr uint32 qorSerialForever = 0xffffffff;

// The time limits of ReadAll and WriteAll. When one is over, the operation succeeds with the bytes that it has moved.
struct qorSerialTimeouts {
    uint32 read_total = qorSerialForever;  // for all bytes
    uint32 read_gap = qorSerialForever;    // from one byte to the next, once the first has come
    uint32 write_total = qorSerialForever; // for all bytes
};

// How a port drives an RS-485 bus, where its driver can: it switches the transmitter by RTS.
struct qorSerialRS485 {
    bool enabled = false;          // whether it drives one
    bool rts_while_sending = true; // the state of RTS while it sends; otherwise the opposite
    bool hears_itself = false;     // it also receives while it sends
    uint32 delay_before = 0;       // from switching RTS to the first byte
    uint32 delay_after = 0;        // from the last byte to switching RTS back
};

// The groups of settings, as bits.
inline constexpr uint32 qorSerialSetsBasics = 1;
inline constexpr uint32 qorSerialSetsFlowControl = 2;
inline constexpr uint32 qorSerialSetsTimeouts = 4;
inline constexpr uint32 qorSerialSetsRS485 = 8;

// The settings to give to a port. The operations qorSetParams_... fill in a group each and check it; a group that was
// not filled in stays as it is on the port.
struct qorSerialParams {
    uint32 sets = 0;                                // the groups that are filled in
    uint32 bits_per_second = 0;                     // of the basics, all as in qorSerialSettings
    uint8 data_bits = 0;                            // the same
    uint8 half_stop_bits = 0;                       // the same
    qorSerialParity parity = qorSerialParity::none; // the same
    bool rts_cts = false;                           // of the flow control, likewise
    bool xon_xoff = false;                          // the same
    qorSerialTimeouts timeouts{};                   // a group of its own
    qorSerialRS485 rs485{};                         // the same
};

// What becomes of the settings when a port is closed.
enum class qorSerialClosing : uint32 {
    keep,    // they stay
    restore, // they are again as they were before qorOpenSerialPortEx. Unsent bytes may go out with either: Flush first
};

// An open port; the last Release closes it. Only SetParams changes settings; until then the port works as it was set
// before. One thread may read while another writes; otherwise not thread-safe. Operations that fail return false and
// set the last error, which names the port. Once a port was unplugged or hung up, they all fail.
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

    // Sets the groups that are filled in, all at once, and reads them back. If the driver refuses them
    // (qorError_serial_settings_refused) or did not take one (qorError_serial_not_taken, which says what it took
    // instead), the port is as it was before. A bit rate is taken if it is right to within 2 per cent; GetSettings
    // tells it. The basics also make the port pass every byte unchanged, ignore the carrier, and not check parity: a
    // byte arrives whatever its parity bit is. Both kinds of flow control at once are possible.
    [[nodiscard]] virtual bool SetParams(const qorSerialParams& params) noexcept = 0;

    // Gets how the port drives an RS-485 bus. Fails with qorError_serial_no_rs485 if its driver cannot.
    virtual bool GetRS485(qorSerialRS485& out) noexcept = 0;

    // Reads until `size` bytes have come, or a time limit of the port is over, which is a success with a smaller
    // `count`. On failure, `count` is the number of bytes that came before it.
    [[nodiscard]] virtual bool ReadAll(void* buffer, uint32 size, uint32& count) noexcept = 0;

    // Passes all bytes to the system, within the time limit of the port; `count` as in ReadAll.
    [[nodiscard]] virtual bool WriteAll(const void* data, uint32 size, uint32& count) noexcept = 0;

    // Begins or ends a break: the line stays in the state of a start bit. A receiver reads a break as a zero byte.
    virtual bool SetBreak(bool on) noexcept = 0;

    // Switches some of the lines that the port drives, qorSerialDTR and qorSerialRTS, on or off. RTS is the driver's
    // own with hardware flow control or on an RS-485 bus.
    virtual bool SetModemLines(uint32 lines, bool on) noexcept = 0;

    // Writes a text. Returns false also if the time limit is over before all of it was accepted (qorError_timed_out).
    [[nodiscard]] bool WriteAll(qorTextView text) noexcept {
        uint32 count = 0;
        for (uint64 done = 0; done != text.length; done += count) {
            const uint64 piece = text.length - done < 0x40000000 ? text.length - done : 0x40000000;
            if (!WriteAll(text.text + done, static_cast<uint32>(piece), count))
                return false;
            if (count != piece) {
                ::qorSetLastError(qorError_timed_out);
                return false;
            }
        }
        return true;
    }

    // Sends a break of at least this length; a quarter of a second is usual.
    bool SendBreak(uint32 milliseconds = 250) noexcept {
        if (!SetBreak(true))
            return false;
        ::qorSleep(milliseconds);
        return SetBreak(false);
    }

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

// Empties `params`: no group is filled in, and all members have their defaults.
inline void qorResetParams(qorSerialParams& params) noexcept { qor::glue::qorResetParams(params); }

// Fills in the basics. Any bit rate above 0 may be asked for. `data_bits`: 5 to 8. `half_stop_bits`: 2 for one stop
// bit, 4 for two; with 5 data bits, 3 for one and a half in the place of two. Returns false and leaves `params`
// unchanged for any other value (qorError_invalid_argument).
inline bool qorSetParams_Basics(qorSerialParams& params, uint32 bits_per_second, uint8 data_bits = 8,
                                uint8 half_stop_bits = 2, qorSerialParity parity = qorSerialParity::none) noexcept {
    return qor::glue::qorSetParams_Basics(params, bits_per_second, data_bits, half_stop_bits, parity);
}

// Fills in the flow control: by RTS and CTS, by XON and XOFF (0x11 and 0x13) in both directions, by both, or by none.
// Returns false and leaves `params` unchanged if they want an RS-485 bus and `rts_cts` is true.
inline bool qorSetParams_FlowControl(qorSerialParams& params, bool rts_cts, bool xon_xoff) noexcept {
    return qor::glue::qorSetParams_FlowControl(params, rts_cts, xon_xoff);
}

// Fills in the time limits of ReadAll and WriteAll. They are the framework's own and not the driver's: those of other
// operations stay arguments. Always succeeds.
inline bool qorSetParams_Timeouts(qorSerialParams& params, const qorSerialTimeouts& timeouts) noexcept {
    return qor::glue::qorSetParams_Timeouts(params, timeouts);
}

// Fills in the driving of an RS-485 bus. Returns false and leaves `params` unchanged if they want flow control by RTS
// and CTS, or a delay is longer than a second.
inline bool qorSetParams_RS485(qorSerialParams& params, const qorSerialRS485& rs485) noexcept {
    return qor::glue::qorSetParams_RS485(params, rs485);
}

// Opens a port like qorOpenSerialPort, for this program alone (Linux: in exclusive mode, which lasts until it is
// closed), and sets it like IQORSerialPort::SetParams. On failure the port is closed, and its settings are as they
// were.
[[nodiscard]] inline bool qorOpenSerialPortEx(const char* name, const qorSerialParams& params, qorSerialClosing closing,
                                              IQORSerialPort** out) noexcept {
    return qor::glue::qorOpenSerialPortEx(name, params, closing, out);
}
