// Inside the module qor-store: the pages of a file of SQLite and of the log beside it, and the records in them, read
// without any trust in them. https://www.sqlite.org/fileformat2.html describes both files.
#pragma once

#include "format.h"

#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace store {

using page = std::vector<unsigned char>; // of page_size bytes

// The number in some bytes, which is big-endian.
inline uint32 read_32(const unsigned char* at) noexcept {
    return uint32{at[0]} << 24 | uint32{at[1]} << 16 | uint32{at[2]} << 8 | uint32{at[3]};
}
inline uint32 read_16(const unsigned char* at) noexcept { return uint32{at[0]} << 8 | uint32{at[1]}; }

// A file through SQLite's own seam to the system. Closing it leaves the locks of stores that are open in this process.
class raw_file {
public:
    raw_file() noexcept = default;
    raw_file(const raw_file&) = delete;
    raw_file& operator=(const raw_file&) = delete;
    ~raw_file();

    // `kind` is SQLITE_OPEN_MAIN_DB or SQLITE_OPEN_WAL. Returns a result of SQLite.
    int open(const std::string& path, int kind);
    uint64 size() noexcept;
    // Reads a part; what lies behind the end, or cannot be read, is 0. Returns whether all could be read.
    bool read(uint64 offset, std::span<unsigned char> out) noexcept;

private:
    sqlite3_filename m_name = nullptr;
    std::unique_ptr<unsigned char[]> m_memory;
    sqlite3_file* m_file = nullptr;
};

// The pages of a file, with what the log beside it has for them.
class page_file {
public:
    // Returns false and sets the last error if there is nothing to read.
    bool open(const std::string& path);

    uint32 count() const noexcept { return m_count; }
    // Numbers begin with 1.
    bool read(uint32 number, page& out);

private:
    void read_log();

    raw_file m_main;
    raw_file m_log;
    uint32 m_count = 0;
    std::unordered_map<uint32, uint64> m_newer; // pages in the log, and where
};

// A value in a record: bytes or a number.
struct field {
    bool is_number = false;
    bool is_text = false;
    uint64 number = 0;
    std::string_view bytes;
};

// Divides a record into its fields. Returns false if this is not a record.
bool read_record(std::string_view record, std::vector<field>& out);

// A number of SQLite in one to nine bytes; `at` moves behind it. Returns false if it does not end.
bool read_varint(std::span<const unsigned char> from, std::size_t& at, uint64& out) noexcept;

} // namespace store
