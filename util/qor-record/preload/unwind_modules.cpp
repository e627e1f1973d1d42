#include "unwind_modules.h"
#include "unwind.h"
#include "unwind_stack.h"

#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace qor::record {

constinit std::atomic<std::uint64_t> module_state{1};
constinit bool without_find_object = false;

namespace {

constexpr std::uintptr_t distance_to(std::size_t value) noexcept { return static_cast<std::uintptr_t>(value); }

// Where the tables of a module lie, by its program headers.
frame_tables tables_of(std::uintptr_t base, const ElfW(Phdr) * headers, unsigned count) noexcept {
    std::uintptr_t header = 0;
    for (unsigned i = 0; i < count; ++i)
        if (headers[i].p_type == PT_GNU_EH_FRAME)
            header = base + distance_to(headers[i].p_vaddr);
    for (unsigned i = 0; i < count && header != 0; ++i) {
        const std::uintptr_t begin = base + distance_to(headers[i].p_vaddr);
        if (headers[i].p_type == PT_LOAD && (headers[i].p_flags & PF_R) != 0 && header >= begin &&
            header - begin < headers[i].p_filesz)
            return {begin, begin + distance_to(headers[i].p_filesz), header};
    }
    return {0, 0, 0};
}

// The executable segments of the process and the tables that belong to them. One thread at a time writes, under the
// loader's lock; readers that meet a writer find nothing.
class segment_list {
public:
    void begin() noexcept {
        m_version.store(m_version.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        m_filling = 0;
    }

    void add(const dl_phdr_info& module) noexcept {
        const frame_tables tables = tables_of(module.dlpi_addr, module.dlpi_phdr, module.dlpi_phnum);
        for (unsigned i = 0; i < module.dlpi_phnum && m_filling < capacity; ++i) {
            const ElfW(Phdr)& segment = module.dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0)
                continue;
            const std::uintptr_t values[] = {module.dlpi_addr + distance_to(segment.p_vaddr),
                                             module.dlpi_addr + distance_to(segment.p_vaddr + segment.p_memsz),
                                             tables.begin, tables.end, tables.header};
            static_assert(sizeof values == sizeof m_entries[0]);
            for (unsigned k = 0; k < fields; ++k)
                m_entries[m_filling][k].store(values[k], std::memory_order_relaxed);
            ++m_filling;
        }
    }

    void end() noexcept {
        m_count.store(m_filling, std::memory_order_relaxed);
        m_version.store(m_version.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    bool find(std::uintptr_t pc, frame_tables& result) const noexcept {
        const unsigned version = m_version.load(std::memory_order_acquire);
        const unsigned count = m_count.load(std::memory_order_relaxed);
        for (unsigned i = 0; i < count; ++i) {
            const auto value = [this, i](unsigned k) { return m_entries[i][k].load(std::memory_order_relaxed); };
            if (pc - value(0) >= value(1) - value(0))
                continue;
            result = {value(2), value(3), value(4)};
            std::atomic_thread_fence(std::memory_order_acquire);
            return (version & 1) == 0 && m_version.load(std::memory_order_relaxed) == version;
        }
        return false;
    }

private:
    static constexpr unsigned capacity = 2048;
    static constexpr unsigned fields = 5; // begin and end of the segment, then those of frame_tables
    std::atomic<unsigned> m_version{0};
    std::atomic<unsigned> m_count{0};
    unsigned m_filling = 0;
    std::atomic<std::uintptr_t> m_entries[capacity][fields]{};
};

constinit segment_list first_segments;
constinit segment_list later_segments; // those of all modules, where the C library does not tell them

void read_segments(segment_list& list) noexcept {
    struct reading {
        segment_list& list;
        bool began;
    } now{list, false};
    // The loader's lock, which dl_iterate_phdr holds, keeps two threads apart.
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t, void* argument) {
            reading& state = *static_cast<reading*>(argument);
            if (!state.began)
                state.list.begin();
            state.began = true;
            state.list.add(*module);
            return 0;
        },
        &now);
    if (now.began)
        list.end();
}

#if defined(DLFO_STRUCT_HAS_EH_DBASE)
// A function of the C library 2.35 and newer, lock-free and safe in signal handlers. An older one would not load a
// library that is linked to it.
constinit decltype(&_dl_find_object) find_in_c_library = nullptr;

bool can_find_objects() noexcept { return !without_find_object && find_in_c_library != nullptr; }

void look_for_find_object() noexcept {
    find_in_c_library = reinterpret_cast<decltype(find_in_c_library)>(dlsym(RTLD_DEFAULT, "_dl_find_object"));
}

// A module that came later, by the headers that are mapped with it.
bool find_object(std::uintptr_t pc, frame_tables& result) noexcept {
    dl_find_object object;
    if (find_in_c_library(reinterpret_cast<void*>(pc), &object) != 0)
        return false;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(object.dlfo_map_start);
    if (!is_readable(start))
        return false;
    ElfW(Ehdr) file;
    std::memcpy(&file, reinterpret_cast<const void*>(start), sizeof file);
    if (std::memcmp(file.e_ident, ELFMAG, SELFMAG) != 0 || file.e_phentsize != sizeof(ElfW(Phdr)) ||
        file.e_phoff % alignof(ElfW(Phdr)) != 0 || file.e_phoff > page_size ||
        file.e_phnum > (page_size - file.e_phoff) / sizeof(ElfW(Phdr)))
        return false;
    const auto* const headers = reinterpret_cast<const ElfW(Phdr)*>(start + file.e_phoff);
    // The lowest segment lies at the start of the mapping, and holds the headers.
    std::uintptr_t lowest = ~std::uintptr_t{0};
    for (unsigned i = 0; i < file.e_phnum; ++i)
        if (headers[i].p_type == PT_LOAD && headers[i].p_vaddr < lowest)
            lowest = headers[i].p_vaddr & ~(page_size - 1);
    const std::uintptr_t base = start - lowest;
    for (unsigned i = 0; i < file.e_phnum; ++i)
        if (headers[i].p_type == PT_LOAD && (headers[i].p_flags & PF_X) != 0 &&
            pc - (base + headers[i].p_vaddr) < headers[i].p_memsz) {
            result = tables_of(base, headers, file.e_phnum);
            return true;
        }
    return false;
}
#else
bool can_find_objects() noexcept { return false; }

void look_for_find_object() noexcept {}

bool find_object(std::uintptr_t, frame_tables&) noexcept { return false; }
#endif

// The bytes of the build id, which stand in a note.
void find_build_id(std::uintptr_t base, const ElfW(Phdr) & segment, module_info& result) noexcept {
    const unsigned char* at = reinterpret_cast<const unsigned char*>(base + segment.p_vaddr);
    std::size_t left = segment.p_memsz;
    ElfW(Nhdr) note;
    while (left >= sizeof note) {
        std::memcpy(&note, at, sizeof note);
        const std::size_t align = segment.p_align == 8 ? 7 : 3;
        const std::size_t name = sizeof note;
        const std::size_t content = (name + note.n_namesz + align) & ~align;
        const std::size_t size = (content + note.n_descsz + align) & ~align;
        if (content + note.n_descsz > left)
            return;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && std::memcmp(at + name, "GNU", 4) == 0) {
            result.build_id = at + content;
            result.build_id_size = note.n_descsz;
            return;
        }
        if (size > left)
            return;
        at += size;
        left -= size;
    }
}

} // namespace

bool find_module(std::uintptr_t pc, found_module& result) noexcept {
    result.stays = first_segments.find(pc, result.tables);
    if (result.stays)
        return true;
    return can_find_objects() ? find_object(pc, result.tables) : later_segments.find(pc, result.tables);
}

void read_first_modules() noexcept {
    look_for_find_object();
    read_segments(first_segments);
    read_later_modules();
}

void read_later_modules() noexcept {
    if (!can_find_objects())
        read_segments(later_segments);
}

void visit_modules(void (*visitor)(const module_info&, void*), void* argument) noexcept {
    struct visit {
        void (*visitor)(const module_info&, void*);
        void* argument;
        bool is_program;
        char path[4096];
    } now{visitor, argument, true, {}};
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t, void* state) {
            visit& each = *static_cast<visit*>(state);
            module_info info{module->dlpi_addr, ~std::uintptr_t{0}, 0, module->dlpi_name, nullptr, 0};
            if (each.is_program) {
                // Without /proc, the name by which the program was started.
                const ssize_t length = readlink("/proc/self/exe", each.path, sizeof each.path - 1);
                each.path[length > 0 ? length : 0] = '\0';
                const char* const started = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
                info.path = length > 0 ? each.path : started != nullptr ? started : "";
            }
            each.is_program = false;
            for (unsigned i = 0; i < module->dlpi_phnum; ++i) {
                const ElfW(Phdr)& segment = module->dlpi_phdr[i];
                const std::uintptr_t begin = module->dlpi_addr + distance_to(segment.p_vaddr);
                if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
                    info.begin = begin < info.begin ? begin : info.begin;
                    info.end = begin + segment.p_memsz > info.end ? begin + segment.p_memsz : info.end;
                } else if (segment.p_type == PT_NOTE && info.build_id == nullptr) {
                    find_build_id(module->dlpi_addr, segment, info);
                }
            }
            if (info.end != 0)
                each.visitor(info, each.argument);
            return 0;
        },
        &now);
}

void modules_changing() noexcept { module_state.fetch_add(one_change); }

void modules_changed() noexcept {
    read_later_modules();
    std::uint64_t before = module_state.load();
    std::uint64_t after;
    do {
        // The number is never 0, which stands for modules that are never unloaded.
        const std::uint32_t number = static_cast<std::uint32_t>(before) + 1;
        const std::uint64_t changes = before / one_change;
        after = (changes - (changes != 0)) * one_change + (number == 0 ? 1 : number);
    } while (!module_state.compare_exchange_weak(before, after));
}

} // namespace qor::record
