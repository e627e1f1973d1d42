// The blocks that are alive at a place of a log, found by reading what was written of it: that is needed where a
// process forks, or a realloc fails, so no block has to be remembered otherwise.
#pragma once

#include "compression/decompressor.h"
#include "file_system.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qor::record {

class log_replay {
public:
    // Both files as far as they are flushed.
    log_replay(const std::string& log, const std::string& stacks, compression::format kind);

    struct block {
        std::uint64_t size;
        std::uint32_t stack; // the number of its node in the file of stacks
        std::uint64_t line;  // the number of its allocation's line
    };

    // On to the place behind that many allocations and releases. False: there are not so many, or one cannot be read.
    bool advance(std::uint64_t lines);
    std::uint64_t lines() const noexcept { return m_lines; }

    const std::unordered_map<std::uint64_t, block>& blocks() const noexcept { return m_blocks; }
    // Those that a realloc has taken, as long as nothing else was allocated in their place.
    const std::unordered_map<std::uint64_t, block>& moved_blocks() const noexcept { return m_moved_blocks; }
    // The blocks in the order in which they were allocated.
    std::vector<std::pair<std::uint64_t, block>> blocks_in_order() const;

private:
    class stream {
    public:
        stream(const std::string& path, compression::format kind);
        // False: there is no more.
        bool fill();
        // A line without its end. False: there is no whole one.
        bool line(std::string_view& text);
        bool number(std::uint64_t& value);
        bool skip(std::uint64_t bytes);

    private:
        raw_file m_file;
        std::unique_ptr<compression::decompressor> m_decompressor; // null: the file is not compressed
        std::string m_bytes;
        std::size_t m_at = 0;
    };

    bool next_stack(std::uint32_t& number);

    stream m_log;
    stream m_stacks;
    std::uint64_t m_lines = 0;
    bool m_has_magic = false;
    std::unordered_map<std::uint64_t, block> m_blocks;
    std::unordered_map<std::uint64_t, block> m_moved_blocks;
};

} // namespace qor::record
