// PREFIX.stacks: the stack of each allocation of a log, and what is needed to find functions and lines for its frames.
// docs/heap-logs.md describes the format.
#pragma once

#include "arena_host.h"
#include "output_file.h"

#include <cstring>

namespace qor::record {

inline constexpr char stacks_magic[] = "QORSTK\x01\n";
inline constexpr std::size_t stacks_magic_size = 8;

namespace stacks_entry {
enum : std::uint64_t {
    process = 1,
    module,
    module_gone,
    module_back,
    node,
    thread,
    thread_name,
    time,
    loss,
    inherited,
    first_stack = 16,
};
} // namespace stacks_entry

class stacks_file {
public:
    explicit stacks_file(arena_host& host) : m_host(host) {}

    output_file& file() noexcept { return m_file; }

    void begin(std::int32_t process, std::int32_t parent, std::uint64_t start_time, unsigned depth);
    void allocation(std::uint32_t node, std::uint32_t thread) {
        if (thread != m_thread) [[unlikely]]
            change_thread(thread);
        stack(node);
    }
    // The same for a line without a thread.
    void stack(std::uint32_t node) {
        if (node >= m_nodes.size() || m_nodes[node].generation != m_generation) [[unlikely]]
            add_stack(node);
        char* const at = m_file.room();
        m_file.advance(number(at, stacks_entry::first_stack + m_nodes[node].number));
    }
    // The arena's node of a number in this file.
    std::uint32_t node_of(std::uint32_t file_number) const noexcept {
        return file_number < m_file_nodes.size() ? m_file_nodes[file_number] : 0;
    }
    // Distinct ones, so far.
    std::uint32_t stack_count() const noexcept { return m_stack_count; }
    void module_gone(std::uint32_t module);
    // The modules that are gone here, by their numbers in the arena.
    std::vector<std::uint32_t> modules_gone() const;
    void time(std::uint64_t since_start);
    void loss(std::uint64_t records, std::string_view reason);
    void inherited(std::uint64_t lines);

private:
    static char* number(char* at, std::uint64_t value) {
        while (value >= 0x80) {
            *at++ = static_cast<char>(value | 0x80);
            value >>= 7;
        }
        *at++ = static_cast<char>(value);
        return at;
    }
    template <class... Numbers>
    void entry(Numbers... numbers) {
        char* at = m_file.room();
        ((at = number(at, static_cast<std::uint64_t>(numbers))), ...);
        m_file.advance(at);
    }
    static char* text(char* at, std::string_view value) {
        at = number(at, value.size());
        std::memcpy(at, value.data(), value.size());
        return at + value.size();
    }
    void add_stack(std::uint32_t node);
    void add_node(std::uint32_t node);
    std::uint32_t module_number(std::uint32_t module);
    void bring_modules_back(std::uint32_t node);
    void change_thread(std::uint32_t thread);

    struct seen_node {
        std::uint32_t number = 0;     // in this file; 0: not yet
        std::uint32_t generation = 0; // m_generation when it was last the stack of a line; 0: it never was
    };
    struct seen_module {
        std::uint32_t number = 0; // in this file; 0: not yet
        bool is_gone = false;
    };

    arena_host& m_host;
    output_file m_file;
    std::vector<seen_node> m_nodes;             // by their numbers in the arena
    std::vector<std::uint32_t> m_file_nodes{0}; // the other way round
    std::uint32_t m_stack_count = 0;
    std::vector<seen_module> m_modules;
    std::uint32_t m_module_count = 0;
    std::uint32_t m_generation = 1; // grows when a module goes
    std::uint32_t m_gone_count = 0; // modules that are gone and not back
    std::int32_t m_process = 0;
    std::uint32_t m_thread = 0;
    std::vector<std::uint32_t> m_named_threads;
};

} // namespace qor::record
