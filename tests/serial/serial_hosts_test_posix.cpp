// The ports of a host and their locations, read from its files: hosts of many kinds, none of them this one.
#include "fake_host.h"

#include <gtest/gtest.h>

#include <sys/sysmacros.h>

namespace {

using qor::test::fake_host;
using names = std::vector<std::string>;

// The table of drivers of a PC with a Bluetooth adapter.
constexpr char drivers[] = "/dev/tty             /dev/tty        5       0 system:/dev/tty\n"
                           "/dev/console         /dev/console    5       1 system:console\n"
                           "/dev/vc/0            /dev/vc/0       4       0 system:vtmaster\n"
                           "rfcomm               /dev/rfcomm   216 0-255 serial\n"
                           "g_serial             /dev/ttyGS    245 0-7 serial\n"
                           "hvc                  /dev/hvc      229 0-7 system\n"
                           "serial               /dev/ttyS       4 64-95 serial\n"
                           "pty_slave            /dev/pts      136 0-1048575 pty:slave\n"
                           "ttyprintk            /dev/ttyprintk  5       3 console\n"
                           "oneport              /dev/ttyONE   250       7 serial\n"
                           "unknown              /dev/tty        4 1-63 console\n";

// Terminals that every Linux host has and that are not ports.
void add_consoles(fake_host& host) {
    std::ofstream(host.on().proc + "/tty/drivers") << drivers;
    host.terminal("virtual", "tty", "5:0");
    host.terminal("virtual", "console", "5:1", {{"active", "tty0"}});
    host.terminal("virtual", "tty0", "4:0", {{"active", "tty1"}});
    host.terminal("virtual", "tty1", "4:1");
    host.terminal("virtual", "tty63", "4:63");
    host.terminal("virtual", "ttyprintk", "5:3");
    host.terminal("virtual", "hvc0", "229:0");
    host.terminal("virtual", "ptmx", "5:2");
}

// Adds the 8250 driver's terminals without a port; `type` 0 means that no UART was found.
void add_ghosts(fake_host& host, int first, const char* type) {
    host.device("platform/serial8250", "platform");
    for (int i = first; i < 32; ++i)
        host.terminal("platform/serial8250", "ttyS" + std::to_string(i), ("4:" + std::to_string(64 + i)).c_str(),
                      {{"type", type}, {"port", i < 4 ? "0x2F8" : "0x0"}, {"uartclk", "1843200"}});
}

void add_ftdi(fake_host& host, const std::string& name, const char* number) {
    host.device("pci0000:00/0000:00:14.0", "pci");
    host.device("pci0000:00/0000:00:14.0/usb1", "usb", {{"busnum", "1"}, {"devpath", "0"}});
    host.device("pci0000:00/0000:00:14.0/usb1/1-2", "usb",
                {{"busnum", "1"}, {"devpath", "2"}, {"product", "USB2.0 Hub"}});
    const std::string device = "pci0000:00/0000:00:14.0/usb1/1-2/1-2.3";
    host.device(device, "usb",
                {{"busnum", "1"},
                 {"devpath", "2.3"},
                 {"manufacturer", "FTDI"},
                 {"product", "FT232R USB UART"},
                 {"serial", "A50285BI"},
                 {"idVendor", "0403"},
                 {"idProduct", "6001"}});
    host.device(device + "/1-2.3:1.0", "usb", {{"bInterfaceNumber", "00"}});
    host.device(device + "/1-2.3:1.0/" + name, "usb-serial", {{"port_number", "0"}});
    host.terminal(device + "/1-2.3:1.0/" + name, name, number);
}

} // namespace

TEST(serial_hosts, a_pc_has_one_port_and_31_ghosts) {
    fake_host host;
    add_consoles(host);
    host.device("pnp0/00:05", "pnp", {{"resources", "state = active\nio 0x3f8-0x3ff\nirq 4"}});
    host.terminal("pnp0/00:05", "ttyS0", "4:64", {{"type", "4"}, {"port", "0x3F8"}, {"iomem_base", "0x0"}});
    add_ghosts(host, 1, "0");
    EXPECT_EQ(host.ports(), names{"ttyS0 = motherboard UART at 0x3f8"});
}

TEST(serial_hosts, a_kernel_with_devices_between_the_port_and_its_bus) {
    fake_host host;
    add_consoles(host);
    host.device("pnp0/00:00", "pnp");
    host.device("pnp0/00:00/00:00:0", "serial-base");
    host.device("pnp0/00:00/00:00:0/00:00:0.0", "serial-base");
    host.terminal("pnp0/00:00/00:00:0/00:00:0.0", "ttyS0", "4:64", {{"type", "4"}, {"port", "0x3F8"}});
    EXPECT_EQ(host.ports(), names{"ttyS0 = motherboard UART at 0x3f8"});
}

// Some kernels show a UART's type only to root.
TEST(serial_hosts, a_pc_that_hides_its_uarts_from_users) {
    fake_host host;
    add_consoles(host);
    host.device("pnp0/00:05", "pnp", {{"resources", "state = active\nio 0x2f8-0x2ff\nirq 3"}});
    host.terminal("pnp0/00:05", "ttyS1", "4:65");
    host.device("pnp0/00:06", "pnp", {{"resources", "state = active"}});
    host.terminal("pnp0/00:06", "ttyS2", "4:66");
    add_ghosts(host, 3, "0");
    // Simulates files that only root can read, even if root runs this test: they exist but are empty.
    for (const auto& entry : std::filesystem::directory_iterator(host.on().sys + "/class/tty"))
        if (entry.path().filename().string().starts_with("ttyS"))
            for (const char* const attribute : {"type", "port"})
                std::ofstream(entry.path() / attribute, std::ios::trunc).flush();
    EXPECT_EQ(host.ports(), (names{"ttyS1 = motherboard UART at 0x2f8", "ttyS2 = motherboard UART"}));
    // A port that the kernel uses as its console exists, wherever it is connected.
    std::ofstream(host.on().sys + "/class/tty/console/active") << "tty0 ttyS3\n";
    EXPECT_EQ(host.ports(),
              (names{"ttyS1 = motherboard UART at 0x2f8", "ttyS2 = motherboard UART", "ttyS3 = motherboard UART"}));
}

TEST(serial_hosts, an_old_uart_that_plug_and_play_does_not_know) {
    fake_host host;
    add_consoles(host);
    host.device("platform/serial8250", "platform");
    host.terminal("platform/serial8250", "ttyS1", "4:65", {{"type", "4"}, {"port", "0x2F8"}});
    EXPECT_EQ(host.ports(), names{"ttyS1 = motherboard UART at 0x2f8"});
}

TEST(serial_hosts, a_uart_in_memory) {
    fake_host host;
    host.device("pnp0/00:07", "pnp");
    host.terminal("pnp0/00:07", "ttyS4", "4:68", {{"type", "4"}, {"port", "0x0"}, {"iomem_base", "0xFE032000"}});
    EXPECT_EQ(host.ports(), names{"ttyS4 = motherboard UART at 0xfe032000"});
}

TEST(serial_hosts, a_board_with_two_uarts) {
    fake_host host;
    add_consoles(host);
    host.device("platform/soc/3f201000.serial", "amba");
    host.terminal("platform/soc/3f201000.serial", "ttyAMA0", "204:64", {{"type", "32"}, {"iomem_base", "0x3F201000"}});
    host.device("platform/soc/3f215040.serial", "platform");
    host.terminal("platform/soc/3f215040.serial", "ttyS0", "4:64", {{"type", "1"}, {"port", "0x0"}});
    EXPECT_EQ(host.ports(),
              (names{"ttyAMA0 = on-board UART 3f201000.serial", "ttyS0 = on-board UART 3f215040.serial"}));
}

TEST(serial_hosts, an_adapter_at_a_hub) {
    fake_host host;
    add_consoles(host);
    add_ftdi(host, "ttyUSB0", "188:0");
    EXPECT_EQ(host.ports(), names{"ttyUSB0 = USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI"});
}

TEST(serial_hosts, adapters_that_say_little) {
    fake_host host;
    const std::string bus = "pci0000:00/0000:00:14.0/usb3";
    host.device(bus + "/3-1", "usb",
                {{"busnum", "3"},
                 {"devpath", "1"},
                 {"manufacturer", "Prolific Technology Inc."},
                 {"product", "USB-Serial Controller"}});
    host.device(bus + "/3-1/3-1:1.0/ttyUSB0", "usb-serial");
    host.terminal(bus + "/3-1/3-1:1.0/ttyUSB0", "ttyUSB0", "188:0");
    host.device(bus + "/3-2", "usb", {{"busnum", "3"}, {"devpath", "2"}, {"idVendor", "1a86"}, {"idProduct", "7523"}});
    host.device(bus + "/3-2/3-2:1.0/ttyUSB1", "usb-serial");
    host.terminal(bus + "/3-2/3-2:1.0/ttyUSB1", "ttyUSB1", "188:1");
    host.device(
        bus + "/3-3", "usb",
        {{"busnum", "3"}, {"devpath", "3"}, {"manufacturer", "Silicon Labs"}, {"product", "Silicon Labs CP2102"}});
    host.device(bus + "/3-3/3-3:1.0/ttyUSB2", "usb-serial");
    host.terminal(bus + "/3-3/3-3:1.0/ttyUSB2", "ttyUSB2", "188:2");
    EXPECT_EQ(host.ports(),
              (names{"ttyUSB0 = USB bus 3, port 1: Prolific Technology Inc. USB-Serial Controller",
                     "ttyUSB1 = USB bus 3, port 2: 1a86:7523", "ttyUSB2 = USB bus 3, port 3: Silicon Labs CP2102"}));
}

// A device may return any text; only its way to a terminal is filtered.
TEST(serial_hosts, an_adapter_that_says_odd_things) {
    fake_host host;
    host.device("usb1/1-1", "usb",
                {{"busnum", "1"}, {"devpath", "1"}, {"product", " \t\x1b[2JModem\t%s \r"}, {"serial", " "}});
    host.terminal("usb1/1-1/1-1:1.0", "ttyACM0", "166:0");
    EXPECT_EQ(host.ports(), names{"ttyACM0 = USB bus 1, port 1: \x1b[2JModem\t%s"});
}

TEST(serial_hosts, a_modem) {
    fake_host host;
    host.device("usb1/1-4", "usb",
                {{"busnum", "1"},
                 {"devpath", "4"},
                 {"manufacturer", "Arduino (www.arduino.cc)"},
                 {"product", "Arduino Uno"},
                 {"serial", "85531303631351F0B1E1"}});
    host.device("usb1/1-4/1-4:1.0", "usb", {{"bInterfaceNumber", "00"}});
    host.device("usb1/1-4/1-4:1.1", "usb", {{"bInterfaceNumber", "01"}});
    host.terminal("usb1/1-4/1-4:1.0", "ttyACM0", "166:0");
    EXPECT_EQ(host.ports(),
              names{"ttyACM0 = USB bus 1, port 4: Arduino (www.arduino.cc) Arduino Uno, serial 85531303631351F0B1E1"});
}

// The lines are in the order of the interfaces, which may differ from that of the names.
TEST(serial_hosts, an_adapter_with_several_lines) {
    fake_host host;
    const std::string device = "usb1/1-3";
    host.device(device, "usb",
                {{"busnum", "1"}, {"devpath", "3"}, {"manufacturer", "FTDI"}, {"product", "Quad RS232-HS"}});
    for (const auto& [interface, name] : {std::pair(0, "ttyUSB10"), {1, "ttyUSB2"}, {2, "ttyUSB3"}, {3, "ttyUSB4"}}) {
        const std::string part = device + "/1-3:1." + std::to_string(interface) + "/" + name;
        host.device(part, "usb-serial");
        host.terminal(part, name, ("188:" + std::string(name).substr(6)).c_str());
    }
    EXPECT_EQ(host.ports(), (names{"ttyUSB10 = USB bus 1, port 3, line 1 of 4: FTDI Quad RS232-HS",
                                   "ttyUSB2 = USB bus 1, port 3, line 2 of 4: FTDI Quad RS232-HS",
                                   "ttyUSB3 = USB bus 1, port 3, line 3 of 4: FTDI Quad RS232-HS",
                                   "ttyUSB4 = USB bus 1, port 3, line 4 of 4: FTDI Quad RS232-HS"}));
}

TEST(serial_hosts, cards) {
    fake_host host;
    add_consoles(host);
    host.device("pci0000:00/0000:00:16.3", "pci");
    host.terminal("pci0000:00/0000:00:16.3", "ttyS4", "4:68", {{"type", "4"}, {"port", "0xF0A0"}});
    const std::string card = "pci0000:00/0000:00:1c.0/0000:02:00.0";
    host.device("pci0000:00/0000:00:1c.0", "pci");
    host.device(card, "pci");
    host.terminal(card, "ttyS9", "4:73", {{"type", "16"}});
    host.terminal(card, "ttyS10", "4:74", {{"type", "16"}});
    EXPECT_EQ(host.ports(), (names{"ttyS10 = PCI 0000:02:00.0, line 2 of 2", "ttyS4 = PCI 0000:00:16.3",
                                   "ttyS9 = PCI 0000:02:00.0, line 1 of 2"}));
}

TEST(serial_hosts, buses_that_nobody_thought_of) {
    fake_host host;
    host.device("platform/soc/3f204000.spi", "platform");
    host.device("platform/soc/3f204000.spi/spi_master/spi0/spi0.0", "spi");
    host.terminal("platform/soc/3f204000.spi/spi_master/spi0/spi0.0", "ttySC0", "235:0", {{"type", "90"}});
    host.device("nowhere/mhi0_DUN", "mhi");
    host.terminal("nowhere/mhi0_DUN", "ttyMHI0", "236:0");
    EXPECT_EQ(host.ports(), (names{"ttyMHI0 = mhi mhi0_DUN", "ttySC0 = spi spi0.0"}));
}

TEST(serial_hosts, ports_made_by_software) {
    fake_host host;
    add_consoles(host);
    host.terminal("virtual", "rfcomm0", "216:0", {{"address", "00:11:22:33:44:55"}, {"channel", "1"}});
    host.terminal("virtual", "ttyGS0", "245:0");
    host.terminal("virtual", "ttyONE", "250:7");
    host.terminal("virtual", "ttyTWO", "250:8");
    EXPECT_EQ(host.ports(), (names{"rfcomm0 = Bluetooth 00:11:22:33:44:55, channel 1", "ttyGS0 = USB gadget, line 0",
                                   "ttyONE = software, driver oneport"}));
}

// A port in use is a child of the adapter.
TEST(serial_hosts, bluetooth_in_use) {
    fake_host host;
    host.device("usb1/1-7", "usb", {{"busnum", "1"}, {"devpath", "7"}, {"product", "Bluetooth Radio"}});
    host.device("usb1/1-7/1-7:1.0/bluetooth/hci0/hci0:11", "bluetooth");
    host.terminal("usb1/1-7/1-7:1.0/bluetooth/hci0/hci0:11", "rfcomm0", "216:0",
                  {{"address", "00:11:22:33:44:55"}, {"channel", "3"}});
    EXPECT_EQ(host.ports(), names{"rfcomm0 = Bluetooth 00:11:22:33:44:55, channel 3"});
}

TEST(serial_hosts, a_name_with_a_folder_in_it) {
    fake_host host;
    host.device("css0/0.0.0009", "ccw");
    host.terminal("css0/0.0.0009", "3270!tty1", "227:1");
    EXPECT_EQ(host.ports(), names{"3270/tty1 = ccw 0.0.0009"});
    EXPECT_EQ(qor::serial::kernel_name(host.on(), "3270/tty1"), "3270/tty1");
}

TEST(serial_hosts, a_container_sees_the_ports_but_not_their_files) {
    fake_host host;
    add_ftdi(host, "ttyUSB0", "188:0");
    const std::string file = host.on().dev + "/ttyUSB0";
    std::filesystem::remove(file);
    EXPECT_EQ(host.ports(),
              names{"ttyUSB0 = USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI, no file " + file});
}

TEST(serial_hosts, without_terminals_there_are_no_ports) {
    fake_host host;
    std::filesystem::remove(host.on().sys + "/class/tty");
    EXPECT_EQ(host.ports(), names{});
}

TEST(serial_hosts, without_sysfs_nothing_is_known) {
    fake_host host;
    std::filesystem::remove_all(host.on().sys);
    std::vector<std::string> found;
    std::string path;
    EXPECT_EQ(qor::serial::list_ports(host.on(), found, path), ENOENT);
    EXPECT_EQ(path, host.on().sys + "/class/tty");
}

TEST(serial_hosts, without_proc_only_those_with_a_device_are_found) {
    fake_host host;
    add_consoles(host);
    add_ftdi(host, "ttyUSB0", "188:0");
    host.terminal("virtual", "ttyGS0", "245:0");
    std::filesystem::remove_all(host.on().proc);
    EXPECT_EQ(host.ports(), names{"ttyUSB0 = USB bus 1, port 2.3: FTDI FT232R USB UART, serial A50285BI"});
}

TEST(serial_hosts, names_with_and_without_the_folder) {
    fake_host host;
    add_ftdi(host, "ttyUSB0", "188:0");
    for (const std::string& name : {std::string("ttyUSB0"), host.on().dev + "/ttyUSB0"}) {
        EXPECT_EQ(qor::serial::kernel_name(host.on(), name), "ttyUSB0");
        EXPECT_EQ(qor::serial::device_file(host.on(), name), host.on().dev + "/ttyUSB0");
        EXPECT_TRUE(qor::serial::is_known(host.on(), qor::serial::kernel_name(host.on(), name)));
    }
    for (const char* const name : {"ttyUSB1", "", "/", "/nowhere", ".", "../sys"})
        EXPECT_FALSE(qor::serial::is_known(host.on(), qor::serial::kernel_name(host.on(), name))) << name;
}

TEST(serial_hosts, other_devices_are_told_by_their_numbers) {
    fake_host host;
    add_consoles(host);
    add_ftdi(host, "ttyUSB0", "188:0");
    host.device("virtual/misc/watchdog", "misc");
    std::filesystem::create_directory_symlink(host.on().sys + "/devices/virtual/misc/watchdog",
                                              host.on().sys + "/dev/char/10:130");
    EXPECT_TRUE(qor::serial::may_be_port(host.on(), makedev(188, 0)));
    EXPECT_TRUE(qor::serial::may_be_port(host.on(), makedev(136, 5))); // the kernel has no folder for pseudo-terminals
    EXPECT_TRUE(qor::serial::may_be_port(host.on(), makedev(4, 64)));
    EXPECT_FALSE(qor::serial::may_be_port(host.on(), makedev(10, 130)));
    EXPECT_FALSE(qor::serial::may_be_port(host.on(), makedev(4, 63)));
    EXPECT_FALSE(qor::serial::may_be_port(host.on(), makedev(5, 0)));
}
