// The hooks. A release is recorded before the block is released, an allocation after it was allocated, so that in the
// order of the records a block is never allocated twice.
#include "hooks_windows.h"

#include "recording_windows.h"

#include <windows.h>

namespace qor::record {

const char* const runtime_function_names[] = {
#define QOR_FUNCTION(name, exported) exported,
#include "runtime_functions.def"
#undef QOR_FUNCTION
};

namespace {

#define QOR_CALLER __builtin_return_address(0)

template <class Call>
[[gnu::always_inline]] inline void* allocate(void* caller, std::size_t size, Call call) {
    void* const made = call();
    if (made != nullptr)
        record_allocation(record_kind::allocation, made, size, caller);
    return made;
}

// `keeps`: a failure leaves the block as it is, also if the wanted size is 0.
template <class Call>
[[gnu::always_inline]] inline void* reallocate(void* caller, void* block, std::size_t size, bool keeps, Call call) {
    if (block == nullptr)
        return allocate(caller, size, call);
    record_release(record_kind::moved_from, block, caller);
    void* const moved = call();
    if (moved != nullptr)
        record_allocation(record_kind::moved_to, moved, size, caller);
    else if (keeps || size != 0)
        record_allocation(record_kind::not_moved, block, size, caller);
    return moved;
}

[[gnu::always_inline]] inline void release(void* caller, void* block) {
    if (block != nullptr)
        record_release(record_kind::release, block, caller);
}

std::size_t length_of(const char* text) noexcept {
    std::size_t length = 0;
    while (text[length] != '\0')
        ++length;
    return length;
}

std::size_t length_of(const wchar_t* text) noexcept {
    std::size_t length = 0;
    while (text[length] != L'\0')
        ++length;
    return length;
}

// A function that makes a text.
template <class Call>
[[gnu::always_inline]] inline auto* make_text(void* caller, Call call) {
    auto* const text = call();
    if (text != nullptr)
        record_allocation(record_kind::allocation, text, (length_of(text) + 1) * sizeof *text, caller);
    return text;
}

// The same for one that may be given the place for it.
template <class Char, class Call>
[[gnu::always_inline]] inline Char* fill_text(void* caller, const Char* place, Call call) {
    return place != nullptr ? call() : make_text(caller, call);
}

template <unsigned Number>
struct hooks_of {
    template <class Function>
    static Function* original(runtime_function which) noexcept {
        return reinterpret_cast<Function*>(runtimes[Number].original[which]);
    }

    // ---- plain blocks
    using malloc_type = void*(std::size_t);
    template <runtime_function Which>
    static void* make(std::size_t size) {
        return allocate(QOR_CALLER, size, [=] { return original<malloc_type>(Which)(size); });
    }
    template <runtime_function Which>
    static void* make_zeroed(std::size_t count, std::size_t size) {
        return allocate(QOR_CALLER, count * size,
                        [=] { return original<void*(std::size_t, std::size_t)>(Which)(count, size); });
    }
    template <runtime_function Which>
    static void* change(void* block, std::size_t size) {
        return reallocate(QOR_CALLER, block, size, false,
                          [=] { return original<void*(void*, std::size_t)>(Which)(block, size); });
    }
    static void* recalloc(void* block, std::size_t count, std::size_t size) {
        return reallocate(QOR_CALLER, block, count * size, false, [=] {
            return original<void*(void*, std::size_t, std::size_t)>(fn_recalloc)(block, count, size);
        });
    }
    static void* expand(void* block, std::size_t size) {
        void* const same = original<void*(void*, std::size_t)>(fn_expand)(block, size);
        if (same != nullptr) {
            record_release(record_kind::moved_from, same, QOR_CALLER);
            record_allocation(record_kind::moved_to, same, size, QOR_CALLER);
        }
        return same;
    }
    template <runtime_function Which>
    static void end(void* block) {
        release(QOR_CALLER, block);
        original<void(void*)>(Which)(block);
    }

    // ---- aligned blocks
    static void* aligned_malloc(std::size_t size, std::size_t alignment) {
        return allocate(QOR_CALLER, size,
                        [=] { return original<void*(std::size_t, std::size_t)>(fn_aligned_malloc)(size, alignment); });
    }
    static void* aligned_offset_malloc(std::size_t size, std::size_t alignment, std::size_t offset) {
        return allocate(QOR_CALLER, size, [=] {
            return original<void*(std::size_t, std::size_t, std::size_t)>(fn_aligned_offset_malloc)(size, alignment,
                                                                                                    offset);
        });
    }
    static void* aligned_realloc(void* block, std::size_t size, std::size_t alignment) {
        return reallocate(QOR_CALLER, block, size, false, [=] {
            return original<void*(void*, std::size_t, std::size_t)>(fn_aligned_realloc)(block, size, alignment);
        });
    }
    static void* aligned_recalloc(void* block, std::size_t count, std::size_t size, std::size_t alignment) {
        return reallocate(QOR_CALLER, block, count * size, false, [=] {
            using type = void*(void*, std::size_t, std::size_t, std::size_t);
            return original<type>(fn_aligned_recalloc)(block, count, size, alignment);
        });
    }
    static void* aligned_offset_realloc(void* block, std::size_t size, std::size_t alignment, std::size_t offset) {
        return reallocate(QOR_CALLER, block, size, false, [=] {
            using type = void*(void*, std::size_t, std::size_t, std::size_t);
            return original<type>(fn_aligned_offset_realloc)(block, size, alignment, offset);
        });
    }
    static void* aligned_offset_recalloc(void* block, std::size_t count, std::size_t size, std::size_t alignment,
                                         std::size_t offset) {
        return reallocate(QOR_CALLER, block, count * size, false, [=] {
            using type = void*(void*, std::size_t, std::size_t, std::size_t, std::size_t);
            return original<type>(fn_aligned_offset_recalloc)(block, count, size, alignment, offset);
        });
    }

    // ---- texts
    template <runtime_function Which, class Char>
    static Char* copy_text(const Char* text) {
        return make_text(QOR_CALLER, [=] { return original<Char*(const Char*)>(Which)(text); });
    }
    template <runtime_function Which, class Char>
    static Char* folder(Char* place, int size) {
        return fill_text(QOR_CALLER, place, [=] { return original<Char*(Char*, int)>(Which)(place, size); });
    }
    template <runtime_function Which, class Char>
    static Char* folder_of_drive(int drive, Char* place, int size) {
        return fill_text(QOR_CALLER, place,
                         [=] { return original<Char*(int, Char*, int)>(Which)(drive, place, size); });
    }
    template <runtime_function Which, class Char>
    static Char* full_path(Char* place, const Char* path, std::size_t size) {
        return fill_text(QOR_CALLER, place,
                         [=] { return original<Char*(Char*, const Char*, std::size_t)>(Which)(place, path, size); });
    }
    template <runtime_function Which, class Char>
    static Char* temporary_name(const Char* folder, const Char* prefix) {
        return make_text(QOR_CALLER, [=] { return original<Char*(const Char*, const Char*)>(Which)(folder, prefix); });
    }
    template <runtime_function Which, class Char>
    static int variable(Char** text, std::size_t* size, const Char* name) {
        const int error = original<int(Char**, std::size_t*, const Char*)>(Which)(text, size, name);
        if (error == 0 && *text != nullptr)
            record_allocation(record_kind::allocation, *text, (length_of(*text) + 1) * sizeof(Char), QOR_CALLER);
        return error;
    }

    template <class Function>
    static void* address_of(Function* function) noexcept {
        return reinterpret_cast<void*>(function);
    }
    static void* const* table() noexcept;
};

template <unsigned Number>
void* const* hooks_of<Number>::table() noexcept {
    static void* const addresses[] = {
        address_of(&hooks_of::template make<fn_malloc>),
        address_of(&hooks_of::template make_zeroed<fn_calloc>),
        address_of(&hooks_of::template change<fn_realloc>),
        address_of(&recalloc),
        address_of(&expand),
        address_of(&hooks_of::template end<fn_free>),
        address_of(&hooks_of::template make<fn_malloc_base>),
        address_of(&hooks_of::template make_zeroed<fn_calloc_base>),
        address_of(&hooks_of::template change<fn_realloc_base>),
        address_of(&hooks_of::template end<fn_free_base>),
        address_of(&aligned_malloc),
        address_of(&aligned_offset_malloc),
        address_of(&aligned_realloc),
        address_of(&aligned_recalloc),
        address_of(&aligned_offset_realloc),
        address_of(&aligned_offset_recalloc),
        address_of(&hooks_of::template end<fn_aligned_free>),
        address_of(&hooks_of::template make<fn_operator_new>),
        address_of(&hooks_of::template make<fn_operator_new_array>),
        address_of(&hooks_of::template end<fn_operator_delete>),
        address_of(&hooks_of::template end<fn_operator_delete_array>),
        address_of(&hooks_of::template copy_text<fn_strdup, char>),
        address_of(&hooks_of::template copy_text<fn_strdup_plain, char>),
        address_of(&hooks_of::template copy_text<fn_mbsdup, char>),
        address_of(&hooks_of::template copy_text<fn_wcsdup, wchar_t>),
        address_of(&hooks_of::template copy_text<fn_wcsdup_plain, wchar_t>),
        address_of(&hooks_of::template folder<fn_getcwd, char>),
        address_of(&hooks_of::template folder<fn_getcwd_plain, char>),
        address_of(&hooks_of::template folder<fn_wgetcwd, wchar_t>),
        address_of(&hooks_of::template folder_of_drive<fn_getdcwd, char>),
        address_of(&hooks_of::template folder_of_drive<fn_wgetdcwd, wchar_t>),
        address_of(&hooks_of::template full_path<fn_fullpath, char>),
        address_of(&hooks_of::template full_path<fn_wfullpath, wchar_t>),
        address_of(&hooks_of::template temporary_name<fn_tempnam, char>),
        address_of(&hooks_of::template temporary_name<fn_tempnam_plain, char>),
        address_of(&hooks_of::template temporary_name<fn_wtempnam, wchar_t>),
        address_of(&hooks_of::template variable<fn_dupenv_s, char>),
        address_of(&hooks_of::template variable<fn_wdupenv_s, wchar_t>),
    };
    static_assert(sizeof addresses / sizeof *addresses == runtime_function_count);
    return addresses;
}

// ---- the heaps of the system

template <class Function>
Function* system_original(const system_function& of) noexcept {
    return reinterpret_cast<Function*>(of.original[0]);
}

enum : unsigned { heap_alloc, heap_realloc, heap_free, heap_destroy };

void* WINAPI allocate_in_heap(HANDLE heap, DWORD flags, SIZE_T size) {
    return allocate(QOR_CALLER, size, [=] {
        return system_original<decltype(HeapAlloc)>(heap_functions[heap_alloc])(heap, flags, size);
    });
}

void* WINAPI reallocate_in_heap(HANDLE heap, DWORD flags, void* block, SIZE_T size) {
    return reallocate(QOR_CALLER, block, size, true, [=] {
        return system_original<decltype(HeapReAlloc)>(heap_functions[heap_realloc])(heap, flags, block, size);
    });
}

BOOL WINAPI free_in_heap(HANDLE heap, DWORD flags, void* block) {
    release(QOR_CALLER, block);
    return system_original<decltype(HeapFree)>(heap_functions[heap_free])(heap, flags, block);
}

// Its blocks go with it.
BOOL WINAPI destroy_heap(HANDLE heap) {
    PROCESS_HEAP_ENTRY entry{};
    while (HeapWalk(heap, &entry))
        if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
            release(QOR_CALLER, entry.lpData);
    return system_original<decltype(HeapDestroy)>(heap_functions[heap_destroy])(heap);
}

} // namespace

void* const* hooks_of_runtime(unsigned number) noexcept {
    using table = void* const*() noexcept;
    static table* const tables[] = {&hooks_of<0>::table, &hooks_of<1>::table, &hooks_of<2>::table, &hooks_of<3>::table,
                                    &hooks_of<4>::table, &hooks_of<5>::table, &hooks_of<6>::table, &hooks_of<7>::table};
    static_assert(sizeof tables / sizeof *tables == most_runtimes);
    return tables[number]();
}

system_function heap_functions[] = {
    {"HeapAlloc", reinterpret_cast<void*>(&allocate_in_heap), {}},
    {"HeapReAlloc", reinterpret_cast<void*>(&reallocate_in_heap), {}},
    {"HeapFree", reinterpret_cast<void*>(&free_in_heap), {}},
    {"HeapDestroy", reinterpret_cast<void*>(&destroy_heap), {}},
};

runtime runtimes[most_runtimes];

} // namespace qor::record
