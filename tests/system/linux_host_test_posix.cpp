// Recorded and invented hosts: the contents of their /proc, /sys and /etc go through the same code as this host's.
#include "system/linux_host.h"

#include "recorded_cpuid.h"
#include "support/temp_folder.h"

#include <filesystem>
#include <initializer_list>
#include <thread>

namespace {

using namespace qor::system;
using qor::test::recorded_cpuid;

class recorded_host {
public:
    explicit recorded_host(std::initializer_list<std::pair<const char*, std::string>> files = {},
                           recorded_cpuid processor = {})
        : m_processor(std::move(processor)) {
        for (const auto& [path, text] : files)
            put(path, text);
        host.root = m_folder.path();
        host.processor = &m_processor;
        host.kernel = "Linux";
        host.release = "6.1.0-37-amd64";
        host.build = "#1 SMP PREEMPT_DYNAMIC Debian 6.1.140-1 (2025-05-22)";
        host.machine = "x86_64";
        host.processors = {0};
    }

    void put(const std::string& path, std::string_view text) {
        std::filesystem::create_directories((m_folder.path() + path).substr(0, (m_folder.path() + path).rfind('/')));
        m_folder.file(path.substr(1), text);
    }

    linux_host host;

private:
    qor::test::temp_folder m_folder;
    recorded_cpuid m_processor;
};

qorMemoryInfo memory_of(const recorded_host& recorded) {
    qorMemoryInfo info{};
    EXPECT_TRUE(read_memory(recorded.host, info));
    EXPECT_EQ(info.used + info.free, info.total);
    return info;
}

constexpr uint64 kib = 1024, mib = 1024 * kib, gib = 1024 * mib;

const char debian[] = "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n"
                      "VERSION=\"12 (bookworm)\"\nID=debian\n";
const char meminfo[] = "MemTotal:       16384000 kB\nMemFree:         1000000 kB\nMemAvailable:    8192000 kB\n"
                       "Buffers:          100000 kB\nCached:          3000000 kB\nShmem:            200000 kB\n"
                       "SReclaimable:     400000 kB\n";

// ---- whole hosts

TEST(linux_host, a_server) {
    recorded_host recorded({{"/etc/os-release", debian},
                            {"/proc/1/cgroup", "0::/init.scope\n"},
                            {"/sys/class/dmi/id/sys_vendor", "Dell Inc.\n"},
                            {"/sys/class/dmi/id/product_name", "PowerEdge R740\n"}},
                           qor::test::bare_xeon());
    const facts found = read_facts(recorded.host);
    EXPECT_EQ(found.platform, "Linux 6.1.0-37-amd64 #1 SMP PREEMPT_DYNAMIC Debian 6.1.140-1 (2025-05-22) x86_64");
    EXPECT_EQ(found.enhanced_platform, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(found.type, "Debian GNU/Linux");
    EXPECT_EQ(found.version, "12 (bookworm)");
    EXPECT_EQ(found.description, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(found.processor_type, "Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz");
    EXPECT_EQ(found.hypervisor, "");
}

TEST(linux_host, a_container_on_bare_metal_is_bare_metal) {
    recorded_host recorded({{"/etc/os-release", debian}, {"/.dockerenv", ""}}, qor::test::bare_xeon());
    const facts found = read_facts(recorded.host);
    EXPECT_EQ(found.enhanced_platform, "Debian GNU/Linux 12 (bookworm), docker container");
    EXPECT_EQ(found.hypervisor, "");
}

TEST(linux_host, wsl_2_is_a_guest_of_hyper_v) {
    recorded_host recorded({{"/etc/os-release", "NAME=\"Ubuntu\"\nVERSION=\"22.04.3 LTS (Jammy Jellyfish)\"\n"
                                                "PRETTY_NAME=\"Ubuntu 22.04.3 LTS\"\n"}},
                           qor::test::bare_xeon().add_hypervisor("Microsoft Hv"));
    recorded.host.release = "5.15.90.1-microsoft-standard-WSL2";
    const facts found = read_facts(recorded.host);
    EXPECT_EQ(found.enhanced_platform, "Ubuntu 22.04.3 LTS, WSL 2, Hyper-V guest");
    EXPECT_EQ(found.hypervisor, "Hyper-V");
}

// WSL 1 runs directly on Windows, which may be the host of Hyper-V.
TEST(linux_host, wsl_1_is_what_its_windows_is) {
    recorded_cpuid processor = qor::test::bare_xeon().add_hypervisor("Microsoft Hv");
    processor.leaves[{0x40000003, 0}] = {0x00003fff, 0x002bb9ff, 0, 0};
    recorded_host recorded({{"/etc/os-release", "PRETTY_NAME=\"Ubuntu 20.04.6 LTS\"\n"}}, processor);
    recorded.host.release = "4.4.0-19041-Microsoft";
    EXPECT_EQ(read_facts(recorded.host).enhanced_platform, "Ubuntu 20.04.6 LTS, WSL 1");
    EXPECT_EQ(find_wsl(recorded.host), "WSL 1");
    recorded.host.release = "4.19.128-microsoft-standard"; // WSL 2, before its release contained its name
    EXPECT_EQ(find_wsl(recorded.host), "WSL 2");
}

TEST(linux_host, the_host_and_a_guest_of_hyper_v) {
    recorded_cpuid processor = qor::test::bare_xeon().add_hypervisor("Microsoft Hv");
    const std::pair<const char*, std::string> maker = {"/sys/class/dmi/id/sys_vendor", "Microsoft Corporation\n"};
    EXPECT_EQ(find_hypervisor(
                  recorded_host({maker, {"/sys/class/dmi/id/product_name", "Virtual Machine\n"}}, processor).host),
              "Hyper-V");
    processor.leaves[{0x40000003, 0}] = {0x00003fff, 0x002bb9ff, 0, 0};
    EXPECT_EQ(
        find_hypervisor(recorded_host({maker, {"/sys/class/dmi/id/product_name", "Surface Pro 9\n"}}, processor).host),
        "");
}

TEST(linux_host, an_arm_board) {
    const std::string core = "BogoMIPS\t: 108.00\nFeatures\t: fp asimd evtstrm crc32 cpuid\nCPU implementer\t: 0x41\n"
                             "CPU architecture: 8\nCPU variant\t: 0x0\nCPU part\t: 0xd08\nCPU revision\t: 3\n\n";
    recorded_host recorded(
        {{"/etc/os-release", debian},
         {"/proc/device-tree/compatible", std::string("raspberrypi,4-model-b\0brcm,bcm2711\0", 35)},
         {"/proc/cpuinfo", "processor\t: 0\n" + core + "processor\t: 1\n" + core +
                               "Hardware\t: BCM2835\nRevision\t: c03114\nModel\t\t: Raspberry Pi 4\n"}});
    recorded.host.machine = "aarch64";
    const facts found = read_facts(recorded.host);
    EXPECT_EQ(found.processor_type, "ARM Cortex-A72");
    EXPECT_EQ(found.processor_extended, "implementer 0x41 architecture 8 variant 0x0 part 0xd08 revision 3: asimd");
    EXPECT_EQ(found.hypervisor, "");
}

TEST(linux_host, processors_without_cpuid) {
    const auto type = [](const std::string& text) {
        return read_cpuinfo(recorded_host({{"/proc/cpuinfo", text}}).host).type;
    };
    // Cores of two kinds, an unknown core, and the formats of other makers.
    EXPECT_EQ(type("processor : 0\nCPU implementer : 0x41\nCPU part : 0xd03\n\nprocessor : 1\nCPU implementer : 0x41\n"
                   "CPU part : 0xd09\n\nprocessor : 2\nCPU implementer : 0x41\nCPU part : 0xd09\n"),
              "ARM Cortex-A53, ARM Cortex-A73");
    EXPECT_EQ(type("processor : 0\nCPU implementer : 0x99\nCPU part : 0x123\n"), "implementer 0x99 part 0x123");
    EXPECT_EQ(type("processor\t: 0\nhart\t: 1\nisa\t: rv64imafdc\nuarch\t: sifive,u74-mc\n"), "sifive,u74-mc");
    EXPECT_EQ(type("processor\t: 0\ncpu\t\t: POWER9, altivec supported\n\ntimebase : 512000000\n"),
              "POWER9, altivec supported");
    EXPECT_EQ(type(""), "");
    recorded_host nothing;
    nothing.host.machine = "riscv64";
    EXPECT_EQ(read_facts(nothing.host).processor_type, "riscv64");
    EXPECT_EQ(read_facts(nothing.host).processor_extended, "");
}

TEST(linux_host, five_hundred_and_twelve_processors) {
    recorded_host recorded;
    for (uint32 i = 0; i < 512; ++i) {
        recorded.host.processors.insert(i);
        const uint32 core = i % 256;
        recorded.put("/sys/devices/system/cpu/cpu" + std::to_string(i) + "/topology/core_cpus_list",
                     std::to_string(core) + "," + std::to_string(core + 256) + "\n");
    }
    EXPECT_EQ(count_cores(recorded.host), 256u);
    recorded.host.processors = {0, 1, 256, 511};
    EXPECT_EQ(count_cores(recorded.host), 3u);
}

TEST(linux_host, cores_by_the_older_name_and_without_any) {
    recorded_host recorded;
    recorded.host.processors = {0, 1, 2, 3};
    EXPECT_EQ(count_cores(recorded.host), 4u);
    for (const char* const number : {"0", "1"})
        recorded.put(std::string("/sys/devices/system/cpu/cpu") + number + "/topology/thread_siblings_list", "0-1\n");
    EXPECT_EQ(count_cores(recorded.host), 3u);
    recorded.host.processors.clear();
    EXPECT_EQ(count_cores(recorded.host), 1u);
}

// ---- the distribution's own description

TEST(os_release, from_either_place_and_from_none) {
    EXPECT_EQ(read_os_release(recorded_host({{"/usr/lib/os-release", debian}}).host).name, "Debian GNU/Linux");
    EXPECT_EQ(
        read_os_release(recorded_host({{"/etc/os-release", "NAME=Here\n"}, {"/usr/lib/os-release", debian}}).host).name,
        "Here");
    const facts found = read_facts(recorded_host().host);
    EXPECT_EQ(found.type, "Linux");
    EXPECT_EQ(found.version, "6.1.0-37-amd64");
    EXPECT_EQ(found.description, "Linux 6.1.0-37-amd64");
    EXPECT_EQ(found.enhanced_platform, "");
}

TEST(os_release, values_as_a_shell_reads_them) {
    const os_release found = read_os_release(
        recorded_host(
            {{"/etc/os-release", "# a comment\n\nNAME='Single \"quoted\"'\nNAMELESS=x\nVERSION=\"\\\"1\\\" \\$2\"\r\n"
                                 "PRETTY_NAME=a\\ b\"c d\"  \nPRETTY_NAME=last\\ \"one\"\n"}})
            .host);
    EXPECT_EQ(found.name, "Single \"quoted\"");
    EXPECT_EQ(found.version, "\"1\" $2");
    EXPECT_EQ(found.description, "last one");
}

TEST(os_release, what_stands_in) {
    const auto read = [](const char* text) { return read_os_release(recorded_host({{"/etc/os-release", text}}).host); };
    EXPECT_EQ(read("NAME=\"Arch Linux\"\nBUILD_ID=rolling\n").version, "rolling");
    EXPECT_EQ(read("NAME=Alpine\nVERSION_ID=3.19.1\n").version, "3.19.1");
    EXPECT_EQ(read("NAME=Alpine\nVERSION_ID=3.19.1\n").description, "Alpine 3.19.1");
    EXPECT_EQ(read("ID=nameless\n").description, "");
}

// ---- memory

TEST(memory, free_is_what_is_available) {
    const qorMemoryInfo info = memory_of(recorded_host({{"/proc/meminfo", meminfo}}));
    EXPECT_EQ(info.total, 16'384'000 * kib);
    EXPECT_EQ(info.free, 8'192'000 * kib);
}

TEST(memory, of_kernels_that_do_not_tell_what_is_available) {
    const std::string text = meminfo;
    const std::size_t at = text.find("MemAvailable");
    const std::string old = text.substr(0, at) + text.substr(text.find('\n', at) + 1);
    EXPECT_EQ(memory_of(recorded_host({{"/proc/meminfo", old}})).free,
              (1'000'000 + 100'000 + 3'000'000 + 400'000 - 200'000) * kib);
    EXPECT_EQ(memory_of(recorded_host({{"/proc/meminfo", "MemTotal: 100 kB\nMemFree: 10 kB\nShmem: 50 kB\n"}})).free,
              0u);
}

TEST(memory, where_the_system_does_not_tell) {
    qorMemoryInfo info{1, 2, 3};
    EXPECT_FALSE(read_memory(recorded_host().host, info));
    EXPECT_FALSE(read_memory(recorded_host({{"/proc/meminfo", "MemFree: 10 kB\n"}}).host, info));
}

TEST(memory, more_than_is_there_is_never_free) {
    const qorMemoryInfo info =
        memory_of(recorded_host({{"/proc/meminfo", "MemTotal: 100 kB\nMemAvailable: 200 kB\n"}}));
    EXPECT_EQ(info.free, 100 * kib);
}

const char unified_mount[] =
    "22 1 0:21 / /proc rw - proc proc rw\n35 24 0:30 / /sys/fs/cgroup rw,nosuid shared:4 - cgroup2 cgroup2 rw\n";
const char memory_mount[] = "35 31 0:33 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\n"
                            "36 31 0:34 / /sys/fs/cgroup/memory rw - cgroup cgroup rw,memory\n";

TEST(group_memory, the_lowest_limit_around_counts) {
    recorded_host recorded({{"/proc/meminfo", meminfo},
                            {"/proc/self/mountinfo", unified_mount},
                            {"/proc/self/cgroup", "0::/system.slice/app.service/inner\n"},
                            {"/sys/fs/cgroup/system.slice/app.service/inner/memory.max", "max\n"},
                            {"/sys/fs/cgroup/system.slice/app.service/memory.max", "536870912\n"},
                            {"/sys/fs/cgroup/system.slice/app.service/memory.current", "268435456\n"},
                            {"/sys/fs/cgroup/system.slice/app.service/memory.stat",
                             "anon 1000\ninactive_file 104857600\nactive_file 20971520\nslab_reclaimable 8388608\n"},
                            {"/sys/fs/cgroup/system.slice/memory.max", "1073741824\n"},
                            {"/sys/fs/cgroup/system.slice/memory.current", "1073741824\n"},
                            {"/sys/fs/cgroup/system.slice/memory.stat", "inactive_file 94371840\n"}});
    const qorMemoryInfo info = memory_of(recorded);
    EXPECT_EQ(info.total, 512 * mib);
    EXPECT_EQ(info.free, 90 * mib); // the outer group's rest; the inner one would leave 384
}

TEST(group_memory, of_the_first_generation) {
    recorded_host recorded({{"/proc/meminfo", meminfo},
                            {"/proc/self/mountinfo", memory_mount},
                            {"/proc/self/cgroup", "5:cpu:/elsewhere\n4:freezer,memory:/docker/abc\n0::/\n"},
                            {"/sys/fs/cgroup/memory/docker/abc/memory.limit_in_bytes", "268435456\n"},
                            {"/sys/fs/cgroup/memory/docker/abc/memory.usage_in_bytes", "209715200\n"},
                            {"/sys/fs/cgroup/memory/docker/abc/memory.stat",
                             "inactive_file 1\ntotal_inactive_file 10485760\ntotal_active_file 10485760\n"},
                            {"/sys/fs/cgroup/memory/memory.limit_in_bytes", "9223372036854771712\n"}});
    const qorMemoryInfo info = memory_of(recorded);
    EXPECT_EQ(info.total, 256 * mib);
    EXPECT_EQ(info.free, 76 * mib);
}

// Without its own namespace, a container sees its group's whole path, but only its own group is mounted.
TEST(group_memory, seen_from_inside_a_container) {
    recorded_host recorded(
        {{"/proc/meminfo", meminfo},
         {"/proc/self/mountinfo", "36 31 0:34 /docker/abc /sys/fs/cgroup/mem\\040ory ro - cgroup cgroup rw,memory\n"},
         {"/proc/self/cgroup", "4:memory:/docker/abc/inner\n"},
         {"/sys/fs/cgroup/mem ory/inner/memory.limit_in_bytes", "1048576\n"},
         {"/sys/fs/cgroup/mem ory/inner/memory.usage_in_bytes", "2097152\n"}});
    EXPECT_EQ(memory_of(recorded).total, 1 * mib);
    EXPECT_EQ(memory_of(recorded).free, 0u);

    recorded_host with_namespace({{"/proc/meminfo", meminfo},
                                  {"/proc/self/mountinfo", unified_mount},
                                  {"/proc/self/cgroup", "0::/\n"},
                                  {"/sys/fs/cgroup/memory.max", "2147483648\n"},
                                  {"/sys/fs/cgroup/memory.current", "0\n"}});
    EXPECT_EQ(memory_of(with_namespace).total, 2 * gib);

    recorded_host outside({{"/proc/meminfo", meminfo},
                           {"/proc/self/mountinfo", unified_mount},
                           {"/proc/self/cgroup", "0::/../../other\n"},
                           {"/sys/fs/cgroup/memory.max", "3221225472\n"},
                           {"/sys/fs/cgroup/memory.current", "0\n"}});
    EXPECT_EQ(memory_of(outside).total, 3 * gib);
}

TEST(group_memory, a_limit_above_what_is_there_is_none) {
    recorded_host recorded({{"/proc/meminfo", meminfo},
                            {"/proc/self/mountinfo", unified_mount},
                            {"/proc/self/cgroup", "0::/\n"},
                            {"/sys/fs/cgroup/memory.max", "999999999999\n"},
                            {"/sys/fs/cgroup/memory.current", "999999999999\n"}});
    EXPECT_EQ(memory_of(recorded).total, 16'384'000 * kib);
    EXPECT_EQ(memory_of(recorded).free, 8'192'000 * kib);
}

TEST(group_memory, tables_that_are_none) {
    for (const char* const text :
         {"", "\n", "0", "0:", "::", "4:memory", "0::", "a b c d e\n", "1 2 3 4 5 - cgroup2\n"}) {
        recorded_host recorded(
            {{"/proc/meminfo", meminfo}, {"/proc/self/mountinfo", text}, {"/proc/self/cgroup", text}});
        EXPECT_EQ(memory_of(recorded).total, 16'384'000 * kib) << text;
    }
}

// ---- containers around the system

TEST(container, kinds) {
    const auto kind = [](const char* path, const std::string& text) {
        return find_container(recorded_host({{path, text}}).host);
    };
    EXPECT_EQ(kind("/.dockerenv", ""), "docker container");
    EXPECT_EQ(kind("/run/.containerenv", "engine=\"podman-4.3.1\"\n"), "podman container");
    EXPECT_EQ(kind("/run/systemd/container", "systemd-nspawn\n"), "systemd-nspawn container");
    EXPECT_EQ(kind("/proc/1/environ", std::string("PATH=/bin\0container=lxc\0TERM=x\0", 32)), "lxc container");
    EXPECT_EQ(kind("/proc/1/environ", std::string("mycontainer=lxc\0TERM=x\0", 23)), "");
    EXPECT_EQ(kind("/proc/1/cgroup", "5:memory:/kubepods/besteffort/pod1/abc\n"), "kubernetes container");
    EXPECT_EQ(kind("/proc/1/cgroup", "0::/system.slice/docker-0123.scope\n"), "docker container");
    EXPECT_EQ(kind("/proc/1/cgroup", "0::/lxc.payload.one/init.scope\n"), "lxc container");
    EXPECT_EQ(kind("/proc/vz/veinfo", ""), "openvz container");
    // The container manager itself is not in a container.
    EXPECT_EQ(kind("/proc/1/cgroup", "0::/system.slice/docker.service\n"), "");
    EXPECT_EQ(kind("/proc/1/cgroup", "0::/init.scope\n"), "");
    EXPECT_EQ(find_container(recorded_host({{"/proc/vz/veinfo", ""}, {"/proc/bc/0", ""}}).host), "");
}

TEST(virtual_machine, told_by_the_kernel) {
    const auto told = [](const char* path, const std::string& text) {
        return find_hypervisor(recorded_host({{path, text}}).host);
    };
    EXPECT_EQ(told("/sys/hypervisor/type", "xen\n"), "Xen");
    EXPECT_EQ(told("/proc/device-tree/hypervisor/compatible", std::string("linux,kvm\0", 10)), "KVM");
    EXPECT_EQ(told("/proc/device-tree/hypervisor/compatible", std::string("xen,xen-4.17\0xen,xen\0", 21)), "Xen");
    EXPECT_EQ(told("/proc/device-tree/hypervisor/compatible", "somebody,else"), "unknown hypervisor");
    EXPECT_EQ(told("/proc/device-tree/compatible", std::string("linux,dummy-virt\0", 17)), "QEMU");
    EXPECT_EQ(told("/proc/device-tree/compatible", std::string("raspberrypi,4-model-b\0", 22)), "");
    EXPECT_EQ(told("/proc/sysinfo", "Manufacturer: IBM\nVM00 Name: LNX1\nVM00 Control Program: z/VM    6.4.0\n"),
              "z/VM");
    EXPECT_EQ(told("/proc/sysinfo", "VM00 Control Program: KVM/Linux\nVM01 Control Program: z/VM\n"), "KVM");
    EXPECT_EQ(told("/proc/sysinfo", "LPAR Name: KVM1\n"), "");
}

TEST(virtual_machine, xen_s_first_domain_is_the_host) {
    const recorded_cpuid processor = qor::test::bare_xeon().add_hypervisor("XenVMMXenVMM");
    EXPECT_EQ(
        find_hypervisor(
            recorded_host({{"/sys/hypervisor/type", "xen\n"}, {"/proc/xen/capabilities", "control_d\n"}}, processor)
                .host),
        "");
    EXPECT_EQ(find_hypervisor(
                  recorded_host({{"/sys/hypervisor/type", "xen\n"}, {"/proc/xen/capabilities", ""}}, processor).host),
              "Xen");
}

TEST(virtual_machine, marked_in_the_firmware_s_table) {
    std::string table(0x18, '\1');
    table[0x13] = 0x1c;
    const char row[] = "/sys/firmware/dmi/entries/0-0/raw";
    EXPECT_EQ(find_hypervisor(recorded_host({{row, table}}).host), "unknown hypervisor");
    table[0x13] = 0x0c;
    EXPECT_EQ(find_hypervisor(recorded_host({{row, table}}).host), "");
    EXPECT_EQ(find_hypervisor(recorded_host({{row, "short"}}).host), "");
    EXPECT_EQ(find_hypervisor(recorded_host({{row, table}, {"/sys/class/dmi/id/sys_vendor", "Amazon EC2\n"}}).host),
              "");
}

// ---- this host

TEST(this_host, processors_are_those_that_a_thread_may_run_on) {
    EXPECT_EQ(count_processors(), std::thread::hardware_concurrency());
    EXPECT_GE(count_processors(), count_cores());
}

} // namespace
