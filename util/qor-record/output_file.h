// A log as it is written: a new file, in whole pieces, so that whatever ends it ends it behind a whole line.
#pragma once

#include "compression/compressor.h"
#include "file_system.h"

#include <memory>
#include <string>

namespace qor::record {

class output_file {
public:
    static constexpr int level = 1; // of compression: the fastest

    output_file() = default;
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;

    // Creates the file. Nothing that exists is opened. 0, or the error.
    int create(const std::string& path, compression::format kind);
    // What is written goes nowhere.
    void refuse(int reason);

    const std::string& path() const noexcept { return m_path; }
    compression::format kind() const noexcept { return m_kind; }
    int failure() const noexcept { return m_failure; } // of the write that ended it; 0: all writes succeeded

    // Room for the next piece, which may be as long as `longest_piece`; advance() tells its end. A piece is never
    // parted.
    static constexpr std::size_t longest_piece = 16U << 10;
    char* room() {
        if (m_used > buffer_size - longest_piece) [[unlikely]]
            pass_on(ending::none);
        return m_buffer.get() + m_used;
    }
    void advance(const char* end) noexcept { m_used = static_cast<std::size_t>(end - m_buffer.get()); }

    void flush(); // so that all of it can be read
    void finish();
    void remove();
    // Replaces a file that has this name.
    void rename(const std::string& path);

private:
    using ending = compression::compressor::ending;

    static constexpr std::size_t buffer_size = 128U << 10;

    void pass_on(ending until);
    void write(const char* data, std::size_t size);

    std::string m_path;
    compression::format m_kind = compression::format::none;
    std::unique_ptr<compression::compressor> m_compressor; // null: the file is not compressed
    std::string m_compressed;
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_used = 0;
    std::size_t m_written = 0;
    bool m_is_flushed = true;
    raw_file m_file;
    int m_failure = 0;
};

} // namespace qor::record
