// Where the hooks are put: in the tables of imports of all modules, by the addresses that they hold, and in the tables
// of exports of the C run-times, for modules that are loaded later and for GetProcAddress. An address in a table of
// exports is the distance from the beginning of the library, so it leads to a jump near the library.
#include "hooks_windows.h"
#include "image_windows.h"
#include "recording_windows.h"

#include "shared/runtime_names.h"

namespace qor::record {

namespace {

// "jmp" to an address in a register that a call does not keep.
struct [[gnu::packed]] far_jump {
    unsigned char load[2] = {0x48, 0xb8}; // mov rax, TARGET
    void* target = nullptr;
    unsigned char jump[2] = {0xff, 0xe0}; // jmp rax
    unsigned char unused[4] = {0xcc, 0xcc, 0xcc, 0xcc};
};
static_assert(sizeof(far_jump) == 16);

// Makes memory that is usually not written to writable, as long as an object lives.
class writable {
public:
    writable(void* place, std::size_t size) noexcept : m_place(place), m_size(size) {
        constexpr DWORD executable = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
        MEMORY_BASIC_INFORMATION about;
        const bool is_code =
            VirtualQuery(place, &about, sizeof about) != 0 && (about.Protect & executable) != 0; // other threads run it
        m_is_so = VirtualProtect(place, size, is_code ? PAGE_EXECUTE_READWRITE : PAGE_READWRITE, &m_before) != 0;
    }
    ~writable() {
        if (m_is_so)
            VirtualProtect(m_place, m_size, m_before, &m_before);
    }
    writable(const writable&) = delete;
    writable& operator=(const writable&) = delete;
    explicit operator bool() const noexcept { return m_is_so; }

private:
    void* m_place;
    std::size_t m_size;
    DWORD m_before = 0;
    bool m_is_so;
};

bool is_name(const wchar_t* text, unsigned length, const char* name) noexcept {
    for (unsigned i = 0; i < length; ++i) {
        const wchar_t c = text[i] >= L'A' && text[i] <= L'Z' ? static_cast<wchar_t>(text[i] - L'A' + L'a') : text[i];
        if (name[i] == '\0' || c != static_cast<unsigned char>(name[i]))
            return false;
    }
    return name[length] == '\0';
}

runtime* find_runtime(const void* base) noexcept {
    for (runtime& each : runtimes)
        if (each.base == base)
            return &each;
    return nullptr;
}

void* find_hook(const system_function* functions, unsigned count, const void* address) noexcept {
    for (unsigned i = 0; i < count; ++i)
        for (const void* const original : functions[i].original)
            if (original == address)
                return functions[i].hook;
    return nullptr;
}

// Of the system's own libraries and of the run-times, which take blocks for their own functions from the heaps.
bool may_call_heaps(const void* base) noexcept {
    static constinit const void* system[3] = {};
    if (system[0] == nullptr) {
        system[0] = GetModuleHandleW(L"ntdll.dll");
        system[1] = GetModuleHandleW(L"kernel32.dll");
        system[2] = GetModuleHandleW(L"kernelbase.dll");
    }
    return base != system[0] && base != system[1] && base != system[2] && find_runtime(base) == nullptr;
}

void* find_hook(void* address, bool calls_heaps) noexcept {
    const auto place = reinterpret_cast<std::uintptr_t>(address);
    for (unsigned number = 0; number < most_runtimes; ++number) {
        const runtime& of = runtimes[number];
        if (of.base == nullptr || place < of.begin || place >= of.end)
            continue;
        for (unsigned i = 0; i < runtime_function_count; ++i)
            if (of.original[i] == address)
                return hooks_of_runtime(number)[i];
    }
    if (calls_heaps)
        if (void* const hook = find_hook(heap_functions, heap_function_count, address))
            return hook;
    return find_hook(start_functions, start_function_count, address);
}

void hook_imports(const void* base) noexcept {
    const loaded_image image(base);
    const IMAGE_DATA_DIRECTORY place = image.directory(IMAGE_DIRECTORY_ENTRY_IMPORT);
    if (place.Size == 0 || is_own_code(image.begin()))
        return;
    const bool calls_heaps = may_call_heaps(base);
    unsigned count = 0;
    for (auto* each = image.at<IMAGE_IMPORT_DESCRIPTOR>(place.VirtualAddress); each->FirstThunk != 0; ++each)
        for (auto* slot = image.at<void*>(each->FirstThunk); *slot != nullptr; ++slot) {
            void* const hook = find_hook(*slot, calls_heaps);
            if (hook == nullptr)
                continue;
            if (const writable now(slot, sizeof *slot); now) {
                __atomic_store_n(slot, hook, __ATOMIC_RELEASE);
                ++count;
            }
        }
    arena& shared = *this_process.shared;
    shared.hooked_imports.fetch_add(count, std::memory_order_relaxed);
    shared.hooked_modules.fetch_add(count != 0 ? 1 : 0, std::memory_order_relaxed);
    if (base == GetModuleHandleW(nullptr))
        shared.hooked_imports_of_program.fetch_add(count, std::memory_order_relaxed);
}

// Takes memory for jumps that a distance of 32 bits reaches from the image. Returns null without such memory.
far_jump* jumps_near(const loaded_image& image) noexcept {
    constexpr std::uintptr_t step = 0x10000; // in which the system gives out addresses
    constexpr std::size_t size = runtime_function_count * sizeof(far_jump);
    const std::uintptr_t last = image.begin() + 0x7fff0000;
    for (std::uintptr_t at = (image.end() + step - 1) / step * step; at < last;) {
        MEMORY_BASIC_INFORMATION about;
        if (VirtualQuery(reinterpret_cast<void*>(at), &about, sizeof about) == 0)
            return nullptr;
        const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(about.BaseAddress) + about.RegionSize;
        if (about.State == MEM_FREE && end - at >= size)
            if (void* const made =
                    VirtualAlloc(reinterpret_cast<void*>(at), size, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READWRITE))
                return static_cast<far_jump*>(made);
        at = (end + step - 1) / step * step;
    }
    return nullptr;
}

void hook_exports(const loaded_image& image, DWORD* const* entries, void* const* hooks) noexcept {
    far_jump* const jumps = jumps_near(image);
    if (jumps == nullptr)
        return;
    for (unsigned i = 0; i < runtime_function_count; ++i)
        if (entries[i] != nullptr) {
            jumps[i] = {};
            jumps[i].target = hooks[i];
        }
    DWORD before;
    VirtualProtect(jumps, runtime_function_count * sizeof *jumps, PAGE_EXECUTE_READ, &before);
    FlushInstructionCache(GetCurrentProcess(), jumps, runtime_function_count * sizeof *jumps);
    for (unsigned i = 0; i < runtime_function_count; ++i)
        if (entries[i] != nullptr)
            if (const writable now(entries[i], sizeof *entries[i]); now)
                __atomic_store_n(entries[i],
                                 static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(&jumps[i]) - image.begin()),
                                 __ATOMIC_RELEASE);
}

// A run-time that was not known. Functions of two names count once.
void add_runtime(const void* base, unsigned name) noexcept {
    runtime* const free = find_runtime(nullptr);
    if (free == nullptr)
        return;
    const loaded_image image(base);
    DWORD* entries[runtime_function_count];
    for (unsigned i = 0; i < runtime_function_count; ++i) {
        entries[i] = image.find_export(runtime_function_names[i]);
        free->original[i] = entries[i] != nullptr ? image.at<void>(*entries[i]) : nullptr;
    }
    free->begin = image.begin();
    free->end = image.end();
    free->base = base;
    this_process.shared->runtimes.fetch_or(1U << name, std::memory_order_relaxed);
    hook_exports(image, entries, hooks_of_runtime(static_cast<unsigned>(free - runtimes)));
    for_each_module(&hook_imports);
}

void find_originals(system_function* functions, unsigned count) noexcept {
    const HMODULE libraries[] = {GetModuleHandleW(L"kernelbase.dll"), GetModuleHandleW(L"kernel32.dll")};
    for (unsigned i = 0; i < count; ++i)
        for (unsigned j = 0; j < 2; ++j)
            functions[i].original[j] = reinterpret_cast<void*>(GetProcAddress(libraries[j], functions[i].name));
}

} // namespace

void hook_module(const void* base, const wchar_t* name, unsigned length) noexcept {
    if (find_runtime(base) == nullptr)
        for (unsigned i = 0; i < std::size(runtime_names); ++i)
            if (is_name(name, length, runtime_names[i]))
                return add_runtime(base, i); // hooks its imports, too
    hook_imports(base);
}

void forget_runtime(const void* base) noexcept {
    if (runtime* const of = find_runtime(base))
        of->base = nullptr;
}

void find_system_functions() noexcept {
    if (this_process.shared->wants_system_heap != 0)
        find_originals(heap_functions, heap_function_count);
    if (this_process.shared->followed_process == 0)
        find_originals(start_functions, start_function_count);
}

} // namespace qor::record
