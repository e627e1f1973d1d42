// The bytes of a regular file from its beginning on, decompressed if it is compressed with gzip or zstd.
#pragma once

#include "decompressing_filter.h"
#include "qor/qor.h"

#include <optional>
#include <vector>

namespace qor::heap {

class file_bytes {
public:
    // Opens the file without waiting. Folders, pipes and devices are refused. Returns false on failure; the last error
    // says why.
    bool open(const char* path);
    void close();

    // Stores the next bytes, as many as there are or fit. Returns their number. 0 is the end of the file, which may be
    // the end for now if somebody still writes it, or of what can be read of it.
    std::size_t read(char* out, std::size_t room);

    // After the end: asks whether the file ends where it may. Returns false if it could not be read to its end, or is
    // compressed and cut off; the last error says why.
    bool is_whole();

private:
    bool fill();

    qorFile m_file;
    std::optional<decompressing_filter> m_filter;
    bool m_is_decided = false; // whether the file is compressed
    bool m_is_filtered = false;
    bool m_has_failed = false;
    uint64 m_position = 0; // in the file, of the next byte to read
    std::vector<char> m_raw;
    const char* m_next = nullptr; // bytes of the file that are not handed out
    const char* m_end = nullptr;
};

} // namespace qor::heap
