// The modules of the process, as the system tells when it loads and unloads them. Places in them are found without a
// lock.
#include "image_windows.h"
#include "process.h"
#include "recording_windows.h"
#include "walk_windows.h"

#include "shared/operator_names.h"

namespace qor::record {

namespace {

// A module is loaded while its base is here, at its number.
constinit std::atomic<const void*> bases[most_modules]{};

constexpr unsigned most_ranges = 512;
constinit std::atomic<std::uintptr_t> range_begins[most_ranges]{};
constinit std::atomic<std::uintptr_t> range_ends[most_ranges]{};
constinit std::atomic<unsigned> range_count{0};

bool is_allocation_code(std::uintptr_t address) noexcept {
    const unsigned count = range_count.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i)
        if (address > range_begins[i].load(std::memory_order_relaxed) &&
            address <= range_ends[i].load(std::memory_order_relaxed))
            return true;
    return false;
}

void add_operators(const loaded_image& image) noexcept {
    for (const char* const name : operator_names)
        if (const DWORD* const entry = image.find_export(name))
            add_allocation_code(image.begin() + *entry, image.begin() + image.end_of_function(*entry));
}

void drop_operators(const loaded_image& image) noexcept {
    const unsigned count = range_count.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i)
        if (range_begins[i].load() >= image.begin() && range_begins[i].load() < image.end())
            range_begins[i].store(~std::uintptr_t{0});
}

// The GUID by which a debugger recognises the file.
void read_build_id(const loaded_image& image, module& found) noexcept {
    const IMAGE_DATA_DIRECTORY place = image.directory(IMAGE_DIRECTORY_ENTRY_DEBUG);
    const auto* const entries = image.at<const IMAGE_DEBUG_DIRECTORY>(place.VirtualAddress);
    for (unsigned i = 0; i < place.Size / sizeof *entries; ++i) {
        const DWORD at = entries[i].AddressOfRawData;
        if (entries[i].Type != IMAGE_DEBUG_TYPE_CODEVIEW || at == 0 || at > image.size() - 20 ||
            __builtin_memcmp(image.at<const char>(at), "RSDS", 4) != 0)
            continue;
        found.build_id_size = 16;
        __builtin_memcpy(found.build_id, image.at<const char>(at + 4), 16);
        return;
    }
}

bool is_same(const module& one, const module& other, const char* name, std::uint32_t length) noexcept {
    return one.begin == other.begin && one.end == other.end && one.build_id_size == other.build_id_size &&
           __builtin_memcmp(one.build_id, other.build_id, other.build_id_size) == 0 &&
           __builtin_memcmp(this_process.shared->texts + one.name, name, length) == 0;
}

// The number of the module, which it may have had before; 0: there is no room for it.
std::uint32_t number_of(module& found, const char* name, std::uint32_t length) noexcept {
    arena& shared = *this_process.shared;
    const std::uint32_t count = shared.module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count; ++number)
        if (is_same(shared.modules[number], found, name, length))
            return number;
    const std::uint32_t text = shared.text_size.load(std::memory_order_relaxed);
    if (count >= most_modules || length > sizeof shared.texts - text)
        return 0;
    __builtin_memcpy(shared.texts + text, name, length);
    shared.text_size.store(text + length, std::memory_order_relaxed);
    found.name = text;
    shared.modules[count] = found;
    shared.module_count.store(count + 1, std::memory_order_release);
    return count;
}

} // namespace

void add_allocation_code(std::uintptr_t begin, std::uintptr_t end) noexcept {
    const unsigned number = range_count.load(std::memory_order_relaxed);
    if (number == most_ranges || begin >= end)
        return;
    range_begins[number].store(begin, std::memory_order_relaxed);
    range_ends[number].store(end, std::memory_order_relaxed);
    range_count.store(number + 1, std::memory_order_release);
}

void add_allocation_code_of_program() noexcept {
    const arena& shared = *this_process.shared;
    const loaded_image program(GetModuleHandleW(nullptr));
    for (unsigned i = 0; i < shared.program_range_count && i < most_program_ranges; ++i) {
        const auto begin = static_cast<std::uint32_t>(shared.program_ranges[i].begin);
        add_allocation_code(program.begin() + begin, program.begin() + program.end_of_function(begin));
    }
}

std::uint32_t find_module_of(std::uintptr_t address) noexcept {
    const arena& shared = *this_process.shared;
    const std::uint32_t count = shared.module_count.load(std::memory_order_acquire);
    std::uint32_t number = 1;
    // A return address may lie behind the last byte of its module.
    while (number < count && (bases[number].load(std::memory_order_acquire) == nullptr ||
                              address - 1 < shared.modules[number].begin || address - 1 >= shared.modules[number].end))
        ++number;
    number = (number < count ? number : 0) | (is_allocation_code(address) ? allocation_code : 0);
    if ((address & ~place_address_bits) == 0)
        place_of(address).store(address | std::uint64_t{number} << 48, std::memory_order_relaxed);
    return number;
}

void module_came(const void* base, const wchar_t* path, unsigned length) noexcept {
    const loaded_image image(base);
    bool is_known = false;
    const std::uint32_t count = this_process.shared->module_count.load(std::memory_order_relaxed);
    for (std::uint32_t number = 1; number < count && !is_known; ++number)
        is_known = bases[number].load(std::memory_order_relaxed) == base;
    if (!is_known) {
        char name[4096];
        const int size =
            WideCharToMultiByte(CP_UTF8, 0, path, static_cast<int>(length), name, sizeof name - 1, nullptr, nullptr);
        name[size > 0 ? size : 0] = '\0';
        module found{};
        found.begin = found.base = image.begin();
        found.end = image.end();
        read_build_id(image, found);
        add_operators(image);
        forget_places(); // this was no module
        forget_rules();
        if (const std::uint32_t number = number_of(found, name, static_cast<std::uint32_t>(size > 0 ? size : 0) + 1))
            bases[number].store(base, std::memory_order_release);
    }
    unsigned begin = length;
    while (begin > 0 && path[begin - 1] != L'\\')
        --begin;
    hook_module(base, path + begin, length - begin);
}

void module_goes(const void* base) noexcept {
    forget_runtime(base);
    drop_operators(loaded_image(base));
    const std::uint32_t count = this_process.shared->module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count; ++number) {
        if (bases[number].load(std::memory_order_acquire) != base)
            continue;
        bases[number].store(nullptr, std::memory_order_release);
        forget_places();
        forget_rules();
        forget_stacks();
        record_module_gone(number);
    }
}

void for_each_module(void (*tell)(const void* base) noexcept) noexcept {
    const std::uint32_t count = this_process.shared->module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count; ++number)
        if (const void* const base = bases[number].load(std::memory_order_acquire))
            tell(base);
}

void forget_places() noexcept {
    for (auto& place : places)
        place.store(0, std::memory_order_relaxed);
}

} // namespace qor::record
