#include "system/facts.h"

#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"

#include <algorithm>
#include <bit>
#include <psapi.h>

namespace {

using qor::platform::find_function;

constexpr wchar_t version_key[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t firmware_key[] = L"HARDWARE\\DESCRIPTION\\System\\BIOS";

// Reads a value of the registry below HKEY_LOCAL_MACHINE. Returns false if it does not exist.
bool read_value(const wchar_t* key, const wchar_t* name, DWORD kinds, void* value, DWORD size) noexcept {
    static const auto get = find_function<decltype(RegGetValueW)>(L"advapi32.dll", "RegGetValueW");
    return get != nullptr && get(HKEY_LOCAL_MACHINE, key, name, kinds, nullptr, value, &size) == ERROR_SUCCESS;
}

std::string read_text(const wchar_t* key, const wchar_t* name) {
    wchar_t text[256];
    return read_value(key, name, RRF_RT_REG_SZ, text, sizeof text) ? qor::platform::from_wide(text) : "";
}

qor::system::firmware read_firmware() {
    qor::system::firmware machine = {
        read_text(firmware_key, L"SystemProductName"),     read_text(firmware_key, L"SystemManufacturer"),
        read_text(firmware_key, L"BaseBoardManufacturer"), read_text(firmware_key, L"BIOSVendor"),
        read_text(firmware_key, L"SystemVersion"),         {}};
    // The firmware's raw table: the system's header of 8 bytes, then the first structure, in which a bit marks a
    // virtual machine.
    constexpr std::size_t row = 8, extensions_2 = 0x13;
    constexpr unsigned is_virtual = 1 << 4;
    constexpr DWORD provider = 0x52534d42; // "RSMB"
    std::vector<unsigned char> table(GetSystemFirmwareTable(provider, 0, nullptr, 0));
    if (table.size() > row + extensions_2 &&
        GetSystemFirmwareTable(provider, 0, table.data(), static_cast<DWORD>(table.size())) == table.size() &&
        table[row] == 0 && table[row + 1] > extensions_2)
        machine.is_marked_virtual = (table[row + extensions_2] & is_virtual) != 0;
    return machine;
}

const char* architecture() noexcept {
    SYSTEM_INFO info;
    GetNativeSystemInfo(&info);
    switch (info.wProcessorArchitecture) {
    case PROCESSOR_ARCHITECTURE_AMD64:
        return "x86_64";
    case PROCESSOR_ARCHITECTURE_ARM64:
        return "aarch64";
    default:
        return "unknown architecture";
    }
}

// Returns "Wine 8.0" if Wine replaces Windows.
std::string wine() {
    const auto version = find_function<const char*()>(L"ntdll.dll", "wine_get_version");
    return version != nullptr ? std::string("Wine ") + version() : "";
}

// Returns the processors that this process may use. Windows divides the processors into groups of at most 64.
std::vector<GROUP_AFFINITY> usable_processors() {
    const HANDLE process = GetCurrentProcess();
    USHORT groups[64] = {};
    USHORT count = std::size(groups);
    if (!GetProcessGroupAffinity(process, &count, groups))
        count = 1;
    std::vector<GROUP_AFFINITY> usable;
    DWORD_PTR of_process = 0, of_system = 0;
    // If the process uses a single group, the system reports the exact processors within the limits of its job. A
    // process in several groups uses all processors of each group.
    if (count == 1 && GetProcessAffinityMask(process, &of_process, &of_system) && of_process != 0) {
        usable.push_back({.Mask = of_process, .Group = groups[0], .Reserved = {}});
        return usable;
    }
    for (USHORT i = 0; i < count; ++i) {
        const DWORD active = GetActiveProcessorCount(groups[i]);
        usable.push_back(
            {.Mask = active >= 64 ? ~KAFFINITY{0} : (KAFFINITY{1} << active) - 1, .Group = groups[i], .Reserved = {}});
    }
    return usable;
}

} // namespace

qor::system::facts qor::system::read_facts() {
    // GetVersionEx reports the version that the program's manifest asks for, not the real one.
    RTL_OSVERSIONINFOEXW system{};
    system.dwOSVersionInfoSize = sizeof system;
    if (const auto get = find_function<LONG WINAPI(RTL_OSVERSIONINFOEXW*)>(L"ntdll.dll", "RtlGetVersion"))
        get(&system);
    std::string numbers = std::to_string(system.dwMajorVersion) + "." + std::to_string(system.dwMinorVersion) + "." +
                          std::to_string(system.dwBuildNumber);
    DWORD update = 0;
    if (read_value(version_key, L"UBR", RRF_RT_REG_DWORD, &update, sizeof update))
        numbers += "." + std::to_string(update);

    std::string product = read_text(version_key, L"ProductName");
    constexpr DWORD first_eleven = 22000;
    constexpr std::string_view ten = "Windows 10";
    if (system.wProductType == VER_NT_WORKSTATION && system.dwBuildNumber >= first_eleven && product.starts_with(ten))
        product.replace(0, ten.size(), "Windows 11"); // the registry keeps the old name
    if (product.empty())
        product = "Windows";
    std::string release = read_text(version_key, L"DisplayVersion");
    if (release.empty())
        release = read_text(version_key, L"ReleaseId");

    const processor cpu = read_processor(this_cpuid());
    facts found;
    found.hypervisor = name_hypervisor(read_hypervisor(this_cpuid()), read_firmware());
    found.platform = "Windows NT " + numbers + " " + architecture();
    found.type = product;
    found.version = release.empty() ? numbers : release + " (" + numbers + ")";
    found.description = product + (release.empty() ? "" : " " + release);
    found.enhanced_platform = join({found.description, wine(), guest_of(found.hypervisor)});
    found.processor_type = cpu.type;
    if (found.processor_type.empty())
        found.processor_type = read_text(L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", L"ProcessorNameString");
    if (found.processor_type.empty())
        found.processor_type = architecture();
    found.processor_extended = cpu.extended;
    return found;
}

bool qor::system::read_memory(qorMemoryInfo& info) {
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    if (!GlobalMemoryStatusEx(&memory))
        return false;
    info.total = memory.ullTotalPhys;
    info.free = memory.ullAvailPhys;

    // The job of this process, for example that of a container, may limit its memory further.
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
    PROCESS_MEMORY_COUNTERS_EX own{};
    if (QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job, nullptr) &&
        K32GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&own), sizeof own)) {
        const DWORD flags = job.BasicLimitInformation.LimitFlags;
        uint64 limit = info.total;
        if ((flags & JOB_OBJECT_LIMIT_JOB_MEMORY) != 0)
            limit = std::min<uint64>(limit, job.JobMemoryLimit);
        if ((flags & JOB_OBJECT_LIMIT_PROCESS_MEMORY) != 0)
            limit = std::min<uint64>(limit, job.ProcessMemoryLimit);
        if (limit < info.total) {
            info.total = limit;
            info.free = std::min<uint64>(info.free, limit - std::min<uint64>(limit, own.PrivateUsage));
        }
    }
    info.used = info.total - info.free;
    return true;
}

uint32 qor::system::page_size() noexcept {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

uint32 qor::system::count_processors() {
    uint32 count = 0;
    for (const GROUP_AFFINITY& group : usable_processors())
        count += static_cast<uint32>(std::popcount(group.Mask));
    return std::max(1u, count);
}

uint32 qor::system::count_cores() {
    DWORD size = 0;
    GetLogicalProcessorInformationEx(RelationProcessorCore, nullptr, &size);
    std::vector<unsigned char> table(size);
    const auto row = [&table](DWORD at) {
        return reinterpret_cast<SYSTEM_LOGICAL_PROCESSOR_INFORMATION_EX*>(table.data() + at);
    };
    if (size == 0 || !GetLogicalProcessorInformationEx(RelationProcessorCore, row(0), &size))
        return count_processors();
    const std::vector<GROUP_AFFINITY> usable = usable_processors();
    uint32 count = 0;
    for (DWORD at = 0; at < size && row(at)->Size != 0; at += row(at)->Size) {
        const GROUP_AFFINITY& core = row(at)->Processor.GroupMask[0]; // a core lies in a single group
        count += std::any_of(usable.begin(), usable.end(), [&core](const GROUP_AFFINITY& group) {
            return group.Group == core.Group && (group.Mask & core.Mask) != 0;
        });
    }
    return std::max(1u, count);
}
