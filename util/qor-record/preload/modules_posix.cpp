// The modules of the process, found when a place in them is first seen. The loader's own table answers without a lock,
// while a library is still being loaded, too.
#include "process.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/auxv.h>

namespace qor::record {

namespace {

// The loader's entry for each module when it was found, by the module's number.
struct known_module {
    const link_map* map;
    std::atomic<bool> is_loaded;
};
known_module known[most_modules];

constexpr unsigned most_ranges = most_program_ranges + 64;
code_range ranges[most_ranges];
unsigned range_count;

bool is_allocation_code(std::uintptr_t address) noexcept {
    for (unsigned i = 0; i < range_count; ++i)
        if (address > ranges[i].begin && address <= ranges[i].end)
            return true;
    return false;
}

std::size_t length_of(const char* text) noexcept {
    std::size_t length = 0;
    while (text[length] != '\0')
        ++length;
    return length;
}

bool are_equal(const void* a, const void* b, std::size_t size) noexcept { return __builtin_memcmp(a, b, size) == 0; }

void find_build_id(const ElfW(Nhdr) * note, std::size_t size, module& found) noexcept {
    while (size >= sizeof *note) {
        const std::size_t name = (note->n_namesz + 3U) & ~std::size_t{3};
        const std::size_t whole = sizeof *note + name + ((note->n_descsz + 3U) & ~std::size_t{3});
        if (whole > size)
            return;
        const auto* const text = reinterpret_cast<const char*>(note + 1);
        if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && are_equal(text, "GNU", 4) &&
            note->n_descsz <= most_build_id_bytes) {
            found.build_id_size = static_cast<std::uint8_t>(note->n_descsz);
            __builtin_memcpy(found.build_id, text + name, note->n_descsz);
            return;
        }
        size -= whole;
        note = reinterpret_cast<const ElfW(Nhdr)*>(reinterpret_cast<const char*>(note) + whole);
    }
}

// The headers of a module lie at the beginning of its mapping.
void read_headers(module& found) noexcept {
    const auto* const header = reinterpret_cast<const ElfW(Ehdr)*>(found.begin);
    if (!are_equal(header->e_ident, ELFMAG, SELFMAG) || header->e_phentsize != sizeof(ElfW(Phdr)) ||
        header->e_phoff + header->e_phnum * sizeof(ElfW(Phdr)) > 4096)
        return;
    const auto* const segments = reinterpret_cast<const ElfW(Phdr)*>(found.begin + header->e_phoff);
    for (unsigned i = 0; i < header->e_phnum; ++i) {
        const std::uintptr_t begin = found.base + segments[i].p_vaddr;
        if (segments[i].p_type == PT_NOTE && begin >= found.begin && begin + segments[i].p_memsz <= found.end &&
            found.build_id_size == 0)
            find_build_id(reinterpret_cast<const ElfW(Nhdr)*>(begin), segments[i].p_memsz, found);
    }
}

std::uint32_t add_module(const module& found, const link_map* map) noexcept {
    arena& shared = *this_process.shared;
    const char* const name = map->l_name != nullptr ? map->l_name : "";
    const std::size_t length = length_of(name) + 1;
    // The same one may have been there before, at the same place.
    std::uint32_t count = shared.module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count && number < most_modules; ++number) {
        const module& other = shared.modules[number];
        if (other.begin == found.begin && other.end == found.end && other.base == found.base &&
            other.build_id_size == found.build_id_size &&
            are_equal(other.build_id, found.build_id, found.build_id_size) &&
            are_equal(shared.texts + other.name, name, length)) {
            known[number].map = map;
            known[number].is_loaded.store(true, std::memory_order_release);
            return number;
        }
    }
    const std::uint32_t text =
        shared.text_size.fetch_add(static_cast<std::uint32_t>(length), std::memory_order_relaxed);
    if (text + length > sizeof shared.texts)
        return 0;
    __builtin_memcpy(shared.texts + text, name, length);
    const std::uint32_t number = shared.module_count.fetch_add(1, std::memory_order_relaxed);
    if (number >= most_modules)
        return 0;
    shared.modules[number] = found;
    shared.modules[number].name = text;
    known[number].map = map;
    known[number].is_loaded.store(true, std::memory_order_release);
    return number;
}

bool is_still_there(std::uint32_t number) noexcept {
    const module& there = this_process.shared->modules[number];
    dl_find_object loaded;
    return _dl_find_object(reinterpret_cast<void*>(there.begin), &loaded) == 0 &&
           loaded.dlfo_link_map == known[number].map &&
           reinterpret_cast<std::uintptr_t>(loaded.dlfo_map_end) == there.end;
}

std::uint32_t find_module(std::uintptr_t address) noexcept {
    const arena& shared = *this_process.shared;
    const std::uint32_t count = shared.module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count && number < most_modules; ++number)
        if (known[number].is_loaded.load(std::memory_order_acquire) && address >= shared.modules[number].begin &&
            address < shared.modules[number].end && (!modules_are_changing() || is_still_there(number)))
            return number;
    dl_find_object loaded;
    if (_dl_find_object(reinterpret_cast<void*>(address), &loaded) != 0)
        return 0;
    module found{};
    found.begin = reinterpret_cast<std::uintptr_t>(loaded.dlfo_map_start);
    found.end = reinterpret_cast<std::uintptr_t>(loaded.dlfo_map_end);
    found.base = loaded.dlfo_link_map->l_addr;
    read_headers(found);
    return add_module(found, loaded.dlfo_link_map);
}

} // namespace

std::uint32_t find_module_of(std::uintptr_t address) noexcept {
    // A return address may lie behind the last byte of its module.
    const std::uint32_t number = find_module(address - 1) | (is_allocation_code(address) ? allocation_code : 0);
    if ((address & ~place_address_bits) == 0)
        place_of(address).store(address | std::uint64_t{number} << 48, std::memory_order_relaxed);
    return number;
}

void add_allocation_code(std::uintptr_t begin, std::uintptr_t end) noexcept {
    if (range_count < most_ranges && begin < end)
        ranges[range_count++] = {begin, end};
}

const void* add_allocation_function(void* function) noexcept {
    Dl_info information;
    const ElfW(Sym)* symbol = nullptr;
    if (dladdr1(function, &information, reinterpret_cast<void**>(const_cast<ElfW(Sym)**>(&symbol)), RTLD_DL_SYMENT) ==
        0)
        return nullptr;
    const auto begin = reinterpret_cast<std::uintptr_t>(function);
    if (symbol != nullptr)
        add_allocation_code(begin, begin + symbol->st_size);
    return information.dli_fbase;
}

void add_allocation_code_of_program() noexcept {
    const arena& shared = *this_process.shared;
    dl_find_object program;
    if (shared.program_range_count == 0 || shared.program_range_count > most_program_ranges ||
        _dl_find_object(reinterpret_cast<void*>(getauxval(AT_ENTRY)), &program) != 0)
        return;
    const std::uintptr_t base = program.dlfo_link_map->l_addr;
    for (unsigned i = 0; i < shared.program_range_count; ++i)
        add_allocation_code(base + shared.program_ranges[i].begin, base + shared.program_ranges[i].end);
}

void forget_places() noexcept {
    for (auto& place : places)
        place.store(0, std::memory_order_relaxed);
}

void find_modules_gone(void (*gone)(std::uint32_t module) noexcept) noexcept {
    const arena& shared = *this_process.shared;
    const std::uint32_t count = shared.module_count.load(std::memory_order_acquire);
    for (std::uint32_t number = 1; number < count && number < most_modules; ++number) {
        if (!known[number].is_loaded.load(std::memory_order_acquire) || is_still_there(number))
            continue;
        known[number].is_loaded.store(false, std::memory_order_release);
        gone(number);
    }
}

} // namespace qor::record
