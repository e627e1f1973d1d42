#include "backtrace_reader_windows.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sys/types.h>
#include <utility>

extern "C" {
#include <libbacktrace/config.h>

#include <libbacktrace/backtrace.h>

#include <libbacktrace/internal.h>
}

namespace qor::heap {

namespace {

// libbacktrace never frees all that it has allocated. So its blocks are in a list, and the reader frees them at its
// end.
class memory_of_reader {
public:
    explicit memory_of_reader(uint64 most) : m_most(most) {}
    memory_of_reader(const memory_of_reader&) = delete;
    memory_of_reader& operator=(const memory_of_reader&) = delete;
    ~memory_of_reader() {
        while (m_first != nullptr)
            release(m_first + 1);
    }

    // As realloc() with a size that is not 0. Null: there is no memory, or the limit is reached.
    void* resize(void* old, std::size_t size) noexcept {
        head* const before = old != nullptr ? static_cast<head*>(old) - 1 : nullptr;
        const std::size_t old_size = before != nullptr ? before->size : 0;
        if (size > m_most - (m_used - old_size))
            return nullptr;
        auto* const block = static_cast<head*>(std::realloc(before, sizeof(head) + size));
        if (block == nullptr)
            return nullptr;
        if (before == nullptr) {
            block->next = m_first;
            block->previous = nullptr;
        }
        block->size = size;
        (block->previous != nullptr ? block->previous->next : m_first) = block;
        if (block->next != nullptr)
            block->next->previous = block;
        m_used += size - old_size;
        return block + 1;
    }

    void release(void* old) noexcept {
        if (old == nullptr)
            return;
        head* const block = static_cast<head*>(old) - 1;
        (block->previous != nullptr ? block->previous->next : m_first) = block->next;
        if (block->next != nullptr)
            block->next->previous = block->previous;
        m_used -= block->size;
        std::free(block);
    }

private:
    struct alignas(16) head {
        head *previous, *next;
        std::size_t size;
    };

    uint64 m_most, m_used = 0;
    head* m_first = nullptr;
};

// The state is the first member, so that a pointer to it leads to the memory.
struct reader_state {
    explicit reader_state(uint64 most) : memory(most) {}
    backtrace_state state{};
    memory_of_reader memory;
};

memory_of_reader& memory_of(backtrace_state* state) { return reinterpret_cast<reader_state*>(state)->memory; }

// The texts of libbacktrace are constants.
void note(void* data, const char* text, int) { *static_cast<const char**>(data) = text; }

const char* const names[DEBUG_MAX] = {".debug_info",        ".debug_line",     ".debug_abbrev",
                                      ".debug_ranges",      ".debug_str",      ".debug_addr",
                                      ".debug_str_offsets", ".debug_line_str", ".debug_rnglists"};

class reader final : public backtrace_reader {
public:
    reader(const pe_file& file, uint64 memory) : m_file(file), m_state(memory) {}

    bool open(std::string& reason) {
        dwarf_sections sections;
        for (int i = 0; i < DEBUG_MAX; ++i) {
            const std::string_view content = m_file.content(names[i]);
            sections.data[i] = reinterpret_cast<const unsigned char*>(content.data());
            sections.size[i] = content.size();
        }
        const char* text = "";
        if (backtrace_dwarf_add(&m_state.state, 0, &sections, 0, nullptr, note, &text, &m_state.state.fileline_fn,
                                nullptr))
            return true;
        reason = text;
        return false;
    }

    void find(uint64 address, const place& tell) override {
        m_tell = &tell;
        m_state.state.fileline_fn(&m_state.state, m_file.image_base() + address, found, ignore, this);
        if (m_fault)
            std::rethrow_exception(std::exchange(m_fault, nullptr));
    }

private:
    static int found(void* data, uintptr_t, const char* file, int line, const char* function) {
        reader& self = *static_cast<reader*>(data);
        try {
            (*self.m_tell)(function, file, line);
        } catch (...) {
            self.m_fault = std::current_exception(); // not through the functions of C in between
        }
        return self.m_fault != nullptr;
    }
    static void ignore(void*, const char*, int) {}

    const pe_file& m_file;
    reader_state m_state;
    const place* m_tell = nullptr;
    std::exception_ptr m_fault;
};

} // namespace

std::unique_ptr<backtrace_reader> backtrace_reader::make(const pe_file& file, uint64 memory, std::string& reason) {
    auto result = std::make_unique<reader>(file, memory);
    if (!result->open(reason))
        return nullptr;
    return result;
}

} // namespace qor::heap

// What libbacktrace calls for memory.

extern "C" {

void* backtrace_alloc(backtrace_state* state, size_t size, backtrace_error_callback error, void* data) {
    void* const block = qor::heap::memory_of(state).resize(nullptr, size);
    if (block == nullptr && error != nullptr)
        error(data, "no memory", ENOMEM);
    return block;
}

void backtrace_free(backtrace_state* state, void* block, size_t, backtrace_error_callback, void*) {
    qor::heap::memory_of(state).release(block);
}

void* backtrace_vector_grow(backtrace_state* state, size_t size, backtrace_error_callback error, void* data,
                            backtrace_vector* vector) {
    if (size > vector->alc) {
        const std::size_t wanted = std::max<std::size_t>(2 * vector->size, vector->size + 16 * size);
        void* const block = qor::heap::memory_of(state).resize(vector->base, wanted);
        if (block == nullptr) {
            if (error != nullptr)
                error(data, "no memory", ENOMEM);
            return nullptr;
        }
        vector->base = block;
        vector->alc = wanted - vector->size;
    }
    void* const result = static_cast<char*>(vector->base) + vector->size;
    vector->size += size;
    vector->alc -= size;
    return result;
}

void* backtrace_vector_finish(backtrace_state* state, backtrace_vector* vector, backtrace_error_callback error,
                              void* data) {
    if (!backtrace_vector_release(state, vector, error, data))
        return nullptr;
    return std::exchange(*vector, {}).base;
}

int backtrace_vector_release(backtrace_state* state, backtrace_vector* vector, backtrace_error_callback error,
                             void* data) {
    vector->alc = 0;
    if (vector->size == 0) {
        qor::heap::memory_of(state).release(vector->base);
        vector->base = nullptr;
        return 1;
    }
    vector->base = qor::heap::memory_of(state).resize(vector->base, vector->size);
    if (vector->base == nullptr && error != nullptr)
        error(data, "no memory", ENOMEM);
    return vector->base != nullptr;
}

} // extern "C"
