// Inside the allocator: the allocation log, text that `qortool memcheck` replays.
//
//   A <address> <size> <block type> [<file> <line>]     a new block
//   F <address> <block type>                            a block given back
//   T <address> <type name>                             the object in a block has said what it is
//
// Addresses are hexadecimal, numbers decimal. Only whole lines are written; what is buffered, at most
// buffer_size bytes, is lost when the process is killed. The caller holds the allocator's lock.
#pragma once

#include "memory/live_blocks.h"
#include "platform/raw_file.h"

#include <string>
#include <string_view>

namespace qor::memory {

// "%p" in the name of a log stands for the process that writes it. This is the name for the processes that
// come from one: `name` itself, if each of them makes another file of it.
std::string log_name_for_children(const std::string& name);

class allocation_log {
public:
    // About a hundred lines. A larger one would hardly save time: the call costs as much as two or three
    // lines.
    static constexpr std::size_t buffer_size = 4 * 1024;

    // Begins with the blocks that live already. 0, or the system's error code.
    int open(const std::string& name, const live_blocks& blocks);
    bool is_open() const noexcept { return m_file.is_open(); }

    void allocated(const live_block& block);
    void freed(const void* address, block_type type);
    void named(const void* address, const char* type_name);

    // Writes what is buffered, and from now on each line at once: the process is about to end.
    void finish();

    // In the child of a fork: the lines in the buffer are the parent's, the child goes on in a file of its
    // own.
    void continue_in_child(const live_blocks& blocks);

    // Why the log ended before the process; empty: it did not. Told once, and printed by who holds no lock.
    bool has_last_words() const noexcept { return !m_last_words.empty(); }
    std::string take_last_words();

private:
    int open_file();
    void add(std::string_view text);
    void add_number(unsigned long long value, int base);
    void add_address(char letter, const void* address);
    void add_word(const char* text);
    void end_line();
    void flush();
    void give_up(int reason);

    platform::raw_file m_file;
    std::string m_name; // as it was given, of this process
    std::string m_path;
    std::string m_last_words;
    std::string m_buffer;        // whole lines, but for the one that is being made
    std::size_t m_whole = 0;     // how much of it is whole lines
    std::uint64_t m_written = 0; // bytes of the file
    bool m_finishing = false;
};

} // namespace qor::memory
