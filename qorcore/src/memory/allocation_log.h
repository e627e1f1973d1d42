// Inside the allocator: the allocation log, text that `qortool memcheck` replays.
//
//   A <address> <size> <block type> [<file> <line>]     a new block
//   F <address> <block type>                            a freed block
//   T <address> <type name>                             the type of the object in a block
//
// Addresses are hexadecimal, all other numbers decimal. Only whole lines are written. If the process is killed, the
// buffer, at most buffer_size bytes, is lost. The caller holds the allocator's lock.
#pragma once

#include "memory/live_blocks.h"
#include "platform/raw_file.h"

#include <string>
#include <string_view>

namespace qor::memory {

// "%p" in the name of a log stands for the process that writes it. Returns the name for the children of a process,
// which is `name` itself if it contains "%p".
std::string log_name_for_children(const std::string& name);

class allocation_log {
public:
    // About a hundred lines. A larger buffer would save hardly any time: a write costs as much as two or three lines.
    static constexpr std::size_t buffer_size = 4 * 1024;

    // Begins the log with the blocks that are already alive. Returns 0, or the system's error code.
    int open(const std::string& name, const live_blocks& blocks);
    bool is_open() const noexcept { return m_file.is_open(); }

    void allocated(const live_block& block);
    void freed(const void* address, block_type type);
    void named(const void* address, const char* type_name);

    // Writes the buffer, and from now on each line at once, because the process is about to end.
    void finish();

    // For a forked child: discards the buffered lines, which the parent writes, and continues in a file of its own.
    void continue_in_child(const live_blocks& blocks);

    // The reason why the log ended before the process; empty if it did not. The caller takes it once and prints it when
    // it holds no lock.
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
    std::string m_name; // as passed to open()
    std::string m_path;
    std::string m_last_words;
    std::string m_buffer;        // whole lines, followed by the one being built
    std::size_t m_whole = 0;     // the length of the whole lines
    std::uint64_t m_written = 0; // bytes written to the file
    bool m_finishing = false;
};

} // namespace qor::memory
