#include "compressor.h"

#include "shared_library.h"

#include <algorithm>
#include <limits>

namespace qor::compression {

namespace {

// By so much the output grows at a time.
constexpr std::size_t step = 64 * 1024;

constexpr char no_memory[] = "not enough memory";

std::string cannot_load(const char* file, const std::string& why) { return std::string(file) + ": " + why; }

// The output's room for the library: `fill(begin, size)` returns how many bytes of it were used.
template <class FILL>
void append(std::string& out, FILL fill) {
    const std::size_t before = out.size();
    out.resize(before + step);
    out.resize(before + fill(out.data() + before, step));
}

} // namespace

compressor::~compressor() {
    if (m_zlib != nullptr)
        m_zlib->deflate_end(&m_deflate);
    if (m_zstd != nullptr)
        m_zstd->free_compressor(m_zstd_state);
}

bool compressor::start(format which, int level) {
    m_format = which;
    return which == format::gzip ? start_gzip(level) : start_zstd(level);
}

bool compressor::add(std::string_view bytes, ending how, std::string& out) {
    if (m_zlib == nullptr && m_zstd == nullptr)
        return false;
    return m_format == format::gzip ? add_gzip(bytes, how, out) : add_zstd(bytes, how, out);
}

bool compressor::start_gzip(int level) {
    std::string why;
    const zlib_functions* const library = zlib(why);
    if (library != nullptr) {
        constexpr int with_gzip_header = 16;
        constexpr int default_memory = 8;
        const int result =
            library->deflate_init(&m_deflate, level, Z_DEFLATED, MAX_WBITS + with_gzip_header, default_memory,
                                  Z_DEFAULT_STRATEGY, ZLIB_VERSION, static_cast<int>(sizeof m_deflate));
        if (result == Z_OK) {
            m_zlib = library;
            return true;
        }
        why = result == Z_MEM_ERROR ? no_memory : "it refuses level " + std::to_string(level);
    }
    m_reason = cannot_load(zlib_file, why);
    return false;
}

bool compressor::start_zstd(int level) {
    std::string why;
    const zstd_functions* const library = zstd(why);
    if (library != nullptr) {
        m_zstd_state = library->create_compressor();
        if (m_zstd_state != nullptr) {
            m_zstd = library;
            m_zstd->set_compressor(m_zstd_state, ZSTD_c_compressionLevel, level);
            m_zstd->set_compressor(m_zstd_state, ZSTD_c_checksumFlag, 1);
            return true;
        }
        why = no_memory;
    }
    m_reason = cannot_load(zstd_file, why);
    return false;
}

bool compressor::add_gzip(std::string_view bytes, ending how, std::string& out) {
    const int flush = how == ending::whole ? Z_FINISH : how == ending::flush ? Z_SYNC_FLUSH : Z_NO_FLUSH;
    // The library does not write there.
    char* next = const_cast<char*>(bytes.data());
    std::size_t left = bytes.size();
    int result = Z_OK;
    do {
        const uInt piece = static_cast<uInt>(std::min<std::size_t>(left, std::numeric_limits<uInt>::max()));
        m_deflate.next_in = reinterpret_cast<Bytef*>(next);
        m_deflate.avail_in = piece;
        append(out, [&](char* room, std::size_t size) {
            m_deflate.next_out = reinterpret_cast<Bytef*>(room);
            m_deflate.avail_out = static_cast<uInt>(size);
            result = m_zlib->deflate(&m_deflate, piece == left ? flush : Z_NO_FLUSH);
            return size - m_deflate.avail_out;
        });
        const std::size_t used = piece - m_deflate.avail_in;
        next += used;
        left -= used;
    } while (result == Z_OK && (left != 0 || m_deflate.avail_out == 0));
    if (result == Z_STREAM_END)
        return m_zlib->deflate_reset(&m_deflate) == Z_OK;
    return result == Z_OK || result == Z_BUF_ERROR; // the latter: there was nothing left to do
}

bool compressor::add_zstd(std::string_view bytes, ending how, std::string& out) {
    const ZSTD_EndDirective directive = how == ending::whole   ? ZSTD_e_end
                                        : how == ending::flush ? ZSTD_e_flush
                                                               : ZSTD_e_continue;
    ZSTD_inBuffer from{bytes.data(), bytes.size(), 0};
    std::size_t left = 0;
    do {
        append(out, [&](char* room, std::size_t size) {
            ZSTD_outBuffer to{room, size, 0};
            left = m_zstd->compress(m_zstd_state, &to, &from, directive);
            return to.pos;
        });
        if (m_zstd->is_error(left) != 0)
            return false;
    } while (how == ending::none ? from.pos != from.size : left != 0);
    return true;
}

} // namespace qor::compression
