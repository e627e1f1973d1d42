// Interfaces built from dumps and from the files of other hosts, which are recreated here as they were recorded.
#include "interfaces_posix.h"
#include "support/strange_files_posix.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <linux/if_arp.h>
#include <linux/if_tun.h>

namespace {

namespace fs = std::filesystem;
using network::address_row;
using network::dump_tables;
using network::interface_facts;
using network::link_row;

// The file tree of another host.
class fake_root {
public:
    void write(const std::string& path, const std::string& text) {
        fs::create_directories(fs::path(m_folder.path() + path).parent_path());
        m_folder.file(path.substr(1), text);
    }
    void remove(const std::string& path) { fs::remove(this->path(path)); }
    std::string path(const std::string& path) const { return m_folder.path() + path; }
    // Makes a relative link, as the kernel does.
    void lead(const std::string& from, const std::string& to) {
        const fs::path link = m_folder.path() + from;
        fs::create_directories(link.parent_path());
        fs::create_directories(m_folder.path() + to);
        fs::create_symlink(fs::relative(m_folder.path() + to, fs::canonical(link.parent_path())), link);
    }
    // Makes a device in /sys/devices that its bus lists.
    void device(const std::string& folder, const std::string& bus, const std::string& driver = "") {
        lead("/sys/bus/" + bus + "/devices/" + folder.substr(folder.rfind('/') + 1), folder);
        lead(folder + "/subsystem", "/sys/bus/" + bus);
        if (!driver.empty())
            lead(folder + "/driver", "/sys/bus/" + bus + "/drivers/" + driver);
    }
    void folder(const std::string& path) { fs::create_directories(m_folder.path() + path); }

    interface_facts describe(const link_row& link) {
        network::device_finder devices(m_folder.path());
        dump_tables tables;
        tables.links.push_back(link);
        return network::put_together(tables, devices).at(0);
    }

private:
    qor::test::temp_folder m_folder;
};

link_row make_link(const std::string& name, uint16 type = ARPHRD_ETHER) {
    link_row link;
    link.index = 2;
    link.type = type;
    link.name = name;
    return link;
}

link_row on_bus(const std::string& bus, const std::string& device, const std::string& name = "eth0") {
    link_row link = make_link(name);
    link.bus = bus;
    link.device = device;
    return link;
}

constexpr char pci_folder[] = "/sys/devices/pci0000:00/0000:00:1f.6";
constexpr char pci_ids[] = "# a list\n"
                           "1af4  Red Hat, Inc.\n"
                           "\t1041  Virtio 1.0 network device\n"
                           "8086  Intel Corporation\n"
                           "\t100e  82540EM Gigabit Ethernet Controller\n"
                           "\t\t1af4 1100  QEMU Virtual Machine\n"
                           "# in between\n"
                           "\t15bb  Ethernet Connection (7) I219-LM\n"
                           "8087  Intel Corp.\n"
                           "\t0001  never meant\n";

void add_pci_card(fake_root& root, const std::string& vendor, const std::string& device) {
    root.device(pci_folder, "pci", "e1000e");
    root.write(std::string(pci_folder) + "/vendor", vendor + "\n");
    root.write(std::string(pci_folder) + "/device", device + "\n");
}

} // namespace

TEST(net_device, a_pci_card_that_the_device_manager_knows) {
    fake_root root;
    add_pci_card(root, "0x8086", "0x15bb");
    root.write("/run/udev/data/+pci:0000:00:1f.6", "I:123\nE:ID_VENDOR_FROM_DATABASE=Intel Corporation\n"
                                                   "E:ID_MODEL_FROM_DATABASE=Ethernet Connection (7) I219-LM\nV:1\n");
    EXPECT_EQ(root.describe(on_bus("pci", "0000:00:1f.6")).description,
              "Intel Corporation Ethernet Connection (7) I219-LM, driver e1000e, PCI 0000:00:1f.6");
}

TEST(net_device, a_pci_card_in_the_list_of_names) {
    for (const char* const list : {"/usr/share/misc/pci.ids", "/usr/share/hwdata/pci.ids", "/usr/share/pci.ids"}) {
        fake_root root;
        add_pci_card(root, "0x8086", "0x15bb");
        root.write(list, pci_ids);
        EXPECT_EQ(root.describe(on_bus("pci", "0000:00:1f.6")).description,
                  "Intel Corporation Ethernet Connection (7) I219-LM, driver e1000e, PCI 0000:00:1f.6");
    }
}

TEST(net_device, a_pci_card_that_is_in_no_list) {
    fake_root root;
    add_pci_card(root, "0x8086", "0x0001");
    const link_row link = on_bus("pci", "0000:00:1f.6");
    EXPECT_EQ(root.describe(link).description, "PCI device 8086:0001, driver e1000e, PCI 0000:00:1f.6");
    root.write("/usr/share/misc/pci.ids", pci_ids);
    EXPECT_EQ(root.describe(link).description, "Intel Corporation device 0001, driver e1000e, PCI 0000:00:1f.6");
    root.write("/usr/share/misc/pci.ids", "8086  Intel Corporation");
    EXPECT_EQ(root.describe(link).description, "Intel Corporation device 0001, driver e1000e, PCI 0000:00:1f.6");
}

// Pipes and other kinds in place of files: the reader must not wait for them.
TEST(net_device, files_that_are_none) {
    for (const char* const kind : qor::test::strange_kinds)
        for (const char* const file : {"/run/udev/data/+pci:0000:00:1f.6", "/usr/share/misc/pci.ids",
                                       "/sys/devices/pci0000:00/0000:00:1f.6/device"}) {
            fake_root root;
            add_pci_card(root, "0x8086", "0x0001");
            root.write(file, "");
            root.remove(file);
            const qor::test::strange_file strange(kind, root.path(file), "8086  Intel Corporation\n");
            const bool is_number = std::string_view(file).starts_with("/sys");
            EXPECT_EQ(root.describe(on_bus("pci", "0000:00:1f.6")).description,
                      is_number ? "PCI device 8086:, driver e1000e, PCI 0000:00:1f.6"
                                : "PCI device 8086:0001, driver e1000e, PCI 0000:00:1f.6")
                << kind << ' ' << file;
        }
}

TEST(net_device, a_virtual_machine_has_it_on_a_card) {
    fake_root root;
    add_pci_card(root, "0x1af4", "0x1041");
    root.write("/usr/share/misc/pci.ids", pci_ids);
    root.device(std::string(pci_folder) + "/virtio0", "virtio", "virtio_net");
    EXPECT_EQ(root.describe(on_bus("virtio", "virtio0")).description,
              "Red Hat, Inc. Virtio 1.0 network device, driver virtio_net, virtio0 on PCI 0000:00:1f.6");
}

TEST(net_device, an_adapter_on_usb) {
    fake_root root;
    add_pci_card(root, "0x8086", "0x15bb");
    const std::string hub = std::string(pci_folder) + "/usb1/1-2";
    root.device(hub + "/1-2.3", "usb");
    root.write(hub + "/1-2.3/idVendor", "0bda\n");
    root.write(hub + "/1-2.3/idProduct", "8153\n");
    root.device(hub + "/1-2.3/1-2.3:1.0", "usb", "r8152");
    EXPECT_EQ(root.describe(on_bus("usb", "1-2.3:1.0")).description,
              "USB device 0bda:8153, driver r8152, USB bus 1, port 2.3");
    root.write(hub + "/1-2.3/manufacturer", "Realtek\n");
    root.write(hub + "/1-2.3/product", "USB 10/100/1000 LAN\n");
    EXPECT_EQ(root.describe(on_bus("usb", "1-2.3:1.0")).description,
              "Realtek USB 10/100/1000 LAN, driver r8152, USB bus 1, port 2.3");
}

TEST(net_device, part_of_a_board) {
    fake_root root;
    root.device("/sys/devices/platform/fd580000.ethernet", "platform", "bcmgenet");
    EXPECT_EQ(root.describe(on_bus("platform", "fd580000.ethernet")).description,
              "Ethernet, driver bcmgenet, platform fd580000.ethernet");
}

TEST(net_device, a_host_that_hides_its_files_still_tells_the_place) {
    fake_root root;
    EXPECT_EQ(root.describe(on_bus("pci", "0000:00:03.0")).description, "Ethernet, PCI 0000:00:03.0");
}

TEST(net_device, radio) {
    fake_root root;
    add_pci_card(root, "0x8086", "0x15bb");
    root.folder(std::string(pci_folder) + "/ieee80211");
    EXPECT_EQ(root.describe(on_bus("pci", "0000:00:1f.6", "wlp3s0")).display_name, "Wi-Fi (wlp3s0)");
}

TEST(net_device, an_old_kernel_tells_the_device_by_name_alone) {
    fake_root root;
    add_pci_card(root, "0x8086", "0x15bb");
    root.write("/usr/share/misc/pci.ids", pci_ids);
    root.write("/sys/class/net/eth0/ifindex", "2\n");
    root.write("/sys/class/net/eth0/address", "02:fc:00:00:00:01\n");
    root.lead("/sys/class/net/eth0/device", pci_folder);
    link_row link = make_link("eth0");
    link.hardware_address = {0x02, 0xfc, 0, 0, 0, 1};
    const std::string known = "Intel Corporation Ethernet Connection (7) I219-LM, driver e1000e, PCI 0000:00:1f.6";
    EXPECT_EQ(root.describe(link).description, known);
    // The files belong to another network namespace, which has an interface of the same name.
    link.index = 3;
    EXPECT_EQ(root.describe(link).description, "Ethernet");
    link.index = 2;
    link.hardware_address[5] = 2;
    EXPECT_EQ(root.describe(link).description, "Ethernet");
    link.hardware_address[5] = 1;
    link.kind = "veth";
    EXPECT_EQ(root.describe(link).description, "Virtual Ethernet, driver veth");
}

TEST(net_naming, the_alias_is_the_display_name_then_an_alternative_name_then_kind_and_name) {
    fake_root root;
    link_row link = make_link("eth0");
    EXPECT_EQ(root.describe(link).display_name, "Ethernet (eth0)");
    EXPECT_EQ(root.describe(link).description, "Ethernet");
    link.alternative_names = {"enp0s3", "enx02fc00000001"};
    EXPECT_EQ(root.describe(link).display_name, "enp0s3");
    EXPECT_EQ(root.describe(link).description, "Ethernet, also enx02fc00000001");
    link.alias = "to the lab";
    EXPECT_EQ(root.describe(link).display_name, "to the lab");
    EXPECT_EQ(root.describe(link).description, "Ethernet, also enp0s3, also enx02fc00000001");
    link.alias = " \t ";
    EXPECT_EQ(root.describe(link).display_name, "enp0s3");
}

TEST(net_naming, line_ends_are_blanks_and_all_else_is_as_it_is) {
    fake_root root;
    link_row link = make_link("eth0");
    link.alias = "one\ntwo\x1b[2J\x7f ü";
    EXPECT_EQ(root.describe(link).display_name, "one two\x1b[2J\x7f ü");
    link.alternative_names = {"three\nfour\r"};
    EXPECT_EQ(root.describe(link).description, "Ethernet, also three four\r");
}

TEST(net_naming, kinds) {
    fake_root root;
    const auto kind = [&root](const link_row& link) { return root.describe(link).display_name; };
    EXPECT_EQ(kind(make_link("lo", ARPHRD_LOOPBACK)), "Loopback (lo)");
    EXPECT_EQ(kind(make_link("ib0", ARPHRD_INFINIBAND)), "InfiniBand (ib0)");
    EXPECT_EQ(kind(make_link("ppp0", ARPHRD_PPP)), "PPP (ppp0)");
    EXPECT_EQ(kind(make_link("rmnet0", ARPHRD_RAWIP)), "Network (rmnet0)");
    EXPECT_EQ(kind(make_link("sit0", ARPHRD_SIT)), "Tunnel (sit0)");
    const std::pair<const char*, const char*> made[] = {
        {"bond", "Bond"},
        {"bridge", "Bridge"},
        {"dummy", "Dummy"},
        {"macvlan", "MACVLAN"},
        {"ipip", "Tunnel"},
        {"veth", "Virtual Ethernet"},
        {"vlan", "VLAN"},
        {"vxlan", "VXLAN"},
        {"vrf", "VRF"},
        {"wireguard", "WireGuard"},
        {"xfrm", "Tunnel"},
        {"sit", "Tunnel"},
        {"of tomorrow", "Ethernet"},
    };
    for (const auto& [name, expected] : made) {
        link_row link = make_link("x");
        link.kind = name;
        EXPECT_EQ(kind(link), expected + std::string(" (x)"));
        EXPECT_EQ(root.describe(link).description, expected + std::string(", driver ") + name);
    }
    link_row link = make_link("t");
    link.kind = "tun";
    link.tun_type = IFF_TAP;
    EXPECT_EQ(kind(link), "TAP (t)");
    link.tun_type = IFF_TUN;
    EXPECT_EQ(kind(link), "TUN (t)");
    // Old kernels do not tell the kind.
    link.tun_type.reset();
    EXPECT_EQ(kind(link), "TAP (t)");
    link.type = ARPHRD_NONE;
    EXPECT_EQ(kind(link), "TUN (t)");
}

TEST(net_interfaces, addresses_are_grouped_by_number) {
    network::device_finder devices("/nowhere");
    dump_tables tables;
    for (const uint32 index : {7u, 2u, 5u}) {
        tables.links.push_back(make_link("if" + std::to_string(index)));
        tables.links.back().index = index;
    }
    tables.addresses = {{5, 24, false, {10, 0, 0, 5}}, {2, 8, false, {10, 0, 0, 2}}, {9, 8, false, {10, 0, 0, 9}},
                        {5, 32, false, {10, 0, 0, 6}}, {7, 64, true, {0xfe, 0x80}},  {7, 64, true, {0xfd}},
                        {7, 10, true, {0xfe, 0xbf}},   {7, 10, true, {0xfe, 0xc0}}};
    const auto interfaces = network::put_together(tables, devices);
    ASSERT_EQ(interfaces.size(), 3u);
    EXPECT_EQ(interfaces[0].name, "if2");
    EXPECT_EQ(interfaces[1].name, "if5");
    EXPECT_EQ(interfaces[2].name, "if7");
    ASSERT_EQ(interfaces[1].ipv4.size(), 2u);
    EXPECT_EQ(interfaces[1].ipv4[0].address, (qoraddr_ipv4{{10, 0, 0, 5}}));
    EXPECT_EQ(interfaces[1].ipv4[0].prefix, 24);
    EXPECT_EQ(interfaces[1].ipv4[1].address, (qoraddr_ipv4{{10, 0, 0, 6}}));
    // Only a link-local address needs its scope.
    ASSERT_EQ(interfaces[2].ipv6.size(), 4u);
    EXPECT_EQ(interfaces[2].ipv6[0].scope, 7u);
    EXPECT_EQ(interfaces[2].ipv6[1].scope, 0u);
    EXPECT_EQ(interfaces[2].ipv6[2].scope, 7u);
    EXPECT_EQ(interfaces[2].ipv6[3].scope, 0u);
}

TEST(net_interfaces, the_gateway_is_that_of_the_lowest_metric) {
    network::device_finder devices("/nowhere");
    dump_tables tables;
    for (const uint32 index : {1u, 2u, 3u, 4u}) {
        tables.links.push_back(make_link("if" + std::to_string(index)));
        tables.links.back().index = index;
    }
    tables.gateways = {{1, 100, 0, {10, 0, 0, 1}},
                       {1, 50, 0, {10, 0, 0, 2}},
                       {1, 50, 0, {10, 0, 0, 3}},
                       {2, 7, 0, {10, 0, 0, 4}},
                       {9, 7, 0, {10, 0, 0, 5}},
                       {0, 60, 11, {}},
                       {0, 6, 12, {}},
                       {0, 6, 99, {}}};
    tables.next_hops = {
        {10, 3, {{10, 0, 1, 1}}, {}}, {11, 2, {{10, 0, 1, 2}}, {}}, {12, 0, {}, {10, 11, 13, 98}}, {13, 4, {}, {}}};
    const auto interfaces = network::put_together(tables, devices);
    ASSERT_TRUE(interfaces[0].gateway);
    EXPECT_EQ(interfaces[0].gateway->address, (qoraddr_ipv4{{10, 0, 0, 2}}));
    EXPECT_EQ(interfaces[0].gateway->prefix, 32);
    EXPECT_EQ(interfaces[1].gateway->address, (qoraddr_ipv4{{10, 0, 1, 2}}));
    EXPECT_EQ(interfaces[2].gateway->address, (qoraddr_ipv4{{10, 0, 1, 1}}));
    EXPECT_FALSE(interfaces[3].gateway);
}

TEST(net_interfaces, the_end_of_a_tunnel_is_no_hardware_address) {
    fake_root root;
    for (const int type : {ARPHRD_TUNNEL, ARPHRD_TUNNEL6, ARPHRD_SIT, ARPHRD_IPGRE, ARPHRD_IP6GRE}) {
        link_row link = make_link("tunnel", static_cast<uint16>(type));
        link.hardware_address = {192, 0, 2, 1};
        EXPECT_TRUE(root.describe(link).hardware_address.empty());
    }
}
