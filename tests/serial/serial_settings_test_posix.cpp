// Settings and time limits of open ports, on pseudo-terminals, whose driver drops parity and the number of data bits.
#include "pseudo_terminal.h"

#include "qor/qor.h"
#include "support/last_error.h"

#include <sys/ioctl.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace {

using qor::test::last_error;
using qor::test::pseudo_terminal;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32 long_enough = 60000;

zetSmartPointer<IQORSerialPort> open_with(const pseudo_terminal& terminal, const qorSerialParams& params,
                                          qorSerialClosing closing = qorSerialClosing::keep) {
    zetSmartPointer<IQORSerialPort> port;
    EXPECT_TRUE(qorOpenSerialPortEx(terminal.name().c_str(), params, closing, port.Out())) << last_error();
    return port;
}

qorSerialParams basics(uint32 rate, uint8 data_bits = 8, uint8 half_stop_bits = 2,
                       qorSerialParity parity = qorSerialParity::none) {
    qorSerialParams params;
    EXPECT_TRUE(qorSetParams_Basics(params, rate, data_bits, half_stop_bits, parity)) << last_error();
    return params;
}

qorSerialParams limits(const qorSerialTimeouts& timeouts) {
    qorSerialParams params;
    EXPECT_TRUE(qorSetParams_Timeouts(params, timeouts));
    return params;
}

bool is_exclusive(const pseudo_terminal& terminal) {
    int exclusive = -1;
    EXPECT_EQ(ioctl(terminal.own(), TIOCGEXCL, &exclusive), 0);
    return exclusive != 0;
}

bool is_same(const termios& left, const termios& right) { return std::memcmp(&left, &right, sizeof left) == 0; }

} // namespace

TEST(posix_serial_settings, are_set_and_told) {
    pseudo_terminal terminal;
    terminal.set([](termios& now) {
        now.c_lflag = ICANON | ECHO | ISIG;
        now.c_iflag = ICRNL;
        now.c_oflag = OPOST | ONLCR;
    });
    qorSerialParams params = basics(57600, 8, 4);
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, true));
    const auto port = open_with(terminal, params);
    qorSerialSettings got{};
    ASSERT_TRUE(port->GetSettings(got));
    EXPECT_EQ(got.bits_per_second, 57600u);
    EXPECT_EQ(got.half_stop_bits, 4);
    EXPECT_TRUE(got.rts_cts);
    EXPECT_TRUE(got.xon_xoff);
    const termios now = terminal.settings();
    EXPECT_EQ(cfgetospeed(&now), speed_t{B57600});
    EXPECT_EQ(now.c_lflag, 0u);
    EXPECT_EQ(now.c_iflag, tcflag_t{IXON | IXOFF});
    EXPECT_EQ(now.c_oflag & OPOST, 0u);
    for (const uint32 rate : {1u, 31250u, 250000u, 12000000u}) {
        ASSERT_TRUE(port->SetParams(basics(rate))) << last_error();
        ASSERT_TRUE(port->GetSettings(got));
        EXPECT_EQ(got.bits_per_second, rate);
        EXPECT_TRUE(got.rts_cts); // of the group that was left out
    }
}

TEST(posix_serial_settings, that_are_not_taken_change_nothing) {
    pseudo_terminal terminal;
    const std::string head =
        "The serial port '" + terminal.name().substr(5) + "' was not set: its driver did not take the ";
    const termios before = terminal.settings();
    const auto refused = [&](const qorSerialParams& params, const std::string& what) {
        IQORSerialPort* port = nullptr;
        EXPECT_FALSE(qorOpenSerialPortEx(terminal.name().c_str(), params, qorSerialClosing::keep, &port));
        EXPECT_EQ(last_error(), head + what);
        EXPECT_EQ(port, nullptr);
        EXPECT_TRUE(is_same(terminal.settings(), before));
        EXPECT_FALSE(is_exclusive(terminal));
    };
    refused(basics(300, 7), "number of data bits. It was to be 7, and became 8.");
    refused(basics(300, 5, 3), "number of data bits. It was to be 5, and became 8.");
    refused(basics(300, 8, 2, qorSerialParity::even), "parity. It was to be even, and became none.");
    refused(basics(300, 8, 2, qorSerialParity::space), "parity. It was to be space, and became none.");
    const auto port = open_with(terminal, basics(1200));
    EXPECT_FALSE(port->SetParams(basics(300, 7)));
    EXPECT_EQ(last_error(), head + "number of data bits. It was to be 7, and became 8.");
    qorSerialSettings got{};
    ASSERT_TRUE(port->GetSettings(got));
    EXPECT_EQ(got.bits_per_second, 1200u);
}

TEST(posix_serial_settings, are_kept_or_restored_at_the_end) {
    pseudo_terminal terminal;
    terminal.set([](termios& odd) {
        odd.c_iflag = IXON | IGNBRK;
        odd.c_lflag = ICANON | ECHO;
        odd.c_cc[VMIN] = 7;
        odd.c_cc[VTIME] = 9;
        cfsetspeed(&odd, B4800);
    });
    const termios before = terminal.settings();
    {
        const auto port = open_with(terminal, basics(31250), qorSerialClosing::restore);
        ASSERT_TRUE(port->SetParams(basics(115200, 8, 4)));
        EXPECT_FALSE(is_same(terminal.settings(), before));
    }
    EXPECT_TRUE(is_same(terminal.settings(), before));
    open_with(terminal, basics(115200));
    const termios kept = terminal.settings();
    EXPECT_EQ(cfgetospeed(&kept), speed_t{B115200});
    EXPECT_EQ(kept.c_lflag, 0u);
}

TEST(posix_serial_settings, belong_to_one_program) {
    const pseudo_terminal terminal;
    {
        const auto port = open_with(terminal, {});
        EXPECT_TRUE(is_exclusive(terminal));
        IQORSerialPort* second = nullptr;
        EXPECT_FALSE(qorOpenSerialPortEx(terminal.name().c_str(), {}, qorSerialClosing::keep, &second));
        EXPECT_EQ(last_error(), "The serial port '" + terminal.name() + "' is in use.");
        EXPECT_FALSE(qorOpenSerialPort(terminal.name().c_str(), &second));
        EXPECT_EQ(second, nullptr);
        if (geteuid() != 0) {
            EXPECT_EQ(open(terminal.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), -1);
            EXPECT_EQ(errno, EBUSY);
        }
    }
    EXPECT_FALSE(is_exclusive(terminal));
    open_with(terminal, {});
}

TEST(posix_serial_settings, without_a_bus) {
    const pseudo_terminal terminal;
    const std::string reason = "The driver of the serial port '" + terminal.name().substr(5) +
                               "' cannot drive an RS-485 bus in this way: Inappropriate ioctl for device.";
    qorSerialParams params = basics(300);
    const auto port = open_with(terminal, {});
    qorSerialRS485 got;
    EXPECT_FALSE(port->GetRS485(got));
    EXPECT_EQ(last_error(), reason);
    const termios before = terminal.settings();
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true}));
    EXPECT_FALSE(port->SetParams(params));
    EXPECT_EQ(last_error(), reason);
    EXPECT_TRUE(is_same(terminal.settings(), before));
}

TEST(posix_serial_settings, lines_that_a_port_does_not_drive) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, {});
    EXPECT_TRUE(port->SetModemLines(0, true));
    EXPECT_FALSE(port->SetModemLines(qorSerialCTS | qorSerialDTR, true));
    EXPECT_EQ(last_error(), "IQORSerialPort::SetModemLines was called with an invalid argument: lines that a port does "
                            "not drive.");
    EXPECT_FALSE(port->SetModemLines(qorSerialDTR, true));
    EXPECT_EQ(last_error(),
              "The serial port '" + terminal.name().substr(5) + "' failed: Inappropriate ioctl for device.");
}

TEST(posix_serial_settings, the_gap_between_bytes_ends_a_reading) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, limits({.read_gap = 50}));
    terminal.send("abc");
    char bytes[10];
    uint32 count = 0;
    ASSERT_TRUE(port->ReadAll(bytes, sizeof bytes, count)) << last_error();
    EXPECT_EQ(std::string_view(bytes, count), "abc");
    // The first byte may take any time; a gap begins with each byte.
    std::thread sender([&] {
        std::this_thread::sleep_for(milliseconds(200));
        terminal.send("de");
    });
    ASSERT_TRUE(port->ReadAll(bytes, 2, count)) << last_error();
    EXPECT_EQ(std::string_view(bytes, count), "de");
    sender.join();
    ASSERT_TRUE(port->ReadAll(bytes, 0, count));
    EXPECT_EQ(count, 0u);
}

TEST(posix_serial_settings, the_whole_time_ends_a_reading) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, limits({.read_total = 100}));
    terminal.send("abc");
    char bytes[10];
    uint32 count = 9;
    const auto begin = steady_clock::now();
    ASSERT_TRUE(port->ReadAll(bytes, sizeof bytes, count)) << last_error();
    EXPECT_EQ(std::string_view(bytes, count), "abc");
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    ASSERT_TRUE(port->SetParams(limits({.read_total = 0})));
    ASSERT_TRUE(port->ReadAll(bytes, sizeof bytes, count));
    EXPECT_EQ(count, 0u);
    terminal.send("xy");
    ASSERT_TRUE(port->Read(bytes, 1, long_enough, count)); // both are there
    ASSERT_TRUE(port->ReadAll(bytes, sizeof bytes, count));
    EXPECT_EQ(std::string_view(bytes, count), "y");
}

TEST(posix_serial_settings, a_reading_goes_on_until_all_has_come) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, {});
    std::thread sender([&] {
        for (const char* const part : {"ab", "c", "def"}) {
            terminal.send(part);
            std::this_thread::sleep_for(milliseconds(20));
        }
    });
    char bytes[6];
    uint32 count = 0;
    ASSERT_TRUE(port->ReadAll(bytes, sizeof bytes, count)) << last_error();
    EXPECT_EQ(std::string_view(bytes, count), "abcdef");
    sender.join();
}

TEST(posix_serial_settings, the_whole_time_ends_a_writing) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, limits({.write_total = 50}));
    const std::string much(1 << 20, 'x');
    uint32 count = 0;
    ASSERT_TRUE(port->WriteAll(much.data(), 1 << 20, count)) << last_error();
    EXPECT_GT(count, 0u);
    EXPECT_LT(count, 1u << 20);
    EXPECT_FALSE(port->WriteAll(much));
    EXPECT_EQ(last_error(), "The operation timed out.");
    EXPECT_TRUE(port->Discard(true, true));
    EXPECT_TRUE(port->WriteAll(""));
}

TEST(posix_serial_settings, a_writing_goes_on_until_all_is_taken) {
    const pseudo_terminal terminal;
    const auto port = open_with(terminal, {});
    const std::string much(1 << 18, 'x');
    std::size_t received = 0;
    std::thread receiver([&] {
        while (received < much.size())
            received += terminal.receive().size();
    });
    EXPECT_TRUE(port->WriteAll(much)) << last_error();
    receiver.join();
    EXPECT_EQ(received, much.size());
}

TEST(posix_serial_settings, an_end_that_hangs_up_during_a_reading) {
    pseudo_terminal terminal;
    const auto port = open_with(terminal, {}, qorSerialClosing::restore);
    std::thread other([&] {
        terminal.send("abc");
        std::this_thread::sleep_for(milliseconds(100));
        terminal.unplug();
    });
    char bytes[10];
    uint32 count = 0;
    EXPECT_FALSE(port->ReadAll(bytes, sizeof bytes, count));
    EXPECT_EQ(last_error(), "The serial port '" + terminal.name().substr(5) + "' failed: Input/output error.");
    EXPECT_LE(count, 3u);
    other.join();
    EXPECT_FALSE(port->WriteAll("x"));
    EXPECT_FALSE(port->SetParams(basics(300)));
    qorSerialSettings settings{};
    EXPECT_FALSE(port->GetSettings(settings));
}
