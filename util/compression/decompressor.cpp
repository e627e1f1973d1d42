#include "decompressor.h"

#include "shared_library.h"

#include <algorithm>
#include <limits>

namespace qor::compression {

namespace {

std::size_t distance(const char* begin, const char* end) noexcept { return static_cast<std::size_t>(end - begin); }

// As zlib counts bytes.
unsigned piece(const char* begin, const char* end) noexcept {
    return static_cast<unsigned>(std::min<std::size_t>(distance(begin, end), std::numeric_limits<unsigned>::max()));
}

} // namespace

decompressor::~decompressor() {
    if (m_zlib != nullptr)
        m_zlib->inflate_end(&m_inflate);
    if (m_zstd != nullptr)
        m_zstd->free_decompressor(m_zstd_state);
}

const char* decompressor::library() const noexcept { return m_last == format::gzip ? zlib_file : zstd_file; }

decompressor::outcome decompressor::convert(const char*& next, const char* end, char*& out, char* out_end) {
    const char* const begin = next;
    go_on(next, end, out, out_end);
    m_position += distance(begin, next);
    return m_outcome;
}

void decompressor::go_on(const char*& next, const char* end, char*& out, char* out_end) {
    while (m_outcome == outcome::good) {
        if (m_stream == format::none) {
            if (!begin_stream(next, end))
                break;
            continue;
        }
        // The signature belongs to the stream. It yields no text.
        if (m_head_size != 0) {
            const char* head = m_head;
            m_outcome = run(head, m_head + m_head_size, out, out_end);
            m_head_size = 0;
            continue;
        }
        // libzstd takes repeated calls with nothing to do for a fault.
        if (out == out_end || (next == end && !m_was_full))
            break;
        m_outcome = run(next, end, out, out_end);
        m_was_full = out == out_end && m_stream != format::none;
    }
}

bool decompressor::begin_stream(const char*& next, const char* end) {
    // Behind the last stream some programs fill up with zeros.
    while (m_had_stream && m_head_size == 0 && next != end && *next == '\0')
        ++next;
    while (next != end) {
        m_head[m_head_size++] = *next++;
        const beginning found = recognise({m_head, m_head_size});
        if (found.is_open)
            continue;
        if (found.is != format::none) {
            m_outcome = prepare(found.is);
        } else {
            m_outcome = outcome::damaged;
            m_position -= m_head_size; // they turned out not to be a signature
        }
        return m_outcome == outcome::good;
    }
    return false;
}

decompressor::outcome decompressor::prepare(format which) {
    m_stream = m_last = which;
    m_had_stream = true;
    if (which == format::gzip) {
        if (m_zlib != nullptr)
            return m_zlib->inflate_reset(&m_inflate) == Z_OK ? outcome::good : outcome::damaged;
        const zlib_functions* const library = zlib(m_reason);
        if (library == nullptr)
            return outcome::no_library;
        constexpr int with_gzip_header = 16;
        const int result = library->inflate_init(&m_inflate, MAX_WBITS + with_gzip_header, ZLIB_VERSION,
                                                 static_cast<int>(sizeof m_inflate));
        if (result == Z_OK)
            m_zlib = library;
        else if (result != Z_MEM_ERROR)
            m_reason = "version " ZLIB_VERSION;
        return result == Z_OK ? outcome::good : result == Z_MEM_ERROR ? outcome::out_of_memory : outcome::no_library;
    }
    if (m_zstd == nullptr) {
        const zstd_functions* const library = zstd(m_reason);
        if (library == nullptr)
            return outcome::no_library;
        m_zstd_state = library->create_decompressor();
        if (m_zstd_state == nullptr)
            return outcome::out_of_memory;
        m_zstd = library;
        m_zstd->set_decompressor(m_zstd_state, ZSTD_d_windowLogMax, window_bits);
    }
    m_wanted = longest_signature;
    return outcome::good;
}

decompressor::outcome decompressor::run(const char*& next, const char* end, char*& out, char* out_end) {
    return m_stream == format::gzip ? run_gzip(next, end, out, out_end) : run_zstd(next, end, out, out_end);
}

decompressor::outcome decompressor::run_gzip(const char*& next, const char* end, char*& out, char* out_end) {
    // The library does not write there.
    m_inflate.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(next));
    m_inflate.avail_in = piece(next, end);
    m_inflate.next_out = reinterpret_cast<Bytef*>(out);
    m_inflate.avail_out = piece(out, out_end);
    const int result = m_zlib->inflate(&m_inflate, Z_SYNC_FLUSH);
    next = reinterpret_cast<const char*>(m_inflate.next_in);
    out = reinterpret_cast<char*>(m_inflate.next_out);
    switch (result) {
    case Z_STREAM_END:
        m_stream = format::none;
        return outcome::good;
    case Z_OK:
    case Z_BUF_ERROR: // nothing to do
        return outcome::good;
    case Z_MEM_ERROR:
        return outcome::out_of_memory;
    default: // also Z_NEED_DICT, which no gzip member has
        return outcome::damaged;
    }
}

// A call that fails keeps back the text that it has made. So the library gets one part of the frame at a time, without
// the head of the next block, although it asks for that too. It gets nothing while earlier text waits for room.
decompressor::outcome decompressor::run_zstd(const char*& next, const char* end, char*& out, char* out_end) {
    ZSTD_inBuffer from{next, m_was_full ? 0 : std::min(distance(next, end), m_wanted), 0};
    ZSTD_outBuffer to{out, distance(out, out_end), 0};
    const std::size_t result = m_zstd->decompress(m_zstd_state, &to, &from);
    if (m_zstd->is_error(result) != 0) {
        switch (m_zstd->error_code(result)) {
        case ZSTD_error_frameParameter_windowTooLarge:
            return outcome::window_limit;
        case ZSTD_error_memory_allocation:
            return outcome::out_of_memory;
        default:
            return outcome::damaged;
        }
    }
    next += from.pos;
    out += to.pos;
    constexpr std::size_t block_head = 3;
    m_wanted = result > block_head ? result - block_head : std::max<std::size_t>(result, 1);
    if (result == 0)
        m_stream = format::none;
    return outcome::good;
}

} // namespace qor::compression
