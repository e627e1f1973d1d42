// Reads a file of stacks, PREFIX.stacks, beside its log. The format is in docs/heap-logs.md.
//
// The file is strangers' input: numbers are checked before they are used, and texts, modules, nodes and the depth of
// stacks have limits. A file that is cut off, damaged or beyond a limit is usable up to there.
#pragma once

#include "file_bytes.h"
#include "heap/table/piecewise.h"
#include "qor/system/Types.h"

#include <bit>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qor::heap {

// One object reads one file.
class stacks_log {
public:
    // The reason why there are no more stacks.
    enum class ending : uint8 {
        not_reached,
        whole,      // the file ends behind an entry
        cut_off,    // in an entry
        damaged,    // an entry cannot be one
        newer,      // an entry of a kind that this reader does not know
        limit,      // an entry beyond a limit
        unreadable, // the system or a decompressor failed: failure() says how
    };

    static constexpr uint32 most_nodes = uint32{1} << 26;
    static constexpr uint32 most_modules = 65535;
    static constexpr uint32 most_depth = 4096;
    static constexpr std::size_t longest_text = 64 * 1024;
    static constexpr std::size_t most_text = std::size_t{64} << 20; // of all modules, in bytes
    static constexpr std::size_t most_losses = 1024;                // kept apart; later ones join the last one

    struct node {
        uint64 address = 0; // minus the base of the module
        uint32 parent = 0;
        uint16 module = 0; // 0: outside of every module
        uint16 depth = 0;
    };

    struct module {
        uint64 base = 0;
        uint64 begin = 0;
        uint64 end = 0;
        std::string path;
        std::string build_id;
    };

    struct process {
        uint64 pid = 0;
        uint64 parent = 0;
        uint64 start_ns = 0;
        uint64 depth = 0;
        std::string path;
        std::string recorder;
    };

    struct loss {
        uint64 records = 0;
        std::string reason;
    };

    // Opens a regular file, and reads what it says of the process. Returns false if it cannot be opened (last error),
    // or is no file of stacks, or one of another version (no last error).
    bool open(const char* path);

    bool is_open() const noexcept { return m_is_open; }

    // For a file that is still being written: what to do at its present end. The function waits a little and returns
    // true, or false to take the end for the end.
    void set_at_end(std::function<bool()> wait) { m_wait = std::move(wait); }

    // The node of the stack of the log's next allocation line; 0, the empty stack, also behind the end.
    uint32 next() {
        if (m_ending != ending::not_reached) [[unlikely]]
            return 0;
        // A node of up to three bytes, which is most of them. Their lengths cannot be predicted, so there is no branch.
        if (m_end - m_next >= 3) [[likely]] {
            const auto byte = [this](int i) { return static_cast<uint32>(static_cast<unsigned char>(m_next[i])); };
            const uint32 word = byte(0) | byte(1) << 8 | byte(2) << 16;
            if (const uint32 ends = ~word & 0x808080) [[likely]] {
                const int bits = std::countr_zero(ends) + 1;
                const uint32 kept = word & (uint32{0xffffff} >> (24 - bits));
                const uint32 number = (kept & 0x7f) | (kept >> 1 & 0x3f80) | (kept >> 2 & 0x1fc000);
                if (number >= first_stack && number - first_stack < m_nodes.size()) [[likely]] {
                    m_next += bits / 8;
                    return take_stack(number - first_stack);
                }
            }
        }
        return next_of_any();
    }

    // Of the last call of next().
    bool is_inherited() const noexcept { return m_is_inherited; }
    uint64 time_ns() const noexcept { return m_time; } // since the start of the process
    uint64 stack_count() const noexcept { return m_stack_count; }

    // Number 0 of the first two is the absent one. The parent of a node stands before it.
    const piecewise<node>& nodes() const noexcept { return m_nodes; }
    const std::vector<module>& modules() const noexcept { return m_modules; }
    const process& of() const noexcept { return m_process; }
    const std::vector<loss>& losses() const noexcept { return m_losses; }
    bool has_times() const noexcept { return m_has_times; }

    ending how_it_ended() const noexcept { return m_ending; }
    const qorString& failure() const noexcept { return m_failure; }

private:
    static constexpr uint32 first_stack = 16;

    uint32 take_stack(uint32 found) noexcept {
        ++m_stack_count;
        m_is_inherited = m_inherited != 0;
        m_inherited -= m_is_inherited;
        return found;
    }

    uint32 next_of_any();
    void read_process_first();
    bool read_more();
    bool take_end();
    bool read_entry(uint64 kind);
    bool read_process();
    bool read_module();
    bool read_node();
    bool read_loss();
    bool number(uint64& out);
    bool text(std::string& out);
    bool fail(ending how) noexcept;

    file_bytes m_file;
    std::function<bool()> m_wait;
    bool m_is_open = false;
    bool m_is_short = false; // the entry that is being read goes on behind the bytes that were read
    ending m_ending = ending::not_reached;
    qorString m_failure;
    std::vector<char> m_bytes;
    const char* m_next = nullptr;
    const char* m_end = nullptr;

    piecewise<node> m_nodes;
    std::vector<module> m_modules;
    process m_process;
    std::vector<loss> m_losses;
    std::size_t m_text_bytes = 0;
    uint64 m_stack_count = 0;
    uint64 m_inherited = 0; // stacks to come
    bool m_is_inherited = false;
    uint64 m_time = 0;
    bool m_has_times = false;
};

} // namespace qor::heap
