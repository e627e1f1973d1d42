// Settings in the kernel's form, with a driver of the test that takes what it is told to take.
#include "serial/line_posix.h"

#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using qor::test::last_error;

// A line that keeps what it is set to, as far as `takes` lets it.
class fake_line final : public qor::serial::line_driver {
public:
    struct termios2 settings {};
    struct serial_rs485 mode {};
    std::function<void(struct termios2&)> takes = [](struct termios2&) {};
    std::function<void(struct serial_rs485&)> takes_mode = [](struct serial_rs485&) {};
    int refuses = 0;       // code of set
    int refuses_mode = 0;  // the same for the bus
    int has_no_mode = 0;   // code of both for the bus
    int fails_reading = 0; // fails from the n-th reading of the settings on
    int readings = 0;
    std::vector<std::string> calls;

    fake_line() {
        settings.c_cflag = B9600 | CS8 | CREAD | HUPCL;
        settings.c_ospeed = settings.c_ispeed = 9600;
        settings.c_iflag = ICRNL | IXON | IXANY;
        settings.c_oflag = OPOST | ONLCR;
        settings.c_lflag = ICANON | ECHO | ISIG;
        settings.c_cc[VMIN] = 7;
        mode.flags = SER_RS485_TERMINATE_BUS;
    }

    int get(struct termios2& out) noexcept override {
        calls.push_back("get");
        out = settings;
        return fails_reading != 0 && ++readings >= fails_reading ? EIO : 0;
    }
    int set(const struct termios2& wanted) noexcept override {
        calls.push_back("set");
        if (refuses != 0)
            return refuses;
        settings = wanted;
        takes(settings);
        return 0;
    }
    int get(struct serial_rs485& out) noexcept override {
        calls.push_back("get bus");
        out = mode;
        return has_no_mode;
    }
    int set(const struct serial_rs485& wanted) noexcept override {
        calls.push_back("set bus");
        if (has_no_mode != 0 || refuses_mode != 0)
            return has_no_mode != 0 ? has_no_mode : refuses_mode;
        mode = wanted;
        takes_mode(mode);
        return 0;
    }
};

bool is_same(const struct termios2& left, const struct termios2& right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

qorSerialParams basics(uint32 rate, uint8 data_bits = 8, uint8 half_stop_bits = 2,
                       qorSerialParity parity = qorSerialParity::none) {
    qorSerialParams params;
    EXPECT_TRUE(qorSetParams_Basics(params, rate, data_bits, half_stop_bits, parity));
    return params;
}

void expect_not_set(fake_line& line, const qorSerialParams& params, const std::string& reason) {
    const struct termios2 before = line.settings;
    const struct serial_rs485 mode = line.mode;
    EXPECT_FALSE(qor::serial::set_line(line, "tty", params));
    EXPECT_EQ(last_error(), reason);
    EXPECT_TRUE(is_same(before, line.settings)) << reason;
    EXPECT_EQ(std::memcmp(&mode, &line.mode, sizeof mode), 0) << reason;
}

} // namespace

TEST(serial_line, every_form_of_characters) {
    const struct {
        qorSerialParity parity;
        tcflag_t bits;
    } parities[] = {{qorSerialParity::none, 0},
                    {qorSerialParity::odd, PARENB | PARODD},
                    {qorSerialParity::even, PARENB},
                    {qorSerialParity::mark, PARENB | PARODD | CMSPAR},
                    {qorSerialParity::space, PARENB | CMSPAR}};
    constexpr tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    for (uint8 data_bits = 5; data_bits <= 8; ++data_bits)
        for (const bool is_longer : {false, true})
            for (const auto& parity : parities) {
                const uint8 stop = !is_longer ? 2 : data_bits == 5 ? 3 : 4;
                fake_line line;
                line.settings.c_cflag |= PARENB | PARODD | CMSPAR | CSTOPB | (CBAUD & B300);
                ASSERT_TRUE(qor::serial::set_line(line, "tty", basics(19200, data_bits, stop, parity.parity)));
                EXPECT_EQ(line.settings.c_cflag, B19200 | CREAD | CLOCAL | HUPCL | sizes[data_bits - 5] | parity.bits |
                                                     (is_longer ? tcflag_t{CSTOPB} : 0));
                const qorSerialSettings got = qor::serial::settings_of(line.settings);
                EXPECT_EQ(got.data_bits, data_bits);
                EXPECT_EQ(got.half_stop_bits, stop);
                EXPECT_EQ(got.parity, parity.parity);
                EXPECT_EQ(got.bits_per_second, 19200u);
            }
}

TEST(serial_line, passes_bytes_unchanged) {
    fake_line line;
    ASSERT_TRUE(qor::serial::set_line(line, "tty", basics(9600)));
    EXPECT_EQ(line.settings.c_iflag, tcflag_t{IXON | IXANY}); // of the other group
    EXPECT_EQ(line.settings.c_oflag, tcflag_t{ONLCR});        // means nothing without OPOST
    EXPECT_EQ(line.settings.c_lflag, 0u);
    EXPECT_EQ(line.settings.c_cc[VMIN], 1);
    EXPECT_EQ(line.settings.c_cc[VTIME], 0);
}

TEST(serial_line, rates_with_and_without_a_number) {
    const struct {
        uint32 rate;
        tcflag_t code;
    } rates[] = {{50, B50},         {134, B134},      {115200, B115200},    {4000000, B4000000},
                 {250000, BOTHER},  {31250, BOTHER},  {1, BOTHER},          {12000000, BOTHER},
                 {921600, B921600}, {921601, BOTHER}, {4294967295u, BOTHER}};
    for (const auto& each : rates) {
        fake_line line;
        line.settings.c_cflag |= B300 << IBSHIFT;
        ASSERT_TRUE(qor::serial::set_line(line, "tty", basics(each.rate))) << last_error();
        EXPECT_EQ(line.settings.c_cflag & (CBAUD | CIBAUD), each.code) << each.rate;
        EXPECT_EQ(line.settings.c_ospeed, each.rate);
        EXPECT_EQ(line.settings.c_ispeed, each.rate);
    }
}

TEST(serial_line, flow_control_alone) {
    for (const bool rts_cts : {false, true})
        for (const bool xon_xoff : {false, true}) {
            fake_line line;
            line.settings.c_cflag |= CRTSCTS;
            const struct termios2 before = line.settings;
            qorSerialParams params;
            ASSERT_TRUE(qorSetParams_FlowControl(params, rts_cts, xon_xoff));
            ASSERT_TRUE(qor::serial::set_line(line, "tty", params));
            EXPECT_EQ((line.settings.c_cflag & CRTSCTS) != 0, rts_cts);
            EXPECT_EQ(line.settings.c_iflag, ICRNL | (xon_xoff ? tcflag_t{IXON | IXOFF} : 0));
            EXPECT_EQ(line.settings.c_lflag, before.c_lflag);
            EXPECT_EQ(line.settings.c_ospeed, before.c_ospeed);
            if (xon_xoff) {
                EXPECT_EQ(line.settings.c_cc[VSTART], 0x11);
                EXPECT_EQ(line.settings.c_cc[VSTOP], 0x13);
            }
        }
}

TEST(serial_line, what_was_not_asked_for_is_not_set) {
    fake_line line;
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_Timeouts(params, {.read_total = 5}));
    ASSERT_TRUE(qor::serial::set_line(line, "tty", params));
    EXPECT_EQ(line.calls, (std::vector<std::string>{"get bus", "get"}));
}

TEST(serial_line, what_the_driver_drops_is_an_error) {
    const std::string head = "The serial port 'tty' was not set: its driver did not take the ";
    const auto drop = [&](const qorSerialParams& params, tcflag_t control, tcflag_t input, const std::string& what) {
        fake_line line;
        int sets = 0;
        line.takes = [&](struct termios2& taken) {
            if (++sets > 1)
                return; // the line is being restored
            taken.c_cflag &= ~control;
            taken.c_iflag &= ~input;
        };
        line.settings.c_iflag = 0;
        expect_not_set(line, params, head + what);
    };
    drop(basics(9600, 8, 2, qorSerialParity::mark), CMSPAR, 0, "parity. It was to be mark, and became odd.");
    drop(basics(9600, 8, 2, qorSerialParity::space), CMSPAR, 0, "parity. It was to be space, and became even.");
    drop(basics(9600, 8, 2, qorSerialParity::odd), PARENB, 0, "parity. It was to be odd, and became none.");
    drop(basics(9600, 8, 4), CSTOPB, 0, "number of stop bits. It was to be 2, and became 1.");
    drop(basics(9600, 5, 3), CSTOPB, 0, "number of stop bits. It was to be 1.5, and became 1.");
    drop(basics(9600, 8), CSIZE, 0, "number of data bits. It was to be 8, and became 5.");
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, true));
    drop(params, CRTSCTS, 0, "flow control by RTS and CTS. It was to be on, and became off.");
    drop(params, 0, IXOFF, "flow control by XON and XOFF. It was to be on, and became off."); // one direction
    drop(params, 0, IXON | IXOFF, "flow control by XON and XOFF. It was to be on, and became off.");
    // A line that stays in line mode.
    fake_line line;
    line.takes = [&](struct termios2& taken) { taken.c_lflag |= ICANON | ECHO | ISIG; };
    expect_not_set(line, basics(9600), head + "mode that passes bytes unchanged. It was to be on, and became off.");
    // A rate that the clock does not give.
    line.takes = [&](struct termios2& taken) { taken.c_ospeed = taken.c_ospeed == 9600 ? 9600 : 115200; };
    line.settings.c_lflag = 0;
    expect_not_set(line, basics(250000), head + "bit rate. It was to be 250000, and became 115200.");
}

TEST(serial_line, what_the_driver_refuses_is_an_error) {
    fake_line line;
    line.refuses = EINVAL;
    expect_not_set(line, basics(12345, 7, 4, qorSerialParity::even),
                   "The serial port 'tty' was not set: its driver has refused 12345 7E2: Invalid argument.");
    qorSerialParams params;
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, false));
    expect_not_set(line, params, "The serial port 'tty' failed: Invalid argument.");
}

TEST(serial_line, a_line_that_is_gone) {
    for (const int at : {1, 2}) { // before it is set, and afterwards
        fake_line line;
        line.fails_reading = at;
        expect_not_set(line, basics(300), "The serial port 'tty' failed: Input/output error.");
        EXPECT_EQ(std::count(line.calls.begin(), line.calls.end(), "set"), at == 1 ? 0 : 2);
    }
}

TEST(serial_line, drives_a_bus) {
    for (const bool rts : {false, true})
        for (const bool hears : {false, true}) {
            fake_line line;
            line.mode.flags |= SER_RS485_RTS_ON_SEND | SER_RS485_RTS_AFTER_SEND;
            qorSerialParams params;
            ASSERT_TRUE(qorSetParams_RS485(params, {true, rts, hears, 3, 1000}));
            ASSERT_TRUE(qor::serial::set_line(line, "tty", params)) << last_error();
            EXPECT_EQ(line.mode.flags, SER_RS485_TERMINATE_BUS | SER_RS485_ENABLED |
                                           (rts ? SER_RS485_RTS_ON_SEND : SER_RS485_RTS_AFTER_SEND) |
                                           (hears ? SER_RS485_RX_DURING_TX : 0));
            EXPECT_EQ(line.mode.delay_rts_before_send, 3u);
            EXPECT_EQ(line.mode.delay_rts_after_send, 1000u);
            const qorSerialRS485 got = qor::serial::rs485_of(line.mode);
            EXPECT_TRUE(got.enabled);
            EXPECT_EQ(got.rts_while_sending, rts);
            EXPECT_EQ(got.hears_itself, hears);
            ASSERT_TRUE(qorSetParams_RS485(params, {}));
            ASSERT_TRUE(qor::serial::set_line(line, "tty", params));
            EXPECT_EQ(line.mode.flags, SER_RS485_TERMINATE_BUS);
        }
}

TEST(serial_line, a_driver_that_drives_no_bus) {
    fake_line line;
    line.has_no_mode = ENOTTY;
    qorSerialParams params = basics(300);
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true}));
    expect_not_set(
        line, params,
        "The driver of the serial port 'tty' cannot drive an RS-485 bus in this way: Inappropriate ioctl for "
        "device.");
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = false}));
    EXPECT_TRUE(qor::serial::set_line(line, "tty", params)) << last_error();
    EXPECT_EQ(line.settings.c_ospeed, 300u);
}

TEST(serial_line, a_bus_that_the_driver_drives_otherwise) {
    fake_line line;
    line.takes_mode = [](struct serial_rs485& taken) { taken.delay_rts_before_send = 0; };
    qorSerialParams params = basics(300);
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true, .delay_before = 7}));
    expect_not_set(line, params,
                   "The serial port 'tty' was not set: its driver did not take the RS-485 mode. It was to be RTS on, "
                   "hears others, 7 ms, 0 ms, and became RTS on, hears others, 0 ms, 0 ms.");
    line.refuses_mode = EINVAL;
    expect_not_set(line, params,
                   "The driver of the serial port 'tty' cannot drive an RS-485 bus in this way: Invalid argument.");
}

TEST(serial_line, is_restored_as_it_was_found) {
    fake_line line;
    const fake_line before;
    qor::serial::found_line found;
    ASSERT_EQ(qor::serial::find_line(line, found), 0);
    EXPECT_TRUE(found.has_rs485);
    qorSerialParams params = basics(31250, 7, 4, qorSerialParity::mark);
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true}));
    ASSERT_TRUE(qor::serial::set_line(line, "tty", params));
    qor::serial::restore_line(line, found);
    EXPECT_TRUE(is_same(line.settings, before.settings));
    EXPECT_EQ(line.mode.flags, before.mode.flags);
    // One without a bus is not told of one.
    line.has_no_mode = ENOTTY;
    ASSERT_EQ(qor::serial::find_line(line, found), 0);
    EXPECT_FALSE(found.has_rs485);
    line.calls.clear();
    qor::serial::restore_line(line, found);
    EXPECT_EQ(line.calls, std::vector<std::string>{"set"});
}
