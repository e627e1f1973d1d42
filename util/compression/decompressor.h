// Decompresses data that come in pieces: gzip members and zstd frames one behind the other, in any mixture.
#pragma once

#include "format.h"
#include "libraries.h"

#include <cstdint>
#include <string>

namespace qor::compression {

class decompressor {
public:
    enum class outcome : unsigned char {
        good,
        no_library,    // library() cannot be loaded; reason() says why
        damaged,       // behind position(), the data are not what a compressor makes
        window_limit,  // a zstd frame that refers to text further back than 2 ^ window_bits bytes
        out_of_memory, // more than this process can have
    };

    // A decompressor keeps that much text at most; a few hundred KiB come on top. The program zstd has the same limit.
    static constexpr int window_bits = 27;

    decompressor() = default;
    decompressor(const decompressor&) = delete;
    decompressor& operator=(const decompressor&) = delete;
    ~decompressor();

    // Decompresses bytes at `next` to the room at `out`, and moves both behind what was used. It returns when it has
    // used all bytes and everything they yield has been stored, or when there is no room. Other outcomes than `good`
    // are final; text that was stored before is valid.
    outcome convert(const char*& next, const char* end, char*& out, char* out_end);

    // Whether the data may end here.
    bool is_between_streams() const noexcept { return m_stream == format::none && m_head_size == 0; }

    // In bytes of compressed data, from the first: how far it was understood.
    std::uint64_t position() const noexcept { return m_position; }

    // The form of the stream that was begun last.
    format stream() const noexcept { return m_last; }

    // After `no_library`.
    const char* library() const noexcept;
    const std::string& reason() const noexcept { return m_reason; }

private:
    void go_on(const char*& next, const char* end, char*& out, char* out_end);

    // Collects the signature of the next stream. False: more is needed.
    bool begin_stream(const char*& next, const char* end);
    outcome prepare(format which);
    outcome run(const char*& next, const char* end, char*& out, char* out_end);
    outcome run_gzip(const char*& next, const char* end, char*& out, char* out_end);
    outcome run_zstd(const char*& next, const char* end, char*& out, char* out_end);

    outcome m_outcome = outcome::good;
    format m_stream = format::none; // `none`: between two streams
    format m_last = format::none;
    bool m_had_stream = false;
    char m_head[longest_signature];
    std::size_t m_head_size = 0; // bytes of a signature that are not passed on yet
    std::uint64_t m_position = 0;
    std::string m_reason;

    const zlib_functions* m_zlib = nullptr; // with it m_inflate is set up
    z_stream m_inflate{};
    const zstd_functions* m_zstd = nullptr;
    ZSTD_DCtx* m_zstd_state = nullptr;
    std::size_t m_wanted = 0; // bytes to the end of this part of a zstd frame
    bool m_was_full = false;  // more may come out without more going in
};

} // namespace qor::compression
