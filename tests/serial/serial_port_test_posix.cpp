// Open ports, on pseudo-terminals, because a host need not have a UART.
#include "fake_host.h"
#include "pseudo_terminal.h"
#include "serial/lock_files.h"
#include "support/temp_folder.h"

#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using qor::test::last_error;
using qor::test::pseudo_terminal;

zetSmartPointer<IQORSerialPort> open_port(const std::string& name) {
    zetSmartPointer<IQORSerialPort> port;
    EXPECT_TRUE(qorOpenSerialPort(name.c_str(), port.Out())) << last_error();
    return port;
}

void expect_refused(const std::string& name, const std::string& reason) {
    IQORSerialPort* port = nullptr;
    EXPECT_FALSE(qorOpenSerialPort(name.c_str(), &port));
    EXPECT_EQ(port, nullptr);
    EXPECT_EQ(last_error(), reason);
}

std::string name_of(IQORSerialPort& port) {
    qorString name;
    EXPECT_TRUE(port.GetPortName(name));
    return name.Text();
}

std::string read_all(IQORSerialPort& port, uint32 size, uint32 milliseconds) {
    std::string text(size, '\0');
    uint32 count = 0;
    EXPECT_TRUE(port.Read(text.data(), size, milliseconds, count)) << last_error();
    text.resize(count);
    return text;
}

constexpr uint32 long_enough = 60000;

} // namespace

TEST(posix_serial_port, is_named_by_path_by_link_and_below_dev) {
    const pseudo_terminal terminal;
    const qor::test::temp_folder folder;
    std::filesystem::create_symlink(terminal.name(), folder / "link");
    const std::string plain = terminal.name().substr(5);
    for (const std::string& name : {terminal.name(), plain, folder / "link"}) {
        const auto port = open_port(name);
        EXPECT_EQ(name_of(**port), plain);
        qorString location;
        EXPECT_TRUE(port->GetLocation(location));
        EXPECT_STREQ(location, "pseudo-terminal");
        EXPECT_TRUE(qorGetSerialPortLocation(name.c_str(), location));
        EXPECT_STREQ(location, "pseudo-terminal");
    }
}

TEST(posix_serial_port, changes_no_setting) {
    pseudo_terminal terminal;
    terminal.set([](termios& odd) {
        odd.c_cflag = CS7 | PARENB | PARODD | CSTOPB | CREAD | CLOCAL;
        odd.c_iflag = IXON | IGNBRK;
        odd.c_lflag = ICANON | ECHO;
        odd.c_cc[VMIN] = 7;
        odd.c_cc[VTIME] = 9;
        cfsetspeed(&odd, B4800);
    });
    const termios before = terminal.settings();
    const int flags = fcntl(terminal.own(), F_GETFL);
    {
        const auto port = open_port(terminal.name());
        const termios during = terminal.settings();
        EXPECT_EQ(std::memcmp(&before, &during, sizeof before), 0);
    }
    const termios after = terminal.settings();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(fcntl(terminal.own(), F_GETFL), flags);
    int exclusive = -1;
    EXPECT_EQ(ioctl(terminal.own(), TIOCGEXCL, &exclusive), 0);
    EXPECT_EQ(exclusive, 0);
}

TEST(posix_serial_port, tells_its_settings) {
    pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    qorSerialSettings settings{};
    const auto check = [&](tcflag_t control, speed_t speed, uint32 bits, uint8 stop, qorSerialParity parity) {
        terminal.set([&](termios& now) {
            now.c_cflag = control | CREAD;
            cfsetspeed(&now, speed);
        });
        EXPECT_TRUE(port->GetSettings(settings)) << last_error();
        EXPECT_EQ(settings.bits_per_second, bits);
        EXPECT_EQ(settings.half_stop_bits, stop);
        EXPECT_EQ(settings.parity, parity);
        EXPECT_EQ(settings.rts_cts, (control & CRTSCTS) != 0);
    };
    // A pseudo-terminal itself accepts only 8 bits without parity.
    check(CS8, B115200, 115200, 2, qorSerialParity::none);
    EXPECT_EQ(settings.data_bits, 8);
    EXPECT_FALSE(settings.xon_xoff);
    check(CS8 | CRTSCTS | CSTOPB, B4000000, 4000000, 4, qorSerialParity::none);
    check(CS8, B0, 0, 2, qorSerialParity::none);
    terminal.set([](termios& now) { now.c_iflag = IXOFF; });
    EXPECT_TRUE(port->GetSettings(settings));
    EXPECT_TRUE(settings.xon_xoff);
}

TEST(posix_serial_port, carries_bytes_both_ways) {
    const pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    const std::string bytes("\0\r\n\x11\x13\xff", 6);
    uint32 count = 0;
    EXPECT_TRUE(port->Write(bytes.data(), 6, long_enough, count)) << last_error();
    EXPECT_EQ(count, 6u);
    EXPECT_TRUE(port->Flush()) << last_error();
    EXPECT_EQ(terminal.receive(), bytes);
    terminal.send(bytes);
    EXPECT_EQ(read_all(**port, 4, long_enough), bytes.substr(0, 4));
    uint32 received = 0;
    uint32 unsent = 9;
    EXPECT_TRUE(port->GetWaiting(received, unsent)) << last_error();
    EXPECT_EQ(received, 2u);
    EXPECT_EQ(unsent, 0u);
    EXPECT_EQ(read_all(**port, 100, long_enough), bytes.substr(4));
    EXPECT_EQ(read_all(**port, 100, 0), "");
    EXPECT_EQ(read_all(**port, 0, long_enough), "");
}

TEST(posix_serial_port, writes_no_more_than_the_other_end_takes) {
    const pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    const std::string much(1 << 20, 'x');
    uint32 count = 0;
    EXPECT_TRUE(port->Write(much.data(), 1 << 20, 20, count)) << last_error();
    EXPECT_GT(count, 0u);
    EXPECT_LT(count, 1u << 20);
}

TEST(posix_serial_port, forgets_what_has_come) {
    const pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    terminal.send("forgotten");
    EXPECT_EQ(read_all(**port, 1, long_enough), "f");
    EXPECT_TRUE(port->Discard(false, false)) << last_error();
    EXPECT_EQ(read_all(**port, 1, long_enough), "o");
    EXPECT_TRUE(port->Discard(true, false)) << last_error();
    EXPECT_TRUE(port->Discard(true, true)) << last_error();
    EXPECT_EQ(read_all(**port, 100, 0), "");
}

TEST(posix_serial_port, a_pseudo_terminal_has_no_modem_lines) {
    const pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    uint32 lines = 0;
    EXPECT_FALSE(port->GetModemLines(lines));
    EXPECT_EQ(last_error(), "The serial port '" + name_of(**port) + "' failed: Inappropriate ioctl for device.");
}

TEST(posix_serial_port, that_is_unplugged_fails) {
    pseudo_terminal terminal;
    const auto port = open_port(terminal.name());
    terminal.unplug();
    char byte;
    uint32 count = 1;
    EXPECT_FALSE(port->Read(&byte, 1, long_enough, count));
    EXPECT_EQ(last_error(), "The serial port '" + name_of(**port) + "' failed: Input/output error.");
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(port->Write("x", 1, long_enough, count));
    qorString location;
    EXPECT_TRUE(port->GetLocation(location));
    EXPECT_STREQ(location, "pseudo-terminal");
}

TEST(posix_serial_port, is_in_use_while_it_is_open) {
    const pseudo_terminal terminal;
    const std::string busy = "The serial port '" + terminal.name() + "' is in use.";
    {
        const auto port = open_port(terminal.name());
        expect_refused(terminal.name(), busy);
    }
    open_port(terminal.name());
    ASSERT_EQ(flock(terminal.own(), LOCK_SH), 0); // as another program would
    expect_refused(terminal.name(), busy);
    ASSERT_EQ(flock(terminal.own(), LOCK_UN), 0);
    // The kernel does not exclude root.
    ASSERT_EQ(ioctl(terminal.own(), TIOCEXCL), 0);
    expect_refused(terminal.name(), busy);
    ASSERT_EQ(ioctl(terminal.own(), TIOCNXCL), 0);
    open_port(terminal.name());
}

TEST(posix_serial_port, is_not_what_is_no_terminal) {
    const qor::test::temp_folder folder;
    std::filesystem::create_symlink("itself", folder / "itself");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const std::string& name : {folder.file("file", "text"), folder.path(), folder / "pipe",
                                    std::string("/dev/null"), std::string("null"), std::string("/dev/tty")})
        expect_refused(name, "'" + name + "' is not a serial port.");
    expect_refused(folder / "missing", "There is no serial port '" + (folder / "missing") + "'.");
    expect_refused(folder / "file/below", "There is no serial port '" + (folder / "file/below") + "'.");
    expect_refused(folder / "itself",
                   "The serial port '" + (folder / "itself") + "' failed: Too many levels of symbolic links.");
}

// ---- lock files

TEST(serial_lock_files, of_processes_that_live_lock_the_port) {
    const qor::test::fake_host host;
    const std::string own = std::to_string(getpid());
    const int plain = getpid();
    const std::string binary(reinterpret_cast<const char*>(&plain), sizeof plain);
    for (const std::string& text : {"      " + own + "\n", own, own + " minicom root\n", binary}) {
        host.folder().file("lock/LCK..ttyUSB0", text);
        int holder = 0;
        std::string file;
        EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyUSB0", makedev(188, 0), holder, file),
                  qor::serial::lock::process)
            << text;
        EXPECT_EQ(holder, getpid());
        EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyUSB1", makedev(188, 1), holder, file), qor::serial::lock::none);
    }
}

// Binary numbers whose bytes are also digits or blanks, and texts as long as a number.
TEST(serial_lock_files, numbers_that_look_like_texts) {
    const qor::test::fake_host host;
    const auto holder_in = [&](std::string_view bytes) {
        host.folder().file("lock/LCK..ttyUSB0", bytes);
        int holder = 0;
        std::string file;
        qor::serial::find_lock(host.on(), "ttyUSB0", makedev(188, 0), holder, file);
        return holder;
    };
    constexpr int numbers[] = {
        '5', '0' << 8 | '1', ' ' << 8 | '9', '7' << 8 | '\n', '1' << 16 | '2' << 8 | '3', (1 << 22) - 1};
    for (const int plain : numbers)
        EXPECT_EQ(holder_in({reinterpret_cast<const char*>(&plain), sizeof plain}), plain);
    EXPECT_EQ(holder_in("1234"), 1234);
    EXPECT_EQ(holder_in("123\n"), 123);
    EXPECT_EQ(holder_in("  12"), 12);
}

TEST(serial_lock_files, by_the_number_of_the_device) {
    const qor::test::fake_host host;
    host.folder().file("lock/LCK.004.064", std::to_string(getpid()));
    int holder = 0;
    std::string file;
    EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyS0", makedev(4, 64), holder, file), qor::serial::lock::process);
    EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyS1", makedev(4, 65), holder, file), qor::serial::lock::none);
}

TEST(serial_lock_files, without_a_number_lock_for_somebody) {
    const qor::test::fake_host host;
    for (const char* const text : {"", "somebody", "0", "-1"}) {
        host.folder().file("lock/LCK..ttyUSB0", text);
        int holder = 0;
        std::string file;
        EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyUSB0", makedev(188, 0), holder, file),
                  qor::serial::lock::somebody)
            << text;
    }
}

TEST(serial_lock_files, of_processes_that_are_gone_lock_nothing) {
    const qor::test::fake_host host;
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    host.folder().file("lock/LCK..ttyUSB0", std::to_string(gone));
    int holder = 0;
    std::string file;
    EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyUSB0", makedev(188, 0), holder, file), qor::serial::lock::none);
}
