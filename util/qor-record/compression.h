// Streams of zstd and gzip, by the system's libraries, which are loaded at the first use.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace qor::record {

enum class compression { none, zstd, gzip };

// ".zst", ".gz" or nothing.
const char* suffix_of(compression kind) noexcept;

// False: the library is not there, and `why` says what the loader says. `library` is its name.
bool can_compress(compression kind, std::string& library, std::string& why);

enum class how_far {
    on,    // there is more to come
    flush, // all of it can be read now
    end,   // the last piece
};

class compressor {
public:
    virtual ~compressor() = default;
    // Adds to `out` what comes out. False: there is no memory.
    virtual bool put(const char* data, std::size_t size, how_far until, std::string& out) = 0;
};

class decompressor {
public:
    virtual ~decompressor() = default;
    // False: this is nothing that the compressor has written.
    virtual bool put(const char* data, std::size_t size, std::string& out) = 0;
};

// Null for `none`. Both only after can_compress().
std::unique_ptr<compressor> make_compressor(compression kind);
std::unique_ptr<decompressor> make_decompressor(compression kind);

} // namespace qor::record
