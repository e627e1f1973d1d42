// A log as it is written: a file that is new, in whole pieces, so that whatever ends it ends it behind a whole line.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace qor::record {

enum class compression { none, zstd, gzip };

// ".zst", ".gz" or nothing.
const char* suffix_of(compression kind) noexcept;

class compressor {
public:
    virtual ~compressor() = default;
    // Compresses the piece and calls write(). False: that has failed.
    virtual bool put(const char* data, std::size_t size, bool ends_here, bool is_last, class output_file& to) = 0;
};

// Null, and `why` says what is missing: the library is loaded at the first use.
std::unique_ptr<compressor> make_compressor(compression kind, std::string& why);

class output_file {
public:
    output_file() = default;
    output_file(const output_file&) = delete;
    output_file& operator=(const output_file&) = delete;
    ~output_file();

    // Creates the file, 0600. Nothing that exists is opened. 0, or the error.
    int create(const std::string& path, std::unique_ptr<compressor> compressed);

    bool is_open() const noexcept { return m_descriptor >= 0; }
    const std::string& path() const noexcept { return m_path; }
    int failure() const noexcept { return m_failure; } // errno of the write that ended it; 0: none has

    // Room for the next piece, which may be as long as `longest_piece`; advance() tells its end. A piece is never parted.
    static constexpr std::size_t longest_piece = 16U << 10;
    char* room() {
        if (m_used > buffer_size - longest_piece) [[unlikely]]
            flush_buffer(false, false);
        return m_buffer.get() + m_used;
    }
    void advance(const char* end) noexcept { m_used = static_cast<std::size_t>(end - m_buffer.get()); }

    void flush(); // so that all of it can be read
    void finish();
    void remove();                       // the file too
    void rename(const std::string& path); // what there is of that name already is replaced

    // For compressors.
    bool write(const char* data, std::size_t size);

private:
    static constexpr std::size_t buffer_size = 256U << 10;

    void flush_buffer(bool ends_here, bool is_last);
    void fail(int reason);

    std::string m_path;
    std::unique_ptr<compressor> m_compressor;
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_used = 0;
    std::size_t m_written = 0;
    bool m_has_unflushed = false;
    int m_descriptor = -1;
    int m_failure = 0;
};

} // namespace qor::record
