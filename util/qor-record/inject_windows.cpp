#include "inject_windows.h"

#include "messages.h"
#include "shared/injection_windows.h"
#include "wide_text_windows.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>
#include <windows.h>
#include <winternl.h>

namespace qor::record {

namespace {

bool is_plain(const std::wstring& text) {
    return std::ranges::all_of(text, [](wchar_t c) { return c >= L' ' && c < 0x7f; });
}

// The memory of the other process.
class other_memory {
public:
    explicit other_memory(HANDLE process) : m_process(process) {}

    template <class Type>
    bool read(std::uintptr_t from, Type& to) const {
        SIZE_T size = 0;
        return ReadProcessMemory(m_process, reinterpret_cast<void*>(from), &to, sizeof to, &size) && size == sizeof to;
    }
    bool write(std::uintptr_t to, const void* from, std::size_t size) const {
        SIZE_T done = 0;
        return WriteProcessMemory(m_process, reinterpret_cast<void*>(to), from, size, &done) && done == size;
    }
    // Takes memory behind `begin` that a distance of 32 bits reaches from `base`. Returns 0 without such memory.
    std::uintptr_t take(std::uintptr_t base, std::uintptr_t begin, std::size_t size) const {
        constexpr std::uintptr_t step = 0x10000; // in which the system gives out addresses
        for (std::uintptr_t at = (begin + step - 1) / step * step; at < base + 0x7fff0000;) {
            MEMORY_BASIC_INFORMATION about;
            if (VirtualQueryEx(m_process, reinterpret_cast<void*>(at), &about, sizeof about) == 0)
                return 0;
            const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(about.BaseAddress) + about.RegionSize;
            if (about.State == MEM_FREE && end - at >= size &&
                VirtualAllocEx(m_process, reinterpret_cast<void*>(at), size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))
                return at;
            at = (end + step - 1) / step * step;
        }
        return 0;
    }

private:
    HANDLE m_process;
};

// A handle in the other process; 0: it cannot have one.
std::uint64_t give(HANDLE process, HANDLE handle, DWORD rights, DWORD how) {
    HANDLE given = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle, process, &given, rights, FALSE, how))
        return 0;
    return reinterpret_cast<std::uintptr_t>(given);
}

std::uintptr_t base_of_program(HANDLE process, const other_memory& memory) {
    PROCESS_BASIC_INFORMATION about{};
    std::uintptr_t base = 0;
    constexpr std::uintptr_t image_base = 16; // in the system's structure
    if (NtQueryInformationProcess(process, ProcessBasicInformation, &about, sizeof about, nullptr) != 0 ||
        !memory.read(reinterpret_cast<std::uintptr_t>(about.PebBaseAddress) + image_base, base))
        return 0;
    return base;
}

std::vector<IMAGE_IMPORT_DESCRIPTOR> imports_of(const other_memory& memory, std::uintptr_t begin) {
    constexpr std::size_t most = 4096;
    std::vector<IMAGE_IMPORT_DESCRIPTOR> found;
    IMAGE_IMPORT_DESCRIPTOR next;
    while (found.size() < most && memory.read(begin + found.size() * sizeof next, next) && next.FirstThunk != 0)
        found.push_back(next);
    return found;
}

} // namespace

bool find_hooks(std::string& path) {
    std::wstring file(32768, L'\0');
    file.resize(GetModuleFileNameW(nullptr, file.data(), static_cast<DWORD>(file.size())));
    file.erase(file.rfind(L'\\') + 1);
    file += wide(hooks_library);
    if (GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES) {
        say(message::preload_missing, {narrow(file)});
        return false;
    }
    std::wstring plain = file;
    if (!is_plain(plain)) {
        plain.resize(32768);
        plain.resize(GetShortPathNameW(file.c_str(), plain.data(), static_cast<DWORD>(plain.size())));
    }
    if (plain.empty() || !is_plain(plain)) {
        say(message::hooks_path, {narrow(file)});
        return false;
    }
    path = narrow(plain);
    return true;
}

injected inject(void* process, void* arena, const std::string& hooks) {
    const other_memory memory(process);
    const std::uintptr_t base = base_of_program(process, memory);
    IMAGE_DOS_HEADER first;
    IMAGE_NT_HEADERS64 headers;
    if (base == 0 || !memory.read(base, first) ||
        !memory.read(base + static_cast<std::uint32_t>(first.e_lfanew), headers))
        return injected::failed;
    if (headers.FileHeader.Machine != IMAGE_FILE_MACHINE_AMD64)
        return injected::is_foreign;
    IMAGE_DATA_DIRECTORY& imports = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    IMAGE_DATA_DIRECTORY& bound = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BOUND_IMPORT];
    IMAGE_DATA_DIRECTORY& addresses = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];

    // The head, the imports with the library in front and an empty one behind, two tables of one function, the name.
    std::vector<IMAGE_IMPORT_DESCRIPTOR> list;
    if (imports.VirtualAddress != 0)
        list = imports_of(memory, base + imports.VirtualAddress);
    list.insert(list.begin(), IMAGE_IMPORT_DESCRIPTOR{});
    list.push_back({});
    const std::size_t list_size = list.size() * sizeof list[0];
    const std::size_t tables_at = (injection_size + list_size + 15) / 16 * 16;
    constexpr std::uint64_t tables[] = {IMAGE_ORDINAL_FLAG64 | 1, 0, IMAGE_ORDINAL_FLAG64 | 1, 0};
    const std::size_t name_at = tables_at + sizeof tables;
    const std::size_t size = name_at + hooks.size() + 1;
    const std::uintptr_t place = memory.take(base, base + headers.OptionalHeader.SizeOfImage, size);
    if (place == 0)
        return injected::failed;
    const auto address = static_cast<std::uint32_t>(place - base);
    list[0].OriginalFirstThunk = address + static_cast<std::uint32_t>(tables_at);
    list[0].FirstThunk = list[0].OriginalFirstThunk + 2 * sizeof tables[0];
    list[0].Name = address + static_cast<std::uint32_t>(name_at);
    const injection head{injection_magic,
                         give(process, arena, 0, DUPLICATE_SAME_ACCESS),
                         give(process, GetCurrentProcess(), SYNCHRONIZE, 0),
                         {imports.VirtualAddress, imports.Size},
                         {bound.VirtualAddress, bound.Size},
                         {addresses.VirtualAddress, addresses.Size}};
    if (head.section == 0 || head.recorder == 0)
        return injected::failed;
    std::vector<char> block(size);
    std::memcpy(block.data(), &head, sizeof head);
    std::memcpy(block.data() + injection_size, list.data(), list_size);
    std::memcpy(block.data() + tables_at, tables, sizeof tables);
    std::memcpy(block.data() + name_at, hooks.c_str(), hooks.size() + 1);

    imports = {address + injection_size, static_cast<DWORD>(list_size)};
    bound = {0, 0}; // it would say that the imports need no search
    if (addresses.VirtualAddress == 0)
        addresses = {address, static_cast<DWORD>(size)}; // else the system seeks them in the section of the list
    const std::uintptr_t headers_at = base + static_cast<std::uint32_t>(first.e_lfanew);
    DWORD before;
    if (!memory.write(place, block.data(), size) ||
        !VirtualProtectEx(process, reinterpret_cast<void*>(headers_at), sizeof headers, PAGE_READWRITE, &before))
        return injected::failed;
    const bool is_written = memory.write(headers_at, &headers, sizeof headers);
    VirtualProtectEx(process, reinterpret_cast<void*>(headers_at), sizeof headers, before, &before);
    return is_written ? injected::done : injected::failed;
}

} // namespace qor::record
