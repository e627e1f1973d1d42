// Settings in the system's form, with a driver of the test that records what reaches it.
#include "serial/line_windows.h"

#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace {

using qor::test::last_error;

class fake_line final : public qor::serial::line_driver {
public:
    DCB settings{};
    COMMTIMEOUTS limits{1, 2, 3, 4, 5};
    std::function<void(DCB&)> takes = [](DCB&) {};
    int refuses = 0;
    int sets = 0;
    int limit_sets = 0;

    fake_line() {
        settings.DCBlength = sizeof settings;
        settings.BaudRate = 9600;
        settings.ByteSize = 8;
        settings.fNull = TRUE;
        settings.fAbortOnError = TRUE;
        settings.fOutxDsrFlow = TRUE;
        settings.fDtrControl = DTR_CONTROL_ENABLE;
        settings.fRtsControl = RTS_CONTROL_DISABLE;
        settings.XonLim = 77;
    }

    int get(DCB& out) noexcept override {
        out = settings;
        return 0;
    }
    int set(const DCB& wanted) noexcept override {
        ++sets;
        if (refuses != 0)
            return refuses;
        settings = wanted;
        takes(settings);
        return 0;
    }
    int get(COMMTIMEOUTS& out) noexcept override {
        out = limits;
        return 0;
    }
    int set(const COMMTIMEOUTS& wanted) noexcept override {
        ++limit_sets;
        limits = wanted;
        return 0;
    }
};

qorSerialParams basics(uint32 rate, uint8 data_bits = 8, uint8 half_stop_bits = 2,
                       qorSerialParity parity = qorSerialParity::none) {
    qorSerialParams params;
    EXPECT_TRUE(qorSetParams_Basics(params, rate, data_bits, half_stop_bits, parity));
    return params;
}

void expect_not_set(fake_line& line, const qorSerialParams& params, const std::string& reason) {
    const DCB before = line.settings;
    const COMMTIMEOUTS limits = line.limits;
    EXPECT_FALSE(qor::serial::set_line(line, "COM7", params));
    EXPECT_NE(last_error().find(reason), std::string::npos) << last_error();
    EXPECT_EQ(std::memcmp(&before, &line.settings, sizeof before), 0) << reason;
    EXPECT_EQ(std::memcmp(&limits, &line.limits, sizeof limits), 0) << reason;
}

} // namespace

TEST(windows_serial_line, every_form_of_characters) {
    for (uint8 data_bits = 5; data_bits <= 8; ++data_bits)
        for (const bool is_longer : {false, true})
            for (const BYTE parity : {NOPARITY, ODDPARITY, EVENPARITY, MARKPARITY, SPACEPARITY}) {
                const uint8 stop = !is_longer ? 2 : data_bits == 5 ? 3 : 4;
                fake_line line;
                ASSERT_TRUE(
                    qor::serial::set_line(line, "COM7", basics(250000, data_bits, stop, qorSerialParity{parity})));
                EXPECT_EQ(line.settings.BaudRate, 250000u);
                EXPECT_EQ(line.settings.ByteSize, data_bits);
                EXPECT_EQ(line.settings.Parity, parity);
                EXPECT_EQ(line.settings.StopBits, stop - 2); // ONESTOPBIT, ONE5STOPBITS, TWOSTOPBITS
                const qorSerialSettings got = qor::serial::settings_of(line.settings);
                EXPECT_EQ(got.parity, qorSerialParity{parity});
                EXPECT_EQ(got.half_stop_bits, stop);
            }
}

TEST(windows_serial_line, passes_bytes_unchanged_without_limits) {
    fake_line line;
    ASSERT_TRUE(qor::serial::set_line(line, "COM7", basics(9600)));
    EXPECT_EQ(line.settings.fBinary, 1u);
    EXPECT_EQ(line.settings.fNull, 0u);
    EXPECT_EQ(line.settings.fAbortOnError, 0u);
    EXPECT_EQ(line.settings.fOutxDsrFlow, 0u);
    EXPECT_EQ(line.settings.fDtrControl, DWORD{DTR_CONTROL_ENABLE});
    EXPECT_EQ(line.settings.XonLim, 77);
    const COMMTIMEOUTS none{};
    EXPECT_EQ(std::memcmp(&line.limits, &none, sizeof none), 0);
    // The time limits of the parameters are not the driver's.
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_Timeouts(params, {.read_total = 5, .read_gap = 6, .write_total = 7}));
    line.sets = 0;
    ASSERT_TRUE(qor::serial::set_line(line, "COM7", params));
    EXPECT_EQ(line.sets, 0);
    EXPECT_EQ(std::memcmp(&line.limits, &none, sizeof none), 0);
}

TEST(windows_serial_line, flow_control) {
    for (const bool rts_cts : {false, true})
        for (const bool xon_xoff : {false, true})
            for (const DWORD before : {RTS_CONTROL_DISABLE, RTS_CONTROL_HANDSHAKE}) {
                fake_line line;
                line.settings.fRtsControl = before;
                qorSerialParams params;
                ASSERT_TRUE(qorSetParams_FlowControl(params, rts_cts, xon_xoff));
                ASSERT_TRUE(qor::serial::set_line(line, "COM7", params));
                EXPECT_EQ(line.settings.fOutxCtsFlow, DWORD{rts_cts});
                EXPECT_EQ(line.settings.fRtsControl, rts_cts                         ? DWORD{RTS_CONTROL_HANDSHAKE}
                                                     : before == RTS_CONTROL_DISABLE ? DWORD{RTS_CONTROL_DISABLE}
                                                                                     : DWORD{RTS_CONTROL_ENABLE});
                EXPECT_EQ(line.settings.fOutX, DWORD{xon_xoff});
                EXPECT_EQ(line.settings.fInX, DWORD{xon_xoff});
                EXPECT_EQ(line.settings.XonChar, xon_xoff ? 0x11 : 0);
                EXPECT_EQ(line.settings.XoffChar, xon_xoff ? 0x13 : 0);
                EXPECT_EQ(line.settings.fAbortOnError, 1u); // of the other group
            }
}

TEST(windows_serial_line, what_the_driver_drops_is_an_error) {
    const auto drop = [](const qorSerialParams& params, const std::function<void(DCB&)>& change,
                         const std::string& what) {
        fake_line line;
        line.settings.fNull = FALSE;
        line.settings.fBinary = TRUE;
        line.takes = [&](DCB& taken) {
            if (line.sets == 1) // afterwards the line is restored
                change(taken);
        };
        expect_not_set(line, params, "The serial port 'COM7' was not set: its driver did not take the " + what);
    };
    drop(
        basics(300), [](DCB& taken) { taken.BaudRate = 1200; }, "bit rate. It was to be 300, and became 1200.");
    drop(
        basics(300, 7), [](DCB& taken) { taken.ByteSize = 8; }, "number of data bits. It was to be 7, and became 8.");
    drop(
        basics(300, 5, 3), [](DCB& taken) { taken.StopBits = TWOSTOPBITS; },
        "number of stop bits. It was to be 1.5, and became 2.");
    drop(
        basics(300, 8, 2, qorSerialParity::mark), [](DCB& taken) { taken.Parity = NOPARITY; },
        "parity. It was to be mark, and became none.");
    drop(
        basics(300), [](DCB& taken) { taken.fNull = TRUE; }, "mode that passes bytes unchanged.");
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, true));
    drop(
        params, [](DCB& taken) { taken.fOutxCtsFlow = FALSE; }, "flow control by RTS and CTS. It was to be on");
    drop(
        params, [](DCB& taken) { taken.fRtsControl = RTS_CONTROL_ENABLE; }, "flow control by RTS and CTS.");
    drop(
        params, [](DCB& taken) { taken.fInX = FALSE; }, "flow control by XON and XOFF. It was to be on");
}

TEST(windows_serial_line, what_the_driver_refuses_is_an_error) {
    fake_line line;
    line.refuses = ERROR_INVALID_PARAMETER;
    const DCB before = line.settings;
    EXPECT_FALSE(qor::serial::set_line(line, "COM7", basics(12345, 7, 4, qorSerialParity::even)));
    EXPECT_NE(last_error().find("its driver has refused 12345 7E2: "), std::string::npos) << last_error();
    EXPECT_EQ(std::memcmp(&before, &line.settings, sizeof before), 0);
    EXPECT_EQ(line.limits.ReadIntervalTimeout, 1u);
}

TEST(windows_serial_line, drives_a_bus) {
    fake_line line;
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true}));
    ASSERT_TRUE(qor::serial::set_line(line, "COM7", params));
    EXPECT_EQ(line.settings.fRtsControl, DWORD{RTS_CONTROL_TOGGLE});
    EXPECT_TRUE(qor::serial::rs485_of(line.settings).enabled);
    ASSERT_TRUE(qorSetParams_RS485(params, {}));
    ASSERT_TRUE(qor::serial::set_line(line, "COM7", params));
    EXPECT_EQ(line.settings.fRtsControl, DWORD{RTS_CONTROL_ENABLE});
    for (const qorSerialRS485& more : {qorSerialRS485{true, false}, qorSerialRS485{true, true, true},
                                       qorSerialRS485{true, true, false, 1}, qorSerialRS485{true, true, false, 0, 1}}) {
        ASSERT_TRUE(qorSetParams_RS485(params, more));
        expect_not_set(line, params, "The driver of the serial port 'COM7' cannot drive an RS-485 bus in this way: ");
    }
}

TEST(windows_serial_line, is_restored_as_it_was_found) {
    fake_line line;
    const fake_line before;
    qor::serial::found_line found;
    ASSERT_EQ(qor::serial::find_line(line, found), 0);
    ASSERT_TRUE(qor::serial::set_line(line, "COM7", basics(31250, 7)));
    qor::serial::restore_line(line, found);
    EXPECT_EQ(std::memcmp(&line.settings, &before.settings, sizeof before.settings), 0);
    EXPECT_EQ(std::memcmp(&line.limits, &before.limits, sizeof before.limits), 0);
}
