// Inside the allocator: the allocation log, text that `qortool memcheck` replays.
//
//   A <address> <size> <block type> [<file> <line>]     a new block
//   F <address> <block type>                            a block given back
//   T <address> <type name>                             the object in a block has said what it is
//
// Addresses are hexadecimal, numbers decimal. Only whole lines are written; what is buffered, at most
// buffer_size bytes, is lost when the process is killed. The caller holds the allocator's lock.
#pragma once

#include "file/raw_file.h"
#include "memory/live_blocks.h"

#include <string>

namespace qor::memory {

class allocation_log {
public:
    static constexpr std::size_t buffer_size = 64 * 1024;

    // 0, or the system's error code.
    int open(const std::string& path);
    bool is_open() const noexcept { return m_file.is_open(); }

    void allocated(const live_block& block);
    void freed(const void* address, block_type type);
    void named(const void* address, const char* type_name);

    // Writes what is buffered, and from now on each line at once: the process is about to end.
    void finish();

    // In the child of a fork: the lines in the buffer are the parent's, the child goes on in FILE.<pid>.
    void continue_in_child(const live_blocks& blocks);

private:
    void line(const char* text, std::size_t length);
    void flush();
    void give_up(int reason);

    int open_file(const std::string& path);

    file::raw_file m_file;
    std::string m_first_path; // of the process that was told to log
    std::string m_path;       // of this process
    std::string m_buffer;
    bool m_finishing = false;
};

} // namespace qor::memory
